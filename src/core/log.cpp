#include "vorn/core/log.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>

#include "core/log_internal.h"
#include "core/log_streams.h"
#include "vorn/core/data_store.h"
#include "vorn/core/file_utils.h"
#include "vorn/core/library.h"

namespace vorn {

namespace {

constexpr std::uint64_t kDefaultLogModules = 237;
constexpr unsigned kDefaultVerbosity = 4;
constexpr std::size_t kKeptBackups = 9;
constexpr auto kFlushPeriod = std::chrono::milliseconds(500);
constexpr const char* kLogFileName = "log_vorn.txt";
constexpr const char* kBackupFolderName = "vorn_bkup";

std::atomic<std::uint64_t> gEnabledModules{kDefaultLogModules};

std::tm localNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local;
}

std::string formatTime(const char* format) {
  const std::tm local = localNow();
  char buffer[128];
  const std::size_t length = std::strftime(buffer, sizeof buffer, format, &local);
  return std::string(buffer, length);
}

bool isFlushingType(LogMessageType type) {
  return type == LogMessageType::Error || type == LogMessageType::CriticalError;
}

/// A free backup name: a rotation within the same second gets a counter instead of overwriting.
std::string backupFilePath(const std::string& backupFolder) {
  const std::string stamp = formatTime("log_vorn_%d%m%Y_%H_%M_%S");
  std::string path = AppendPath(backupFolder, stamp + ".txt");
  for (int counter = 1; IsFileExist(path) && counter < 10000; ++counter) {
    path = AppendPath(backupFolder, stamp + "_" + std::to_string(counter) + ".txt");
  }
  return path;
}

}  // namespace

const char* logMessageTypeName(LogMessageType type) {
  switch (type) {
    case LogMessageType::Comment:
      return "Comment";
    case LogMessageType::Performance:
      return "Performance";
    case LogMessageType::Warning:
      return "Warning";
    case LogMessageType::Error:
      return "Error";
    case LogMessageType::CriticalError:
      return "CriticalError";
    case LogMessageType::LogAlways:
      return "LogAlways";
  }
  return "undef";
}

const char* moduleNameText(ModuleName module) {
  switch (module) {
    case ModuleName::None:
      return "None";
    case ModuleName::Global:
      return "Global";
    case ModuleName::Memory:
      return "Memory";
    case ModuleName::Effects:
      return "Effects";
    case ModuleName::Imageproc:
      return "Imageproc";
    case ModuleName::GRFX:
      return "GRFX";
    case ModuleName::ImageReader:
      return "ImageReader";
    case ModuleName::Renderer:
      return "Renderer";
    case ModuleName::ReaderIPC:
      return "ReaderIPC";
  }
  return "undef";
}

Log::Log() = default;

Log::~Log() {
  Shutdown();
}

#define VORN_DEFINE_LOG_LEVEL(Name)                            \
  void Log::Name(ModuleName module, const char* format, ...) { \
    va_list args;                                              \
    va_start(args, format);                                    \
    DoLog(LogMessageType::Name, module, format, args, true);   \
    va_end(args);                                              \
  }
VORN_DEFINE_LOG_LEVEL(Comment)
VORN_DEFINE_LOG_LEVEL(Performance)
VORN_DEFINE_LOG_LEVEL(Warning)
VORN_DEFINE_LOG_LEVEL(Error)
VORN_DEFINE_LOG_LEVEL(CriticalError)
VORN_DEFINE_LOG_LEVEL(LogAlways)
#undef VORN_DEFINE_LOG_LEVEL

void Log::DoLog(LogMessageType type, ModuleName module, const char* format, va_list args,
                bool check) {
  if (check && static_cast<int>(type) < static_cast<int>(GetVerbosity())) return;
  char buffer[kMaxMessageBytes];
  const int written = format ? std::vsnprintf(buffer, sizeof buffer, format, args) : -1;
  if (written < 0) buffer[0] = '\0';
  publish(LogMessage{type, module, formatTime("<%X>"), std::string(buffer)});
}

