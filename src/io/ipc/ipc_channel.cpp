#include "io/ipc/ipc_channel.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

namespace vorn::ipc {
namespace {

// The queues keep few messages: a load has at most a handful in flight.
constexpr long kQueueDepth = 8;

std::string systemError(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

timespec deadlineAfter(int timeoutMs) {
  timespec when{};
  clock_gettime(CLOCK_REALTIME, &when);
  const long ms = timeoutMs < 0 ? 0 : timeoutMs;
  when.tv_sec += ms / 1000;
  when.tv_nsec += (ms % 1000) * 1'000'000L;
  if (when.tv_nsec >= 1'000'000'000L) {
    when.tv_sec += 1;
    when.tv_nsec -= 1'000'000'000L;
  }
  return when;
}

}  // namespace

std::string uniqueIpcName(const std::string& role) {
  static std::atomic<std::uint64_t> counter{0};
  return std::string(kNamePrefix) + std::to_string(getpid()) + "-" + std::to_string(++counter) +
         "-" + role;
}

MessageQueue::~MessageQueue() {
  if (isOpen()) mq_close(queue_);
}

MessageQueue::MessageQueue(MessageQueue&& other) noexcept
    : queue_(std::exchange(other.queue_, static_cast<mqd_t>(-1))) {}

MessageQueue& MessageQueue::operator=(MessageQueue&& other) noexcept {
  if (this != &other) {
    if (isOpen()) mq_close(queue_);
    queue_ = std::exchange(other.queue_, static_cast<mqd_t>(-1));
  }
  return *this;
}

bool MessageQueue::create(const std::string& name, std::string& error) {
  mq_attr attributes{};
  attributes.mq_maxmsg = kQueueDepth;
  attributes.mq_msgsize = static_cast<long>(kMaxMessageSize);
  queue_ = mq_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &attributes);
  if (isOpen()) return true;
  error = systemError("cannot create queue " + name);
  return false;
}

bool MessageQueue::open(const std::string& name, std::string& error) {
  queue_ = mq_open(name.c_str(), O_RDWR | O_CLOEXEC);
  if (isOpen()) return true;
  error = systemError("cannot open queue " + name);
  return false;
}

bool MessageQueue::send(const Message& message, int timeoutMs, std::string& error) {
  const std::vector<unsigned char> bytes = encodeMessage(message);
  if (bytes.empty()) {
    error = "message too large for the queue";
    return false;
  }
  return sendBytes(bytes, timeoutMs, error);
}

bool MessageQueue::sendBytes(const std::vector<unsigned char>& bytes, int timeoutMs,
                             std::string& error) {
  const timespec deadline = deadlineAfter(timeoutMs);
  while (mq_timedsend(queue_, reinterpret_cast<const char*>(bytes.data()), bytes.size(), 0,
                      &deadline) != 0) {
    if (errno == EINTR) continue;
    error = errno == ETIMEDOUT ? std::string("the queue stayed full")
                               : systemError("cannot send a message");
    return false;
  }
  return true;
}

ReceiveStatus MessageQueue::receive(Message& message, int timeoutMs, std::string& error) {
  // Sized to the queue's own limit so that no message the queue holds is refused as too large.
  unsigned char buffer[kMaxMessageSize];
  const timespec deadline = deadlineAfter(timeoutMs);
  ssize_t received = -1;
  while ((received = mq_timedreceive(queue_, reinterpret_cast<char*>(buffer), sizeof buffer,
                                     nullptr, &deadline)) < 0) {
    if (errno == EINTR) continue;
    if (errno == ETIMEDOUT) return ReceiveStatus::Timeout;
    error = systemError("cannot receive a message");
    return ReceiveStatus::Failed;
  }
  return decodeMessage(buffer, static_cast<std::size_t>(received), message, error)
             ? ReceiveStatus::Ok
             : ReceiveStatus::Failed;
}

FrameArena::~FrameArena() {
  if (data_) munmap(data_, size_);
  if (fd_ >= 0) close(fd_);
}

bool FrameArena::create(int lowestFd, std::string& error) {
  const int fd = memfd_create("vorn-loader-frames", MFD_CLOEXEC);
  if (fd < 0) {
    error = systemError("cannot create a frame buffer");
    return false;
  }
  // Kept clear of the numbers the child receives it under, so handing it over needs no juggling.
  fd_ = fd >= lowestFd ? fd : fcntl(fd, F_DUPFD_CLOEXEC, lowestFd);
  if (fd_ != fd) close(fd);
  if (fd_ < 0) error = systemError("cannot place the frame buffer");
  return fd_ >= 0;
}

bool FrameArena::adopt(int fd, std::string& error) {
  struct stat status {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    error = "descriptor " + std::to_string(fd) + " is no frame buffer";
    return false;
  }
  fd_ = fd;
  fcntl(fd_, F_SETFD, FD_CLOEXEC);
  return true;
}

// The whole file, populated up front: one fault storm per growth instead of one per frame.
bool FrameArena::mapWhole(int protection, std::string& error) {
  struct stat status {};
  if (fstat(fd_, &status) != 0) {
    error = systemError("cannot size the frame buffer");
    return false;
  }
  const auto bytes = static_cast<std::size_t>(status.st_size);
  if (data_ && bytes == size_ && protection == protection_) return true;
  if (data_) munmap(data_, size_);
  data_ = nullptr;
  size_ = 0;
  void* mapped = mmap(nullptr, bytes, protection, MAP_SHARED | MAP_POPULATE, fd_, 0);
  if (mapped == MAP_FAILED) {
    error = systemError("cannot map the frame buffer");
    return false;
  }
  data_ = static_cast<unsigned char*>(mapped);
  size_ = bytes;
  protection_ = protection;
  return true;
}

bool FrameArena::reserve(std::size_t bytes, std::string& error) {
  if (fd_ < 0 || bytes == 0) {
    error = "no frame buffer";
    return false;
  }
  if (data_ && size_ >= bytes) return true;
  if (ftruncate(fd_, static_cast<off_t>(bytes)) != 0) {
    error = systemError("cannot grow the frame buffer to " + std::to_string(bytes) + " bytes");
    return false;
  }
  return mapWhole(PROT_READ | PROT_WRITE, error);
}

bool FrameArena::view(std::size_t bytes, std::string& error) {
  if (fd_ < 0 || bytes == 0) {
    error = "no frame buffer";
    return false;
  }
  if (data_ && size_ >= bytes) return true;
  if (!mapWhole(PROT_READ, error)) return false;
  if (size_ >= bytes) return true;
  error = "the frame buffer holds " + std::to_string(size_) + " bytes, not the " +
          std::to_string(bytes) + " of the frame";
  return false;
}

void unlinkQueue(const std::string& name) {
  mq_unlink(name.c_str());
}

}  // namespace vorn::ipc
