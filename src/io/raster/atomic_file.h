#pragma once

#include <cstddef>
#include <string>

namespace vorn::detail {

/// An output file being written. Its bytes go to an anonymous file in the target's folder
/// (O_TMPFILE), or, where the file system refuses one, to a hidden named file that SIGINT and
/// SIGTERM remove; commit() puts the whole file in place, anything else leaves the target as it
/// was and no file behind.
class PendingFile {
 public:
  PendingFile() = default;
  ~PendingFile();
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  /// Creates the temporary beside `path`; false with a reason when the folder refuses it.
  bool open(const std::string& path, std::string& reason);
  /// The descriptor to write through (read and write, positioned at 0); -1 before open().
  int fd() const { return fd_; }
  /// True when the bytes live in a hidden named file (the fallback).
  bool named() const { return !tempPath_.empty(); }
  /// Flushes the file and makes it the target; false with a reason, nothing in place, on failure.
  bool commit(std::string& reason);

 private:
  void discard();

  std::string path_;
  std::string tempPath_;  // empty for an anonymous file
  int fd_ = -1;
  int slot_ = -1;  // the signal-cleanup slot of a named file
};

/// Writes all `size` bytes at the descriptor's position, retrying short writes; false on error.
bool writeAll(int fd, const void* data, std::size_t size);
/// Checks, before any pixel work, that `path` can be written: its folder exists and may be
/// written to, and the path is not a folder or another kind of special file.
bool checkOutputLocation(const std::string& path, std::string& reason);
/// True when both paths name the same existing file (links and relative paths resolved).
bool isSameFile(const std::string& a, const std::string& b);
/// Tests turn anonymous files off to exercise the named fallback; on by default.
void setAnonymousTemporariesEnabled(bool enabled);

}  // namespace vorn::detail
