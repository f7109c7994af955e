#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "io/raster/atomic_file.h"
#include "raster_test_support.h"
#include "support/temp_dir.h"

namespace vorn {
namespace {

using test::raster::readBytes;
using test::raster::writeBytes;

std::set<std::string> namesIn(const std::filesystem::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.insert(entry.path().filename().string());
  return names;
}

// Anonymous files are the default; the named fallback is forced for the second pass.
class TemporaryKind {
 public:
  explicit TemporaryKind(bool anonymous) { detail::setAnonymousTemporariesEnabled(anonymous); }
  ~TemporaryKind() { detail::setAnonymousTemporariesEnabled(true); }
};

bool writeText(const detail::PendingFile& file, const std::string& text) {
  return detail::writeAll(file.fd(), text.data(), text.size());
}

TEST(PendingFile, OnlyACommitPutsTheFileInPlaceAndNothingElseRemains) {
  for (const bool anonymous : {true, false}) {
    SCOPED_TRACE(anonymous ? "anonymous" : "named");
    const TemporaryKind kind(anonymous);
    test::TempDir dir("atomic");
    const std::string target = (dir.path() / "out.bin").string();
    std::string reason;

    detail::PendingFile created;
    ASSERT_TRUE(created.open(target, reason)) << reason;
    EXPECT_EQ(created.named(), !anonymous);
    ASSERT_TRUE(writeText(created, "new"));
    EXPECT_FALSE(std::filesystem::exists(target)) << "visible before the commit";
    ASSERT_TRUE(created.commit(reason)) << reason;
    EXPECT_EQ(readBytes(target), (std::vector<std::uint8_t>{'n', 'e', 'w'}));

    // A replaced file keeps its permissions.
    ::chmod(target.c_str(), 0600);
    detail::PendingFile replacing;
    ASSERT_TRUE(replacing.open(target, reason));
    ASSERT_TRUE(writeText(replacing, "newer"));
    ASSERT_TRUE(replacing.commit(reason)) << reason;
    EXPECT_EQ(readBytes(target).size(), 5u);
    struct stat info {};
    ASSERT_EQ(::stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    {
      detail::PendingFile abandoned;
      ASSERT_TRUE(abandoned.open(target, reason));
      ASSERT_TRUE(writeText(abandoned, "partial"));
    }
    EXPECT_EQ(readBytes(target).size(), 5u);
    EXPECT_EQ(namesIn(dir.path()), std::set<std::string>{"out.bin"});

    detail::PendingFile nowhere;
    EXPECT_FALSE(nowhere.open((dir.path() / "missing" / "out.bin").string(), reason));
    EXPECT_NE(reason.find("missing"), std::string::npos) << reason;
  }
}

// A child writes without end; the parent ends it mid-write. The named file is removed by the
// SIGTERM handler; the anonymous one never had a name, so even SIGKILL leaves nothing.
TEST(PendingFile, ASignalDuringAWriteLeavesNoFileBehind) {
  for (const bool anonymous : {true, false}) {
    SCOPED_TRACE(anonymous ? "anonymous, SIGKILL" : "named, SIGTERM");
    const int signal = anonymous ? SIGKILL : SIGTERM;
    test::TempDir dir("atomic_signal");
    const std::string target = (dir.path() / "photo.jpg").string();
    writeBytes(target, {'o', 'l', 'd'});
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      detail::setAnonymousTemporariesEnabled(anonymous);
      detail::PendingFile file;
      std::string reason;
      if (!file.open(target, reason)) ::_exit(3);
      const std::vector<char> chunk(4096, 'x');
      for (int round = 0; round < 30000; ++round) {  // ends by itself should the parent fail
        if (!detail::writeAll(file.fd(), chunk.data(), chunk.size())) ::_exit(4);
        if (round == 0 && ::write(ready[1], "r", 1) != 1) ::_exit(5);
        ::usleep(1000);
      }
      ::_exit(6);
    }
    ::close(ready[1]);
    pollfd wait{ready[0], POLLIN, 0};
    const bool started = ::poll(&wait, 1, 20000) == 1;
    const std::size_t filesDuringTheWrite = namesIn(dir.path()).size();
    ::kill(child, signal);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ::close(ready[0]);
    ASSERT_TRUE(started) << "the child never started writing";
    EXPECT_EQ(filesDuringTheWrite, anonymous ? 1u : 2u);
    ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << status;
    EXPECT_EQ(WTERMSIG(status), signal);
    EXPECT_EQ(namesIn(dir.path()), std::set<std::string>{"photo.jpg"});
    EXPECT_EQ(readBytes(target), (std::vector<std::uint8_t>{'o', 'l', 'd'}));
  }
}

TEST(PendingFile, OutputLocationIsCheckedBeforeAnyWork) {
  test::TempDir dir("atomic_check");
  std::string reason;
  EXPECT_TRUE(detail::checkOutputLocation((dir.path() / "new.jpg").string(), reason)) << reason;
  EXPECT_FALSE(detail::checkOutputLocation((dir.path() / "no" / "new.jpg").string(), reason));
  EXPECT_NE(reason.find("does not exist"), std::string::npos) << reason;
  std::filesystem::create_directory(dir.path() / "folder.jpg");
  EXPECT_FALSE(detail::checkOutputLocation((dir.path() / "folder.jpg").string(), reason));
  EXPECT_NE(reason.find("is a folder"), std::string::npos) << reason;
  if (::geteuid() != 0) {  // permissions do not bind the superuser
    ::chmod(dir.str().c_str(), 0500);
    EXPECT_FALSE(detail::checkOutputLocation((dir.path() / "new.jpg").string(), reason));
    EXPECT_NE(reason.find("no permission"), std::string::npos) << reason;
    ::chmod(dir.str().c_str(), 0700);
  }
}

}  // namespace
}  // namespace vorn
