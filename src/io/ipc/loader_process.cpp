#include "io/ipc/loader_process.h"
#include "core/parallel.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "io/input_limits.h"
#include "io/ipc/loader_child.h"
#include "io/memory_limit.h"
#include "vorn/core/color_profile.h"
#include "vorn/core/data_store.h"
#include "vorn/core/log.h"
#include "vorn/io/fail_on.h"

namespace vorn::ipc {
namespace {

constexpr int kDefaultTimeoutMs = 120'000;
constexpr int kDefaultMemoryMb = 8192;
constexpr int kGreetingTimeoutMs = 10'000;
constexpr int kDefaultCpuSeconds = 300;
constexpr int kPollMs = 50;

// The library's own file: the loader is installed beside it.
std::string libraryDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&loaderExecutablePath), &info) == 0 || !info.dli_fname)
    return {};
  return std::filesystem::path(info.dli_fname).parent_path().string();
}

}  // namespace

std::string loaderExecutablePath() {
  const std::string configured = DataStore::instance().getString(kLoaderPathSetting, {});
  if (!configured.empty()) return configured;
  if (const char* fromEnvironment = std::getenv("VORN_RAW_LOADER"))
    if (*fromEnvironment) return fromEnvironment;
  const std::string directory = libraryDirectory();
  return (directory.empty() ? std::string(".") : directory) + "/vorn-raw-loader";
}

int loaderTimeoutMs() {
  const int value = DataStore::instance().getInt(kLoaderTimeoutSetting, kDefaultTimeoutMs);
  return value > 0 ? value : kDefaultTimeoutMs;
}

LoadRequest loadRequestFor(const std::string& path, std::int32_t flag) {
  const DataStore& store = DataStore::instance();
  LoadRequest request;
  request.flag = flag;
  request.path = path;
  request.cpuSeconds = store.getInt(kLoaderCpuSetting, kDefaultCpuSeconds);
  request.fault = store.getString(kLoaderFaultSetting, {});
  for (const char* key : {kFailOnSetting, detail::kMaxPixelsSetting, detail::kMaxMemorySetting})
    request.settings.emplace_back(key, store.getString(key, {}));
  return request;
}

std::uint32_t nextRequestSequence() {
  static std::atomic<std::uint32_t> sequences{0};
  return ++sequences;
}

void logLoaderError(const std::string& path, const std::string& what) {
  Logger::LogInstance().Error(ModuleName::ReaderIPC, "RawImage IPC error: '%s': %s", path.c_str(),
                              what.c_str());
}

std::shared_ptr<ImageFrame> receiveFrame(FrameArena& arena, const FrameNotice& notice,
                                         std::string& error) {
  // Copied rather than adopted: frames come from the memory pool, and the buffer serves the
  // child's next frame.
  if (!arena.view(notice.bytes(), error)) return nullptr;
  auto frame = std::make_shared<ImageFrame>(_Size<int>(notice.width, notice.height),
                                            ColorProfileType::melissaRGB());
  if (frame->empty()) {
    error = "no memory for a frame of " + std::to_string(notice.width) + "x" +
            std::to_string(notice.height);
    return nullptr;
  }
  detail::parallelCopy(frame->data, arena.data(), notice.bytes());
  frame->setLoadState(static_cast<ImageLoadState>(notice.loadState));
  return frame;
}

bool awaitReply(LoaderChild& child, std::uint32_t sequence, MessageType type, Message& message,
                std::string& fault, const std::function<bool()>& stop) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(loaderTimeoutMs());
  LoaderChild::Poll polled = LoaderChild::Poll::Idle;
  while ((polled = child.poll(message, kPollMs, deadline, fault)) == LoaderChild::Poll::Idle) {
    if (stop && stop()) {
      fault = "cancelled";
      return false;
    }
  }
  if (polled == LoaderChild::Poll::Fault) return false;
  if (message.sequence == sequence && message.type == type) return true;
  fault = "the loader process answered with an unexpected message";
  return false;
}

