#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "io/ipc/ipc_channel.h"
#include "io/ipc/loader_payloads.h"

namespace vorn::ipc {

/// Config key of the loader executable's path; else VORN_RAW_LOADER, else beside the library.
inline constexpr const char* kLoaderPathSetting = "IPC.Loader.path";
/// Config key: milliseconds without word from the child after which a load is given up.
inline constexpr const char* kLoaderTimeoutSetting = "IPC.Loader.timeout_ms";
/// Config key: the child's address-space limit in MiB.
inline constexpr const char* kLoaderMemorySetting = "IPC.Loader.memory_mb";
/// Config key: the CPU seconds one load may use in the child.
inline constexpr const char* kLoaderCpuSetting = "IPC.Loader.cpu_seconds";
/// Config key for tests: the child fails at this named stage ("identify", "before_quarter",
/// "between_frames", "during_full", "hang", "spin" (burns CPU), "garbage"); inert while unset.
inline constexpr const char* kLoaderFaultSetting = "IPC.Loader.test_fault";

/// The executable that decodes raw files for this process.
std::string loaderExecutablePath();
/// The configured load timeout in milliseconds (at least 1).
int loaderTimeoutMs();

/// A request for `path` with the settings the decode reads: the child has none of its own.
LoadRequest loadRequestFor(const std::string& path, std::int32_t flag);
/// A sequence number no other request of this process carries.
std::uint32_t nextRequestSequence();
/// Logs the one error line of a load through the child, naming the file.
void logLoaderError(const std::string& path, const std::string& what);
/// Copies the frame a notice announces out of the child's buffer; null with `error` set.
std::shared_ptr<ImageFrame> receiveFrame(FrameArena& arena, const FrameNotice& notice,
                                         std::string& error);

class LoaderChild;
/// Waits for the child's `type` answer to `sequence`; false with `fault` set when the child
/// failed, answered otherwise or `stop` returned true (then `fault` reads "cancelled").
bool awaitReply(LoaderChild& child, std::uint32_t sequence, MessageType type, Message& message,
                std::string& fault, const std::function<bool()>& stop = {});

/// One running loader process and its two queues (names unlinked once the child opened them).
class LoaderChild {
 public:
  /// Starts a child and waits for its greeting; null with `error` set on failure.
  static std::unique_ptr<LoaderChild> spawn(std::string& error);
  /// Kills and reaps the child unless it has ended already.
  ~LoaderChild();
  LoaderChild(const LoaderChild&) = delete;
  LoaderChild& operator=(const LoaderChild&) = delete;

  pid_t pid() const { return pid_; }
  /// Reaps the child when it has ended; false from then on.
  bool isAlive();
  /// How the child ended ("was killed by signal 9", "exited with status 1"); empty while alive.
  const std::string& exitDescription() const { return exit_; }
  void kill();

  enum class Poll { Message, Idle, Fault };
  /// Waits up to `pollMs` for the child's next message; Fault with `fault` set when the child
  /// ended, sent garbage or stayed silent past `deadline`.
  Poll poll(Message& message, int pollMs, std::chrono::steady_clock::time_point deadline,
            std::string& fault);

  MessageQueue& requests() { return requests_; }
  MessageQueue& replies() { return replies_; }
  /// The buffer the child writes its quarter (`full` false) or full frames into.
  FrameArena& arena(bool full) { return full ? fullArena_ : quarterArena_; }

 private:
  LoaderChild() = default;
  void recordExit(int status);

  pid_t pid_ = -1;
  bool counted_ = false;  ///< in the pool's count of running children
  std::string exit_;
  MessageQueue requests_;
  MessageQueue replies_;
  FrameArena quarterArena_;
  FrameArena fullArena_;
};

/// Keeps idle children between loads, as many as ever ran at once (at most kMaxIdle), so that
/// `-j N` batch workers each keep a warm child instead of starting one per file.
class LoaderPool {
 public:
  static LoaderPool& instance();
  /// The idle child when it is still alive, else a new one; null with `error` on failure.
  std::unique_ptr<LoaderChild> acquire(std::string& error);
  /// Takes back a child whose load ended cleanly; a surplus child is ended.
  void release(std::unique_ptr<LoaderChild> child);
  /// Ends the idle child (tests use it to start from a known state).
  void clear();
  /// The most recently idled child's pid, -1 when there is none.
  pid_t idlePid();
  /// The pids of the children waiting idle.
  std::vector<pid_t> idlePids();

  static constexpr std::size_t kMaxIdle = 8;

 private:
  friend class LoaderChild;
  void childStarted();
  void childEnded();

  std::mutex mutex_;
  std::vector<std::unique_ptr<LoaderChild>> idle_;
  std::size_t running_ = 0;
  std::size_t mostRunning_ = 1;
};

}  // namespace vorn::ipc