void Log::DoLogText(LogMessageType type, ModuleName module, const std::string& text, bool check) {
  if (check && static_cast<int>(type) < static_cast<int>(GetVerbosity())) return;
  publish(LogMessage{type, module, formatTime("<%X>"), text.substr(0, kMaxMessageBytes - 1)});
}

void Log::publish(const LogMessage& message) {
  std::lock_guard lock(streamsMutex_);
  for (const auto& stream : streams_) stream->write(message);
  if (isFlushingType(message.type)) {
    for (const auto& stream : streams_) stream->flush();
  }
  std::erase_if(streams_, [](const auto& stream) { return !stream->isAlive(); });
}

void Log::SetVerbosity(unsigned verbosity) {
  verbosity_.store(std::min(verbosity, kMaxVerbosity));
}

unsigned Log::GetVerbosity() const {
  return verbosity_.load();
}

void Log::Flush() {
  std::lock_guard lock(streamsMutex_);
  for (const auto& stream : streams_) stream->flush();
  std::erase_if(streams_, [](const auto& stream) { return !stream->isAlive(); });
}

void Log::Initialize() {
  std::lock_guard lifecycle(lifecycleMutex_);
  if (flushThread_.joinable()) return;
  {
    std::lock_guard lock(threadMutex_);
    running_ = true;
  }
  // Joinable and woken by the condition variable rather than detached, so Shutdown stops it at
  // once and it can never touch a destroyed Log.
  flushThread_ = std::thread([this] { flushThreadMain(); });
}

void Log::flushThreadMain() {
  std::unique_lock lock(threadMutex_);
  while (running_) {
    lock.unlock();
    Flush();
    lock.lock();
    threadWake_.wait_for(lock, kFlushPeriod, [this] { return !running_; });
  }
}

void Log::Shutdown() {
  std::lock_guard lifecycle(lifecycleMutex_);
  {
    std::lock_guard lock(threadMutex_);
    running_ = false;
  }
  threadWake_.notify_all();
  if (flushThread_.joinable()) flushThread_.join();

  std::vector<std::shared_ptr<ILogStream>> dropped;
  {
    std::lock_guard lock(streamsMutex_);
    for (const auto& stream : streams_) stream->flush();
    dropped.swap(streams_);
    fileName_.clear();
  }
}

std::string Log::CreateFileOutputStream(const std::string& folder) {
  std::lock_guard lifecycle(lifecycleMutex_);
  // A second file stream would write the rotated file, so the old one is closed first.
  {
    std::lock_guard lock(streamsMutex_);
    for (const auto& stream : streams_) {
      if (auto* file = dynamic_cast<detail::LogFileStream*>(stream.get())) file->close();
    }
    std::erase_if(streams_, [](const auto& stream) { return !stream->isAlive(); });
    fileName_.clear();
  }

  if (!CreateDir(folder)) {
    std::cerr << "LogFileStream: Could not create the log folder " << folder << '\n';
    return {};
  }
  const std::string path = AppendPath(folder, kLogFileName);
  // Should the old log stay in place (no backup folder, move and copy failed), the new lines
  // are appended to it rather than truncating it.
  bool append = false;
  if (IsFileExist(path)) {
    const std::string backupFolder = AppendPath(folder, kBackupFolderName);
    append = true;
    if (CreateDir(backupFolder)) {
      LeaveNLastFilesInDstPath(kKeptBackups, backupFolder);
      append = !RenameFile(path, backupFilePath(backupFolder)) && IsFileExist(path);
    }
  }

  auto stream = detail::LogFileStream::open(path, append);
  if (!stream) return {};
  std::lock_guard lock(streamsMutex_);
  streams_.push_back(std::move(stream));
  fileName_ = path;
  return path;
}

void Log::CreateDebugOutputStream() {
  std::lock_guard lock(streamsMutex_);
  const bool present = std::any_of(streams_.begin(), streams_.end(), [](const auto& stream) {
    return dynamic_cast<const detail::LogDebugOutputStream*>(stream.get()) != nullptr;
  });
  if (!present) streams_.push_back(std::make_shared<detail::LogDebugOutputStream>());
}

