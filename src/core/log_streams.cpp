#include "core/log_streams.h"

#include <cerrno>
#include <iostream>

namespace vorn::detail {

std::string formatLogLine(const LogMessage& message) {
  std::string line;
  line.reserve(message.timeOfDay.size() + message.text.size() + 32);
  line += message.timeOfDay;
  line += " [";
  line += logMessageTypeName(message.type);
  line += "] [";
  line += moduleNameText(message.module);
  line += "] ";
  line += message.text;
  return line;
}

std::shared_ptr<LogFileStream> LogFileStream::open(const std::string& path, bool append) {
  std::FILE* file = std::fopen(path.c_str(), append ? "a" : "w");
  if (!file) {
    const int error = errno;
    std::cerr << "LogFileStream: Could not open " << path << " (error " << error << ")\n";
    return {};
  }
  return std::shared_ptr<LogFileStream>(new LogFileStream(file));
}

LogFileStream::LogFileStream(std::FILE* file)
    : file_(file), buffer_(std::make_unique<char[]>(kBufferBytes)) {
  // The log cannot report its own set-up, so this one line goes to standard error.
  if (std::setvbuf(file_, buffer_.get(), _IOFBF, kBufferBytes) != 0) {
    const int error = errno;
    std::cerr << "LogFileStream: Write buffer setup failed with error " << error << '\n';
    buffer_.reset();
  }
}

LogFileStream::~LogFileStream() {
  close();
}

void LogFileStream::write(const LogMessage& message) {
  if (!file_) return;
  const std::string line = formatLogLine(message);
  if (std::fwrite(line.data(), 1, line.size(), file_) != line.size() ||
      std::fputc('\n', file_) == EOF) {
    alive_ = false;
  }
}

void LogFileStream::flush() {
  if (file_ && std::fflush(file_) != 0) alive_ = false;
}

void LogFileStream::close() {
  if (file_) {
    std::fclose(file_);
    file_ = nullptr;
  }
  alive_ = false;
}

void LogDebugOutputStream::write(const LogMessage& message) {
  if (message.module == ModuleName::GRFX) {
    std::cout << message.text << std::endl;
  } else {
    std::cout << formatLogLine(message) << std::endl;
  }
}

}  // namespace vorn::detail
