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

SharedRegion::~SharedRegion() {
  if (data_) munmap(data_, size_);
}

bool SharedRegion::create(const std::string& name, std::size_t bytes, std::string& error) {
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = systemError("cannot create segment " + name);
    return false;
  }
  bool ok = ftruncate(fd, static_cast<off_t>(bytes)) == 0;
  void* mapped = ok ? mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
  if (mapped == MAP_FAILED) {
    error = systemError("cannot size or map segment " + name);
    ok = false;
  } else {
    data_ = static_cast<unsigned char*>(mapped);
    size_ = bytes;
  }
  close(fd);
  return ok;
}

bool SharedRegion::open(const std::string& name, std::size_t bytes, std::string& error) {
  const int fd = shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) {
    error = systemError("cannot open segment " + name);
    return false;
  }
  struct stat status {};
  bool ok = fstat(fd, &status) == 0;
  if (!ok || static_cast<std::uint64_t>(status.st_size) < bytes) {
    error = "segment " + name + " is smaller than its frame";
    close(fd);
    return false;
  }
  void* mapped = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  if (mapped == MAP_FAILED) {
    error = systemError("cannot map segment " + name);
    return false;
  }
  data_ = static_cast<unsigned char*>(mapped);
  size_ = bytes;
  return true;
}

void unlinkRegion(const std::string& name) {
  shm_unlink(name.c_str());
}

void unlinkQueue(const std::string& name) {
  mq_unlink(name.c_str());
}

}  // namespace vorn::ipc
