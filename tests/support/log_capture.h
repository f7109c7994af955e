#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vorn/core/log.h"

namespace vorn::test {

/// Collects every message the library logs while it lives, at full verbosity; the verbosity
/// it found is put back afterwards.
class LogCapture {
 public:
  LogCapture()
      : stream_(std::make_shared<Stream>()), verbosity_(Logger::LogInstance().GetVerbosity()) {
    Logger::LogInstance().SetVerbosity(0);
    Logger::LogInstance().AddStream(stream_);
  }
  ~LogCapture() {
    Logger::LogInstance().Shutdown();
    Logger::LogInstance().SetVerbosity(verbosity_);
  }

  std::vector<std::string> lines() const {
    std::lock_guard lock(stream_->mutex);
    std::vector<std::string> texts;
    for (const LogMessage& message : stream_->messages) texts.push_back(message.text);
    return texts;
  }
  /// Every message with its type and module.
  std::vector<LogMessage> messages() const {
    std::lock_guard lock(stream_->mutex);
    return stream_->messages;
  }
  /// How many messages end with the text.
  std::size_t countEndingWith(const std::string& text) const {
    const auto all = lines();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [&](const std::string& l) {
          return l.size() >= text.size() &&
                 l.compare(l.size() - text.size(), text.size(), text) == 0;
        }));
  }
  std::size_t countContaining(const std::string& text) const {
    const auto all = lines();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(),
                      [&](const std::string& l) { return l.find(text) != std::string::npos; }));
  }

 private:
  struct Stream : ILogStream {
    void write(const LogMessage& message) override {
      std::lock_guard lock(mutex);
      messages.push_back(message);
    }
    void flush() override {}
    mutable std::mutex mutex;
    std::vector<LogMessage> messages;
  };
  std::shared_ptr<Stream> stream_;
  unsigned verbosity_;
};

}  // namespace vorn::test
