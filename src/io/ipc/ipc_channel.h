#pragma once

#include <mqueue.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "io/ipc/ipc_message.h"

namespace vorn::ipc {

/// Every queue of the loader is named "/vorn-ipc-<host pid>-..."; frames pass through FrameArena.
/// No semaphores: a queue message is the hand-off, and its timed receive is the only wait.
inline constexpr const char* kNamePrefix = "/vorn-ipc-";

/// A fresh name "/vorn-ipc-<pid>-<counter>-<role>" for a queue of this process.
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

/// The frame buffer a host and its child share for the child's whole life: an anonymous memory
/// file, so no name exists to be left behind, kept mapped so that its pages fault in once.
class FrameArena {
 public:
  FrameArena() = default;
  ~FrameArena();
  FrameArena(const FrameArena&) = delete;
  FrameArena& operator=(const FrameArena&) = delete;

  /// Creates the memory file (its descriptor at least `lowestFd`); false with `error` set.
  bool create(int lowestFd, std::string& error);
  /// Takes over a descriptor the child inherited; false when it is no memory file.
  bool adopt(int fd, std::string& error);
  int fd() const { return fd_; }
  /// The child's side: at least `bytes` mapped writable, the file grown when it holds fewer.
  bool reserve(std::size_t bytes, std::string& error);
  /// The host's side: at least `bytes` mapped readable; false when the file holds fewer.
  bool view(std::size_t bytes, std::string& error);
  unsigned char* data() const { return data_; }

 private:
  bool mapWhole(int protection, std::string& error);

  int fd_ = -1;
  int protection_ = 0;
  unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

/// Removes a queue's name; a name already gone is no error.
void unlinkQueue(const std::string& name);

}  // namespace vorn::ipc
