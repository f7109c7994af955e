#include "vorn/core/library.h"

#include <gtest/gtest.h>
#include <tbb/global_control.h>
#include <tbb/info.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/temp_dir.h"
#include "vorn/core/data_store.h"
#include "vorn/core/image_load_state.h"
#include "vorn/core/log.h"

namespace vorn {
namespace {

namespace fs = std::filesystem;

using test::TempDir;

class TextCapture : public ILogStream {
 public:
  void write(const LogMessage& message) override {
    std::lock_guard lock(mutex_);
    messages_.push_back(message);
  }
  void flush() override {}
  std::vector<LogMessage> messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogMessage> messages_;
};

std::string readFile(const fs::path& path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

SVornContext sampleContext() {
  SVornContext context("/data/with space/é", "res\nfolder", {"dcp dir", ""},
                       VornApplication::Tests);
  context.logFlags = 2;
  context.mode = SVornContext::kModeNoOutOfProcess;
  context.forbidOutOfProcessLoader = true;
  return context;
}

class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    vornTearDown();
    UnInitLog();
    DataStore::instance().clear();
  }
  SVornContext contextWithSettings(const std::string& json) {
    if (!json.empty()) std::ofstream(dir_.path() / "vorn_settings.json") << json;
    SVornContext context(dir_.str(), "");
    context.logFlags = kLogToFile;
    return context;
  }
  TempDir dir_;
};

TEST(Library, VersionAndLoadStateNames) {
  EXPECT_EQ(vornVersionNumber(), 0.37);
  EXPECT_EQ(vornVersionString(), "0.37");
  EXPECT_STREQ(imageLoadStateName(QUARTER_LOADED), "QUARTER_LOADED");
  EXPECT_STREQ(imageLoadStateName(LOAD_ERROR), "LOAD_ERROR");
  EXPECT_STREQ(imageLoadStateName(static_cast<ImageLoadState>(9)), "UNKNOWN");
}

TEST(LibraryContext, TextRoundTrip) {
  const SVornContext original = sampleContext();
  SVornContext loaded;
  ASSERT_TRUE(loadContextFromText(saveContextToText(original), loaded));
  EXPECT_EQ(loaded, original);
  const SVornContext empty;
  ASSERT_TRUE(loadContextFromText(saveContextToText(empty), loaded));
  EXPECT_EQ(loaded, empty);
}

TEST(LibraryContext, MalformedTextLeavesOutputUntouched) {
  SVornContext tagged = sampleContext();
  tagged.dataFolder = "DATA";
  tagged.mode = 12345;
  const std::string good = saveContextToText(tagged);
  auto replaced = [&good](const std::string& from, const std::string& to) {
    std::string text = good;
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
  };
  std::string badApplication = good;
  badApplication.replace(badApplication.find_last_of('2'), 1, "7");
  const std::vector<std::string> bad = {
      "",
      "garbage",
      "22 serialization::archive",
      replaced(" 4 DATA", " 4000000000 DATA"),
      replaced(" 4 DATA", " 99999999999999999999 DATA"),
      replaced(" 4 DATA", " -4 DATA"),
      replaced("12345 1", "12345 2"),
      badApplication,
      replaced("serialization::archive", "serialisation::archive"),
  };
  const SVornContext sentinel("untouched", "sentinel");
  for (const auto& text : bad) {
    SVornContext output = sentinel;
    EXPECT_FALSE(loadContextFromText(text, output)) << text;
    EXPECT_EQ(output, sentinel) << text;
  }
  // Every truncation either fails cleanly or, when only blanks were lost, reads the whole record.
  for (std::size_t length = 0; length < good.size(); ++length) {
    SVornContext output = sentinel;
    if (loadContextFromText(good.substr(0, length), output)) {
      EXPECT_EQ(output, tagged) << length;
    } else {
      EXPECT_EQ(output, sentinel) << length;
    }
  }
}

TEST_F(LibraryTest, InitAnnouncesStepsAndKeepsContext) {
  auto capture = std::make_shared<TextCapture>();
  Logger::LogInstance().AddStream(capture);
  const SVornContext context = contextWithSettings(R"({"Threads": {"max": 1}})");
  EXPECT_FALSE(getVornContext());

  EXPECT_EQ(vornInit(context), kInitOk);
  const auto stored = getVornContext();
  ASSERT_TRUE(stored);
  EXPECT_EQ(*stored, context);
  EXPECT_EQ(getVornContext(), stored) << "the same stored context each time";
  EXPECT_EQ(tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism), 1u);

