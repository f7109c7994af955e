#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#define VORN_PRINTF_FORMAT(fmt_index, first_arg) \
  __attribute__((format(printf, fmt_index, first_arg)))

namespace vorn {

struct SVornContext;

/// Severity of a log message; the numeric values are part of the interface.
enum class LogMessageType : int {
  Comment = 0,
  Performance = 1,
  Warning = 2,
  Error = 3,
  CriticalError = 4,
  LogAlways = 5,
};

/// The subsystem a message belongs to, one bit each.
enum class ModuleName : std::uint64_t {
  None = 0,
  Global = 1,
  Memory = 2,
  Effects = 4,
  Imageproc = 8,
  GRFX = 16,
  ImageReader = 32,
  Renderer = 64,
  ReaderIPC = 128,
};

/// "Comment" ... "CriticalError"; "LogAlways" for type 5; "undef" for any other value.
const char* logMessageTypeName(LogMessageType type);
/// "None", "Global", ... "ReaderIPC"; "undef" for any other value.
const char* moduleNameText(ModuleName module);

/// Bits of the flags passed to Logger::Initialize.
inline constexpr unsigned kLogToConsole = 1;
inline constexpr unsigned kLogToFile = 2;

/// One message as every stream receives it.
struct LogMessage {
  LogMessageType type = LogMessageType::Comment;
  ModuleName module = ModuleName::Global;
  std::string timeOfDay;  ///< local time made with "<%X>"
  std::string text;
};

/// An output of the log. Calls are serialised by the log; a stream never sees two at once
/// and must not log itself.
class ILogStream {
 public:
  virtual ~ILogStream() = default;
  virtual void write(const LogMessage& message) = 0;
  virtual void flush() = 0;
  /// A stream that reports false (its file went away, say) is dropped after the current pass.
  virtual bool isAlive() const { return true; }
};

/// The logging interface: printf-style messages per level.
class ILog {
 public:
  virtual ~ILog() = default;
  virtual void Comment(ModuleName module, const char* format, ...) VORN_PRINTF_FORMAT(3, 4) = 0;
  virtual void Performance(ModuleName module, const char* format, ...) VORN_PRINTF_FORMAT(3, 4) = 0;
  virtual void Warning(ModuleName module, const char* format, ...) VORN_PRINTF_FORMAT(3, 4) = 0;
  virtual void Error(ModuleName module, const char* format, ...) VORN_PRINTF_FORMAT(3, 4) = 0;
  virtual void CriticalError(ModuleName module, const char* format, ...)
      VORN_PRINTF_FORMAT(3, 4) = 0;
  virtual void LogAlways(ModuleName module, const char* format, ...) VORN_PRINTF_FORMAT(3, 4) = 0;
};

/// The library's one log: a list of streams, a verbosity and a flush thread. Safe from any thread.
class Log final : public ILog {
 public:
  /// Formatted text longer than this, less its terminating zero, is cut.
  static constexpr std::size_t kMaxMessageBytes = 1024;
  static constexpr unsigned kMaxVerbosity = 5;

  Log();
  ~Log() override;
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  void Comment(ModuleName module, const char* format, ...) override VORN_PRINTF_FORMAT(3, 4);
  void Performance(ModuleName module, const char* format, ...) override VORN_PRINTF_FORMAT(3, 4);
  void Warning(ModuleName module, const char* format, ...) override VORN_PRINTF_FORMAT(3, 4);
  void Error(ModuleName module, const char* format, ...) override VORN_PRINTF_FORMAT(3, 4);
  void CriticalError(ModuleName module, const char* format, ...) override VORN_PRINTF_FORMAT(3, 4);
  void LogAlways(ModuleName module, const char* format, ...) override VORN_PRINTF_FORMAT(3, 4);

  /// Formats and hands one message to every stream; with `check`, types below the verbosity
  /// are dropped. Error and CriticalError flush at once.
  void DoLog(LogMessageType type, ModuleName module, const char* format, va_list args, bool check);
  /// The same for text that is already formatted (still cut at kMaxMessageBytes - 1).
  void DoLogText(LogMessageType type, ModuleName module, const std::string& text, bool check);

  void SetVerbosity(unsigned verbosity);  ///< capped at kMaxVerbosity
  unsigned GetVerbosity() const;
  void Flush();
  /// Starts the flush thread (every 500 ms) unless it runs already.
  void Initialize();
  /// Stops the flush thread, flushes and drops every stream.
  void Shutdown();
  /// Rotates an existing "log_vorn.txt" into "vorn_bkup", opens a new one; returns its path
  /// (empty when the file could not be opened).
  std::string CreateFileOutputStream(const std::string& folder);
  void CreateDebugOutputStream();
  /// Adds a stream of the host's (or a test's) own.
  void AddStream(std::shared_ptr<ILogStream> stream);
  std::string FileName() const;
  std::size_t StreamCount() const;

 private:
  void flushThreadMain();
  void publish(const LogMessage& message);

  mutable std::mutex streamsMutex_;
  std::vector<std::shared_ptr<ILogStream>> streams_;
  std::atomic<unsigned> verbosity_{4};
  std::string fileName_;
  std::mutex lifecycleMutex_;  ///< serialises Initialize and Shutdown
  std::mutex threadMutex_;
  std::condition_variable threadWake_;
  bool running_ = false;
  std::thread flushThread_;
};

/// Static facade over the single process-wide Log.
class Logger {
 public:
  /// Enables modules 237, starts the log, opens the file (flags & kLogToFile) and console
  /// (flags & kLogToConsole) streams, reads "Logger.Verbosity" (default 4, capped at 5).
  static void Initialize(const std::string& folder, unsigned flags);
  static void ShutDown();
  static std::string logFileName();
  /// Never destroyed, so threads may log during process exit.
  static Log& LogInstance();
};

void InitLog(const SVornContext& context);
/// Logs into folder/"Logs" with every output enabled.
void InitLog(const std::string& folder);
void UnInitLog();

/// Module "Global" messages through the verbosity check.
void LogComment(const char* format, ...) VORN_PRINTF_FORMAT(1, 2);
void LogPerformance(const char* format, ...) VORN_PRINTF_FORMAT(1, 2);
void LogWarning(const char* format, ...) VORN_PRINTF_FORMAT(1, 2);
void LogError(const char* format, ...) VORN_PRINTF_FORMAT(1, 2);
void LogCriticalError(const char* format, ...) VORN_PRINTF_FORMAT(1, 2);

/// Collects text with << for LOG; a fresh one is a Comment of module Global.
class logstream {
 public:
  explicit logstream(LogMessageType type = LogMessageType::Comment,
                     ModuleName module = ModuleName::Global)
      : type_(type), module_(module) {}

  template <typename T>
  logstream& operator<<(const T& value) {
    text_ << value;
    return *this;
  }

  LogMessageType type() const { return type_; }
  ModuleName module() const { return module_; }
  std::string text() const { return text_.str(); }

 private:
  LogMessageType type_;
  ModuleName module_;
  std::ostringstream text_;
};

/// Writes the stream's text when its module is enabled (see LOG_SYSTEMS) and its type is 0..5.
void LOG(const logstream& stream);
/// Replaces the enabled-module mask.
void LOG_SYSTEMS(std::size_t mask);
std::size_t enabledLogModules();

}  // namespace vorn
