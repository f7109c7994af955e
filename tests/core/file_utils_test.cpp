#include "vorn/core/file_utils.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include "support/temp_dir.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace vorn {
namespace {

namespace fs = std::filesystem;

class FileUtilsTest : public ::testing::Test {
 protected:
  std::string make(const std::string& name, const std::string& content = "x") {
    const fs::path path = dir_ / name;
    std::ofstream(path) << content;
    return path.string();
  }
  static std::string read(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }
  std::string at(const std::string& name) const { return (dir_ / name).string(); }
  test::TempDir tmp_{"vorn_fileutils"};
  const fs::path& dir_ = tmp_.path();
};

TEST(FileUtils, AppendPathUsesExactlyOneSeparator) {
  EXPECT_EQ(AppendPath("a", "b"), "a/b");
  EXPECT_EQ(AppendPath("a/", "b"), "a/b");
  EXPECT_EQ(AppendPath("a//", "//b/c"), "a/b/c");
  EXPECT_EQ(AppendPath("/", "Logs"), "/Logs");
  EXPECT_EQ(AppendPath("", "Logs"), "Logs");
  EXPECT_EQ(AppendPath("data", ""), "data");
}

TEST(FileUtils, ExtensionIsLowerCaseWithoutDot) {
  EXPECT_EQ(getFileExtension("IMG_0001.JPG"), "jpg");
  EXPECT_EQ(getFileExtension("/a.b/archive.tar.Gz"), "gz");
  EXPECT_EQ(getFileExtension("/a.b/noext"), "");
  EXPECT_EQ(getFileExtension("trailing."), "");
  EXPECT_EQ(getFileExtension(".hidden"), "");
  EXPECT_EQ(getFileExtension(""), "");
}

TEST_F(FileUtilsTest, CreateListCopyRenameDelete) {
  const std::string nested = at("one/two");
  EXPECT_TRUE(CreateDir(nested));
  EXPECT_TRUE(CreateDir(nested)) << "an existing folder is fine";
  EXPECT_TRUE(IsDirExist(nested));
  EXPECT_FALSE(IsFileExist(nested));
  EXPECT_FALSE(CreateDir(make("plain") + "/sub")) << "a file stands in the way";
  EXPECT_FALSE(CreateDir(""));

  const std::string b = make("b.txt", "bee");
  const std::string a = make("a.txt", "ay");
  EXPECT_EQ(ListFiles(dir_.string()), (std::vector<std::string>{a, b, at("plain")}));
  EXPECT_TRUE(ListFiles(at("missing")).empty());

  EXPECT_FALSE(CopyFileTo(a, b, false));
  EXPECT_EQ(read(b), "bee");
  EXPECT_TRUE(CopyFileTo(a, b, true));
  EXPECT_EQ(read(b), "ay");
  EXPECT_FALSE(CopyFileTo(at("missing"), at("c.txt"), true));

  EXPECT_TRUE(RenameFile(a, nested + "/moved.txt"));
  EXPECT_FALSE(IsFileExist(a));
  EXPECT_EQ(read(nested + "/moved.txt"), "ay");
  EXPECT_FALSE(RenameFile(a, at("again.txt")));
  EXPECT_FALSE(RenameFile(nested, at("dir_moved"))) << "folders are not files";

  EXPECT_FALSE(DeleteFile(nested));
  EXPECT_TRUE(IsDirExist(nested));
  EXPECT_TRUE(DeleteFile(b));
  EXPECT_FALSE(DeleteFile(b));
  EXPECT_FALSE(IsFileExist(b));
}

TEST_F(FileUtilsTest, LeaveNLastFilesKeepsTheNewest) {
  const auto now = fs::file_time_type::clock::now();
  // Ages run against the names, so name order alone would keep the wrong ones.
  const std::vector<std::string> names = {"e", "d", "c", "b", "a"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    fs::last_write_time(make(names[i]), now - std::chrono::minutes(10 * (i + 1)));
  }
  fs::create_directories(dir_ / "subfolder");
  EXPECT_TRUE(LeaveNLastFilesInDstPath(5, dir_.string()));
  EXPECT_EQ(ListFiles(dir_.string()).size(), 5u);
  EXPECT_TRUE(LeaveNLastFilesInDstPath(2, dir_.string()));
  EXPECT_EQ(ListFiles(dir_.string()), (std::vector<std::string>{at("d"), at("e")}));
  EXPECT_TRUE(IsDirExist(at("subfolder")));

  for (const auto* name : {"x", "z", "y"}) fs::last_write_time(make(name), now);
  EXPECT_TRUE(LeaveNLastFilesInDstPath(1, dir_.string()));
  EXPECT_EQ(ListFiles(dir_.string()), std::vector<std::string>{at("z")});
  EXPECT_TRUE(LeaveNLastFilesInDstPath(0, dir_.string()));
  EXPECT_TRUE(ListFiles(dir_.string()).empty());
  EXPECT_FALSE(LeaveNLastFilesInDstPath(1, at("missing")));
}

}  // namespace
}  // namespace vorn
