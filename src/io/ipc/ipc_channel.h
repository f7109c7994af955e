#pragma once

#include <mqueue.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "io/ipc/ipc_message.h"

namespace vorn::ipc {

/// Every shared-memory segment and queue of the loader is named "/vorn-ipc-<host pid>-...".
/// No semaphores: a queue message is the hand-off, and its timed receive is the only wait.
inline constexpr const char* kNamePrefix = "/vorn-ipc-";

/// A fresh name "/vorn-ipc-<pid>-<counter>-<role>" for a queue or segment of this process.
std::string uniqueIpcName(const std::string& role);

enum class ReceiveStatus { Ok, Timeout, Failed };

/// A POSIX message queue carrying Message values; closed (never unlinked) on destruction.
class MessageQueue {
 public:
  MessageQueue() = default;
  ~MessageQueue();
  MessageQueue(MessageQueue&& other) noexcept;
  MessageQueue& operator=(MessageQueue&& other) noexcept;
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  /// Creates a queue that must not exist yet; false with `error` set otherwise.
  bool create(const std::string& name, std::string& error);
  bool open(const std::string& name, std::string& error);
  bool isOpen() const { return queue_ != static_cast<mqd_t>(-1); }

  /// False with `error` set when the queue stays full for `timeoutMs` or fails.
  bool send(const Message& message, int timeoutMs, std::string& error);
  /// Sends bytes as they are (the test hook sends garbage with it).
  bool sendBytes(const std::vector<unsigned char>& bytes, int timeoutMs, std::string& error);
  /// Waits at most `timeoutMs`; Failed with `error` set for a queue error or a malformed message.
  ReceiveStatus receive(Message& message, int timeoutMs, std::string& error);

 private:
  mqd_t queue_ = static_cast<mqd_t>(-1);
};

/// A frame's pixels in a named shared-memory segment, unmapped on destruction.
class SharedRegion {
 public:
  SharedRegion() = default;
  ~SharedRegion();
  SharedRegion(const SharedRegion&) = delete;
  SharedRegion& operator=(const SharedRegion&) = delete;

  /// Creates and maps `bytes` bytes under a name that must not exist yet.
  bool create(const std::string& name, std::size_t bytes, std::string& error);
  /// Maps an existing segment that holds at least `bytes` bytes.
  bool open(const std::string& name, std::size_t bytes, std::string& error);
  unsigned char* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

/// Removes a segment's name; a name already gone is no error.
void unlinkRegion(const std::string& name);
/// Removes a queue's name; a name already gone is no error.
void unlinkQueue(const std::string& name);

}  // namespace vorn::ipc