std::unique_ptr<LoaderChild> LoaderChild::spawn(std::string& error) {
  std::unique_ptr<LoaderChild> child(new LoaderChild());
  const std::string requestName = uniqueIpcName("req");
  const std::string replyName = uniqueIpcName("rep");
  if (!child->requests_.create(requestName, error)) return nullptr;
  if (!child->replies_.create(replyName, error)) {
    unlinkQueue(requestName);
    return nullptr;
  }
  // Both names go as soon as the child holds the queues, or now if it never starts.
  struct Unlink {
    std::string a, b;
    ~Unlink() {
      unlinkQueue(a);
      unlinkQueue(b);
    }
  } unlink{requestName, replyName};

  if (!child->quarterArena_.create(kFullArenaFd + 1, error) ||
      !child->fullArena_.create(kFullArenaFd + 1, error))
    return nullptr;

  const std::string executable = loaderExecutablePath();
  const std::string hostPid = std::to_string(getpid());
  const std::string memoryMb =
      std::to_string(DataStore::instance().getInt(kLoaderMemorySetting, kDefaultMemoryMb));
  std::vector<char*> argv = {
      const_cast<char*>(executable.c_str()), const_cast<char*>(requestName.c_str()),
      const_cast<char*>(replyName.c_str()),  const_cast<char*>(hostPid.c_str()),
      const_cast<char*>(memoryMb.c_str()),   nullptr};
  char* environment[] = {nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // Standard input and output lead nowhere; errors still reach the host's stderr.
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, child->quarterArena_.fd(), kQuarterArenaFd);
  posix_spawn_file_actions_adddup2(&actions, child->fullArena_.fd(), kFullArenaFd);
  posix_spawn_file_actions_addclosefrom_np(&actions, kFullArenaFd + 1);
  // The child starts with no blocked or ignored signal, so its CPU limit and faults end it.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigfillset(&signals);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const int spawned = posix_spawn(&child->pid_, executable.c_str(), &actions, &attributes,
                                  argv.data(), environment);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    child->pid_ = -1;
    error = "cannot start " + executable + ": " + std::strerror(spawned);
    return nullptr;
  }

  child->counted_ = true;
  LoaderPool::instance().childStarted();
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kGreetingTimeoutMs);
  Message greeting;
  LoaderChild::Poll polled = Poll::Idle;
  while ((polled = child->poll(greeting, 50, deadline, error)) == Poll::Idle) {
  }
  if (polled == Poll::Fault) {
    error = executable + ": " + error;
    return nullptr;
  }
  if (greeting.type == MessageType::Ready) return child;
  error = executable + " greeted with an unexpected message";
  return nullptr;
}

LoaderChild::Poll LoaderChild::poll(Message& message, int pollMs,
                                    std::chrono::steady_clock::time_point deadline,
                                    std::string& fault) {
  std::string error;
  switch (replies_.receive(message, pollMs, error)) {
    case ReceiveStatus::Ok:
      return Poll::Message;
    case ReceiveStatus::Failed:
      fault = "the loader process sent a bad message (" + error + ")";
      return Poll::Fault;
    case ReceiveStatus::Timeout:
      break;
  }
  if (!isAlive()) {
    fault = "the loader process " + exitDescription();
    return Poll::Fault;
  }
  if (std::chrono::steady_clock::now() < deadline) return Poll::Idle;
  fault = "no word from the loader process in time";
  return Poll::Fault;
}

LoaderChild::~LoaderChild() {
  kill();
  if (counted_) LoaderPool::instance().childEnded();
}

void LoaderChild::recordExit(int status) {
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGXCPU)
    exit_ = "ran past its CPU time limit (" + std::string(kLoaderCpuSetting) + ")";
  else if (WIFSIGNALED(status))
    exit_ = "was killed by signal " + std::to_string(WTERMSIG(status));
  else if (WEXITSTATUS(status) == kLoaderExitOutOfMemory)
    exit_ = "ran out of memory under its limit (" + std::string(kLoaderMemorySetting) + ")";
  else
    exit_ = "exited with status " + std::to_string(WEXITSTATUS(status));
  pid_ = -1;
}

bool LoaderChild::isAlive() {
  if (pid_ <= 0) return false;
  int status = 0;
  const pid_t reaped = waitpid(pid_, &status, WNOHANG);
  if (reaped == 0) return true;
  if (reaped == pid_)
    recordExit(status);
  else {
    // Someone else reaped it (SIGCHLD ignored): it is gone all the same.
    exit_ = "ended";
    pid_ = -1;
  }
  return false;
}

void LoaderChild::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  int status = 0;
  pid_t reaped = -1;
  do {
    reaped = waitpid(pid_, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  if (reaped == pid_)
    recordExit(status);
  else
    pid_ = -1;
}

LoaderPool& LoaderPool::instance() {
  // Never destroyed: loads may still hand children back while the process exits.
  static LoaderPool* pool = new LoaderPool();
  return *pool;
}

std::unique_ptr<LoaderChild> LoaderPool::acquire(std::string& error) {
  while (true) {
    std::unique_ptr<LoaderChild> child;
    {
      std::lock_guard lock(mutex_);
      if (idle_.empty()) break;
      child = std::move(idle_.back());
      idle_.pop_back();
    }
    if (child->isAlive()) return child;
  }
  return LoaderChild::spawn(error);
}

void LoaderPool::release(std::unique_ptr<LoaderChild> child) {
  if (!child || !child->isAlive()) return;
  std::unique_lock lock(mutex_);
  if (idle_.size() < std::min(mostRunning_, kMaxIdle)) {
    idle_.push_back(std::move(child));
    return;
  }
  lock.unlock();
  child.reset();
}

void LoaderPool::clear() {
  std::vector<std::unique_ptr<LoaderChild>> children;
  {
    std::lock_guard lock(mutex_);
    children.swap(idle_);
    mostRunning_ = 1;
  }
}

pid_t LoaderPool::idlePid() {
  std::lock_guard lock(mutex_);
  return idle_.empty() ? -1 : idle_.back()->pid();
}

std::vector<pid_t> LoaderPool::idlePids() {
  std::lock_guard lock(mutex_);
  std::vector<pid_t> pids;
  for (const auto& child : idle_) pids.push_back(child->pid());
  return pids;
}

void LoaderPool::childStarted() {
  std::lock_guard lock(mutex_);
  mostRunning_ = std::max(mostRunning_, ++running_);
}

void LoaderPool::childEnded() {
  std::lock_guard lock(mutex_);
  --running_;
}

}  // namespace vorn::ipc
