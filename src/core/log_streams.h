#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "vorn/core/log.h"

namespace vorn::detail {

/// One log line without its end: "<time> [Level] [Module] text".
std::string formatLogLine(const LogMessage& message);

/// Writes the log file through its own write buffer; dies when a write fails.
/// Its lines are the console's, GRFX included with its prefix, so a file line is always parseable.
class LogFileStream final : public ILogStream {
 public:
  /// Write buffer size: large enough that the flush thread, not each message, hits the disk.
  static constexpr std::size_t kBufferBytes = 64 * 1024;

  /// Opens `path` for writing (appending when `append`); empty on failure.
  static std::shared_ptr<LogFileStream> open(const std::string& path, bool append);
  ~LogFileStream() override;
  LogFileStream(const LogFileStream&) = delete;
  LogFileStream& operator=(const LogFileStream&) = delete;

  void write(const LogMessage& message) override;
  void flush() override;
  bool isAlive() const override { return alive_; }
  /// Flushes and closes the file; the stream is dead afterwards.
  void close();

 private:
  explicit LogFileStream(std::FILE* file);
  std::FILE* file_;
  std::unique_ptr<char[]> buffer_;
  bool alive_ = true;
};

/// Writes each message as one line to std::cout; GRFX messages as bare text.
class LogDebugOutputStream final : public ILogStream {
 public:
  void write(const LogMessage& message) override;
  /// Every line is flushed when written, so the flush thread never touches std::cout.
  void flush() override {}
};

}  // namespace vorn::detail
