#include "io/raster/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

namespace vorn::detail {
namespace {

std::string errnoText(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
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

}  // namespace

bool replaceFileAtomically(
    const std::string& path,
    const std::function<bool(const std::string& tempPath, std::string& reason)>& write,
    std::string& reason) {
  const std::filesystem::path target(path);
  if (target.filename().empty()) {
    reason = "no file name";
    return false;
  }
  const std::filesystem::path folder =
      target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
  // Beside the target, so the final rename stays on one file system and is atomic.
  std::string pattern = (folder / ("." + target.filename().string() + ".vorn-XXXXXX")).string();
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = ::mkstemp(name.data());
  if (fd < 0) {
    reason = errnoText("cannot create a temporary file");
    return false;
  }
  const std::string tempPath(name.data());
  // A replaced file keeps its permissions; a new one gets the usual rw-r--r--.
  struct stat existing {};
  const mode_t mode = ::stat(path.c_str(), &existing) == 0 ? (existing.st_mode & 07777) : 0644;
  ::fchmod(fd, mode);
  ::close(fd);

  bool ok = write(tempPath, reason);
  if (ok) {
    const int sync = ::open(tempPath.c_str(), O_RDONLY);
    if (sync >= 0) {
      ::fsync(sync);
      ::close(sync);
    }
    if (std::rename(tempPath.c_str(), path.c_str()) != 0) {
      reason = errnoText("cannot rename the temporary file");
      ok = false;
    }
  }
  if (!ok) std::remove(tempPath.c_str());
  return ok;
}

bool writeFileAtomically(const std::string& path, const void* data, std::size_t size,
                         std::string& reason) {
  return replaceFileAtomically(
      path,
      [&](const std::string& tempPath, std::string& why) {
        const int fd = ::open(tempPath.c_str(), O_WRONLY | O_TRUNC);
        if (fd < 0) {
          why = errnoText("cannot open the temporary file");
          return false;
        }
        const bool written = writeAll(fd, data, size);
        if (!written) why = errnoText("cannot write the temporary file");
        return ::close(fd) == 0 && written;
      },
      reason);
}

bool isSameFile(const std::string& a, const std::string& b) {
  std::error_code ec;
  return !a.empty() && !b.empty() && std::filesystem::equivalent(a, b, ec) && !ec;
}

}  // namespace vorn::detail