void Log::AddStream(std::shared_ptr<ILogStream> stream) {
  if (!stream) return;
  std::lock_guard lock(streamsMutex_);
  streams_.push_back(std::move(stream));
}

std::string Log::FileName() const {
  std::lock_guard lock(streamsMutex_);
  return fileName_;
}

std::size_t Log::StreamCount() const {
  std::lock_guard lock(streamsMutex_);
  return streams_.size();
}

void Logger::Initialize(const std::string& folder, unsigned flags) {
  LOG_SYSTEMS(kDefaultLogModules);
  Log& log = LogInstance();
  log.Initialize();
  const bool fileFailed = (flags & kLogToFile) && log.CreateFileOutputStream(folder).empty();
  const int verbosity = DataStore::instance().getInt("Logger.Verbosity", kDefaultVerbosity);
  // A negative setting is read as 0 (write everything); SetVerbosity caps the top at 5.
  log.SetVerbosity(static_cast<unsigned>(std::max(verbosity, 0)));
  if (flags & kLogToConsole) log.CreateDebugOutputStream();
  // Set-up problems bypass the verbosity check: at the default level a Warning or Error would
  // be dropped, and the log is the only place the host will look for them.
  if (fileFailed) {
    log.DoLogText(LogMessageType::Error, ModuleName::Global,
                  "Logger: Could not open the log file in " + folder, false);
  }
  detail::reportSettingsLoadError();
}

void Logger::ShutDown() {
  LogInstance().Shutdown();
}

std::string Logger::logFileName() {
  return LogInstance().FileName();
}

Log& Logger::LogInstance() {
  static Log* const instance = new Log();
  return *instance;
}

namespace detail {

void reportSettingsLoadError() {
  Log& log = Logger::LogInstance();
  if (log.StreamCount() == 0) return;
  const std::string error = DataStore::instance().takeUnreportedLoadError();
  if (!error.empty()) log.DoLogText(LogMessageType::Warning, ModuleName::Global, error, false);
}

}  // namespace detail

// A context without a data folder has nowhere to keep a log file: the console stream only.
void InitLog(const SVornContext& context) {
  const unsigned flags =
      context.dataFolder.empty() ? (context.logFlags & ~kLogToFile) : context.logFlags;
  Logger::Initialize(AppendPath(context.dataFolder, "Logs"), flags);
}

void InitLog(const std::string& folder) {
  Logger::Initialize(AppendPath(folder, "Logs"), kLogToConsole | kLogToFile);
}

void UnInitLog() {
  Logger::ShutDown();
}

#define VORN_DEFINE_GLOBAL_LOG(Function, Type)                                                 \
  void Function(const char* format, ...) {                                                     \
    va_list args;                                                                              \
    va_start(args, format);                                                                    \
    Logger::LogInstance().DoLog(LogMessageType::Type, ModuleName::Global, format, args, true); \
    va_end(args);                                                                              \
  }
VORN_DEFINE_GLOBAL_LOG(LogComment, Comment)
VORN_DEFINE_GLOBAL_LOG(LogPerformance, Performance)
VORN_DEFINE_GLOBAL_LOG(LogWarning, Warning)
VORN_DEFINE_GLOBAL_LOG(LogError, Error)
VORN_DEFINE_GLOBAL_LOG(LogCriticalError, CriticalError)
#undef VORN_DEFINE_GLOBAL_LOG

void LOG(const logstream& stream) {
  const auto bits = static_cast<std::uint64_t>(stream.module());
  if (bits == 0 || (gEnabledModules.load() & bits) != bits) return;
  const int type = static_cast<int>(stream.type());
  if (type < 0 || type > static_cast<int>(LogMessageType::LogAlways)) return;
  Logger::LogInstance().DoLogText(stream.type(), stream.module(), stream.text(), true);
}

void LOG_SYSTEMS(std::size_t mask) {
  gEnabledModules.store(mask);
}

std::size_t enabledLogModules() {
  return gEnabledModules.load();
}

}  // namespace vorn
