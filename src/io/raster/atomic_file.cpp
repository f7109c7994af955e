#include "io/raster/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include "io/raster/temporary_cleanup.h"

namespace vorn::detail {
namespace {

std::atomic<bool> gAnonymousEnabled{true};

std::string errnoText(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

std::filesystem::path folderOf(const std::filesystem::path& target) {
  return target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
}

// A name beside the target that no other file has yet; the caller creates it exclusively.
std::string hiddenName(const std::filesystem::path& target) {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  char suffix[17];
  std::snprintf(suffix, sizeof suffix, "%016llx", static_cast<unsigned long long>(random()));
  std::string name = ".";
  name += target.filename().string();
  name += ".vorn-";
  name += suffix;
  return (folderOf(target) / name).string();
}

// A replaced file keeps its permissions; a new one gets the usual ones, less the umask.
void copyModeOfExisting(int fd, const std::string& path) {
  struct stat existing {};
  if (::stat(path.c_str(), &existing) == 0) ::fchmod(fd, existing.st_mode & 07777);
}

}  // namespace

PendingFile::~PendingFile() {
  discard();
}

void PendingFile::discard() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  if (!tempPath_.empty()) ::unlink(tempPath_.c_str());
  tempPath_.clear();
  unregisterTemporary(slot_);
  slot_ = -1;
}

bool PendingFile::open(const std::string& path, std::string& reason) {
  discard();
  const std::filesystem::path target(path);
  if (target.filename().empty()) {
    reason = "no file name";
    return false;
  }
  path_ = path;
  const std::string folder = folderOf(target).string();
  if (gAnonymousEnabled.load(std::memory_order_relaxed)) {
    fd_ = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    // Only "this file system cannot" falls back; a missing folder or permission is an answer.
    if (fd_ < 0 && errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
      reason = errnoText("cannot create a file in " + folder);
      return false;
    }
  }
  if (fd_ < 0) {
    for (int attempt = 0; attempt < 8 && fd_ < 0; ++attempt) {
      tempPath_ = hiddenName(target);
      fd_ = ::open(tempPath_.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0666);
      if (fd_ < 0 && errno != EEXIST) break;
    }
    if (fd_ < 0) {
      reason = errnoText("cannot create a temporary file in " + folder);
      tempPath_.clear();
      return false;
    }
    slot_ = registerTemporary(tempPath_.c_str());
  }
  copyModeOfExisting(fd_, path);
  return true;
}

bool PendingFile::commit(std::string& reason) {
  if (fd_ < 0) {
    reason = "no file is open";
    return false;
  }
  // The data reaches the disk before the name does, so a crash never leaves a torn file.
  if (::fsync(fd_) != 0) {
    reason = errnoText("cannot flush " + path_);
    discard();
    return false;
  }
  if (tempPath_.empty()) {
    const std::string self = "/proc/self/fd/" + std::to_string(fd_);
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      discard();
      return true;
    }
    if (errno != EEXIST) {
      reason = errnoText("cannot create " + path_);
      discard();
      return false;
    }
    // An existing target is replaced by a rename, which needs a name for a moment.
    for (int attempt = 0; attempt < 8 && tempPath_.empty(); ++attempt) {
      const std::string name = hiddenName(std::filesystem::path(path_));
      if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
        tempPath_ = name;
        slot_ = registerTemporary(name.c_str());
        break;
      }
      if (errno != EEXIST) break;
    }
    if (tempPath_.empty()) {
      reason = errnoText("cannot name the new " + path_);
      discard();
      return false;
    }
  }
  if (std::rename(tempPath_.c_str(), path_.c_str()) != 0) {
    reason = errnoText("cannot replace " + path_);
    discard();
    return false;
  }
  tempPath_.clear();  // it is the target now
  discard();
  return true;
}

bool writeAll(int fd, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(fd, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool checkOutputLocation(const std::string& path, std::string& reason) {
  const std::filesystem::path target(path);
  if (target.filename().empty()) {
    reason = path + ": no file name";
    return false;
  }
  const std::string folder = folderOf(target).string();
  struct stat info {};
  if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    reason = "the folder " + folder + " does not exist";
    return false;
  }
  if (::access(folder.c_str(), W_OK | X_OK) != 0) {
    reason = "no permission to write in " + folder;
    return false;
  }
  if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    reason = path + (S_ISDIR(info.st_mode) ? " is a folder" : " is not a regular file");
    return false;
  }
  return true;
}

bool isSameFile(const std::string& a, const std::string& b) {
  std::error_code ec;
  return !a.empty() && !b.empty() && std::filesystem::equivalent(a, b, ec) && !ec;
}

void setAnonymousTemporariesEnabled(bool enabled) {
  gAnonymousEnabled.store(enabled, std::memory_order_relaxed);
}

}  // namespace vorn::detail