  std::vector<std::string> texts;
  for (const auto& message : capture->messages()) {
    EXPECT_EQ(message.type, LogMessageType::LogAlways) << message.text;
    texts.push_back(message.text);
  }
  EXPECT_EQ(texts, (std::vector<std::string>{"datastore init", "datastore init: OK", "hcim init",
                                             "hcim init: OK", "vorn initialized"}));

  vornTearDown();
  EXPECT_FALSE(getVornContext());
  EXPECT_TRUE(stored) << "a copy handed out earlier stays valid";
  EXPECT_EQ(tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism),
            static_cast<std::size_t>(tbb::info::default_concurrency()));

  EXPECT_EQ(vornInit(), kInitOk);
  EXPECT_FALSE(getVornContext());
  EXPECT_EQ(capture->messages().size(), 10u);
}

TEST_F(LibraryTest, ContextWithoutDataFolderIsKeptAndLogsWithoutAFile) {
  const SVornContext context("", "resources");
  EXPECT_EQ(vornInit(context), kInitOk);
  const auto stored = getVornContext();
  ASSERT_TRUE(stored);
  EXPECT_EQ(*stored, context);
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  InitLog(*stored);
  Logger::LogInstance().LogAlways(ModuleName::Global, "running without a data folder");
  const std::string logFile = Logger::logFileName();
  UnInitLog();
  std::filesystem::current_path(before);
  EXPECT_TRUE(logFile.empty()) << logFile;
  EXPECT_FALSE(std::filesystem::exists(dir_.path() / "Logs"));
}

TEST_F(LibraryTest, MissingSettingsFileWarnsOnceInTheLaterLog) {
  const SVornContext context = contextWithSettings("");
  EXPECT_EQ(vornInit(context), kInitOk);
  EXPECT_NE(DataStore::instance().lastLoadError().find("vorn_settings.json"), std::string::npos);
  InitLog(context);
  const std::string firstLog = Logger::logFileName();
  EXPECT_EQ(firstLog, (dir_.path() / "Logs" / "log_vorn.txt").string());
  UnInitLog();
  const std::string text = readFile(firstLog);
  std::size_t warnings = 0;
  for (std::size_t at = text.find("[Warning]"); at != std::string::npos;
       at = text.find("[Warning]", at + 1)) {
    ++warnings;
  }
  EXPECT_EQ(warnings, 1u) << text;
  EXPECT_NE(text.find("vorn_settings.json"), std::string::npos) << text;

  InitLog(context);
  UnInitLog();
  EXPECT_EQ(readFile(firstLog).find("[Warning]"), std::string::npos) << "reported only once";
  EXPECT_EQ(Logger::LogInstance().GetVerbosity(), 4u);
}

TEST_F(LibraryTest, SettingsFileDrivesVerbosityAndBadValuesFallBack) {
  EXPECT_EQ(vornInit(contextWithSettings(R"({"Logger": {"Verbosity": 9}})")), kInitOk);
  EXPECT_TRUE(DataStore::instance().lastLoadError().empty());
  const auto first = getVornContext();
  ASSERT_TRUE(first);
  InitLog(*first);
  EXPECT_EQ(Logger::LogInstance().GetVerbosity(), 5u);
  UnInitLog();

  EXPECT_EQ(
      vornInit(contextWithSettings(R"({"Logger": {"Verbosity": "abc"}, "Threads": {"max": "x"}})")),
      kInitOk);
  const auto second = getVornContext();
  ASSERT_TRUE(second);
  InitLog(*second);
  EXPECT_EQ(Logger::LogInstance().GetVerbosity(), 4u);
  EXPECT_EQ(tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism),
            static_cast<std::size_t>(tbb::info::default_concurrency()));
}

}  // namespace
}  // namespace vorn
