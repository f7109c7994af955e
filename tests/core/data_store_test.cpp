#include "vorn/core/data_store.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include "support/temp_dir.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

namespace vorn {
namespace {

namespace fs = std::filesystem;

class DataStoreTest : public ::testing::Test {
 protected:
  ~DataStoreTest() override { DataStore::instance().clear(); }
  void SetUp() override { DataStore::instance().clear(); }
  std::string writeSettings(const std::string& json) {
    const fs::path path = dir_ / DataStore::kSettingsFileName;
    std::ofstream(path) << json;
    return path.string();
  }
  DataStore& store() { return DataStore::instance(); }
  test::TempDir tmp_{"vorn_datastore"};
  const fs::path& dir_ = tmp_.path();
};

TEST_F(DataStoreTest, NestedObjectsGiveDottedKeys) {
  writeSettings(R"({
    "Logger": {"Verbosity": 2},
    "LowResScaleFactor": {"retina": 0.6, "nonreting": "0.85"},
    "IPC": {"Loader": {"enable_win": false}},
    "name": "vorn \"editor\"",
    "list": [10, 20]
  })");
  ASSERT_TRUE(store().loadFromFolder(dir_.string()));
  EXPECT_TRUE(store().lastLoadError().empty());
  EXPECT_EQ(store().getInt("Logger.Verbosity", 4), 2);
  EXPECT_FLOAT_EQ(store().getFloat("LowResScaleFactor.retina", 1.0f), 0.6f);
  EXPECT_FLOAT_EQ(store().getFloat("LowResScaleFactor.nonreting", 1.0f), 0.85f);
  EXPECT_FALSE(store().getBool("IPC.Loader.enable_win", true));
  EXPECT_EQ(store().getString("name", ""), "vorn \"editor\"");
  EXPECT_EQ(store().getInt("list.1", 0), 20);
  EXPECT_FALSE(store().contains("Logger"));
  EXPECT_EQ(store().getInt("Missing.Key", 17), 17);
  EXPECT_TRUE(store().getBool("Missing.Key", true));
}

TEST_F(DataStoreTest, WrongTypedValuesGiveTheDefault) {
  writeSettings(R"({"Logger": {"Verbosity": "abc"}, "i": 4.5, "big": 99999999999,
                    "f": "nan", "g": "inf", "b": "maybe", "empty": {}, "n": null})");
  ASSERT_TRUE(store().loadFromFolder(dir_.string()));
  EXPECT_EQ(store().getInt("Logger.Verbosity", 4), 4);
  EXPECT_EQ(store().getInt("i", 7), 7);
  EXPECT_EQ(store().getInt("big", 7), 7);
  EXPECT_FLOAT_EQ(store().getFloat("i", 0.0f), 4.5f);
  EXPECT_EQ(store().getFloat("f", 1.5f), 1.5f);
  EXPECT_EQ(store().getFloat("g", 1.5f), 1.5f);
  EXPECT_TRUE(store().getBool("b", true));
  EXPECT_FALSE(store().getBool("b", false));
  EXPECT_EQ(store().getInt("empty", 3), 3);
  EXPECT_EQ(store().getInt("n", 3), 3);
}

TEST_F(DataStoreTest, BadFilesGiveDefaultsAndOneReportableError) {
  const std::string nesting(200000, '[');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"missing", ""},
      {"corrupt", R"({"Logger": {"Verbosity": )"},
      {"garbage after data", R"({"a": 1} trailing)"},
      {"deep nesting", nesting},
  };
  for (const auto& [name, json] : cases) {
    fs::remove(dir_ / DataStore::kSettingsFileName);
    if (name != "missing") writeSettings(json);
    store().set("Logger.Verbosity", 1);
    EXPECT_FALSE(store().loadFromFolder(dir_.string())) << name;
    EXPECT_EQ(store().getInt("Logger.Verbosity", 4), 4) << name << ": old values are cleared";
    const std::string error = store().lastLoadError();
    EXPECT_NE(error.find("vorn_settings.json"), std::string::npos) << name << ": " << error;
    EXPECT_EQ(store().takeUnreportedLoadError(), error) << name;
    EXPECT_EQ(store().takeUnreportedLoadError(), "") << name;
    EXPECT_EQ(store().lastLoadError(), error) << name;
  }
  writeSettings(R"({"ok": true})");
  EXPECT_TRUE(store().loadFromFolder(dir_.string()));
  EXPECT_TRUE(store().lastLoadError().empty());
  EXPECT_EQ(store().takeUnreportedLoadError(), "");
  EXPECT_FALSE(store().loadFromFile(dir_.string())) << "a folder is not a settings file";
}

TEST_F(DataStoreTest, SetOverridesAndBoolSpellings) {
  store().set("b1", "1");
  store().set("b0", "0");
  store().set("bt", "TRUE");
  store().set("bool", false);
  store().set("int", -12);
  store().set("float", 0.1f);
  store().set("text", "plain");
  EXPECT_TRUE(store().getBool("b1", false));
  EXPECT_FALSE(store().getBool("b0", true));
  EXPECT_TRUE(store().getBool("bt", false));
  EXPECT_FALSE(store().getBool("bool", true));
  EXPECT_EQ(store().getString("bool", ""), "false");
  EXPECT_EQ(store().getInt("int", 0), -12);
  EXPECT_EQ(store().getFloat("float", 0.0f), 0.1f) << "a float survives its text form exactly";
  EXPECT_EQ(store().getString("text", ""), "plain");
  store().remove("int");
  EXPECT_FALSE(store().contains("int"));
  EXPECT_EQ(store().getInt("int", 7), 7);
  EXPECT_TRUE(store().contains("text"));
  store().clear();
  EXPECT_FALSE(store().contains("text"));
}

TEST_F(DataStoreTest, ConcurrentReadersAndWriters) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      // Appended rather than "k" + ...: GCC 12 misreports that form under -Wrestrict.
      const std::string key = std::string("k").append(std::to_string(t));
      for (int i = 0; i < 500; ++i) {
        store().set(key, i);
        const int value = store().getInt(key, -1);
        EXPECT_TRUE(value == i || value == -1) << value << " (a load may clear it)";
        store().getInt(std::string("k").append(std::to_string((t + 1) % 4)), 0);
      }
    });
  }
  threads.emplace_back([this] {
    for (int i = 0; i < 20; ++i) store().loadFromFolder(dir_.string());
  });
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace vorn
