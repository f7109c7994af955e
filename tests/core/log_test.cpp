#include "vorn/core/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <set>
#include <thread>

#include "support/temp_dir.h"
#include "vorn/core/data_store.h"

namespace vorn {
namespace {

namespace fs = std::filesystem;

using test::TempDir;

/// Records every message it is handed; can be told to die after its first write.
class CaptureStream : public ILogStream {
 public:
  explicit CaptureStream(bool dieAfterWrite = false) : dieAfterWrite_(dieAfterWrite) {}
  void write(const LogMessage& message) override {
    std::lock_guard lock(mutex_);
    messages_.push_back(message);
    if (dieAfterWrite_) alive_ = false;
  }
  void flush() override { ++flushes_; }
  bool isAlive() const override {
    std::lock_guard lock(mutex_);
    return alive_;
  }
  std::vector<LogMessage> messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }
  std::vector<std::string> texts() const {
    std::vector<std::string> result;
    for (const auto& message : messages()) result.push_back(message.text);
    return result;
  }
  int flushes() const { return flushes_; }

 private:
  mutable std::mutex mutex_;
  std::vector<LogMessage> messages_;
  std::atomic<int> flushes_{0};
  bool dieAfterWrite_;
  bool alive_ = true;
};

std::string readFile(const fs::path& path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream input(text);
  for (std::string line; std::getline(input, line);) result.push_back(line);
  return result;
}

/// Resets the process-wide log and settings around each test.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    UnInitLog();
    DataStore::instance().clear();
    LOG_SYSTEMS(237);
    Logger::LogInstance().SetVerbosity(4);
  }
  TempDir dir_;
};

TEST(LogLevels, VerbosityDropsLowerTypesAndLogAlwaysPasses) {
  Log log;
  auto capture = std::make_shared<CaptureStream>();
  log.AddStream(capture);
  EXPECT_EQ(log.GetVerbosity(), 4u);
  log.Comment(ModuleName::Global, "comment");
  log.Performance(ModuleName::Global, "performance");
  log.Warning(ModuleName::Global, "warning");
  log.Error(ModuleName::Global, "error");
  log.CriticalError(ModuleName::Global, "critical %d", 4);
  log.LogAlways(ModuleName::Global, "always %s", "5");
  EXPECT_EQ(capture->texts(), (std::vector<std::string>{"critical 4", "always 5"}));

  log.SetVerbosity(9);
  EXPECT_EQ(log.GetVerbosity(), 5u);
  log.CriticalError(ModuleName::Global, "dropped at 5");
  log.LogAlways(ModuleName::Global, "kept at 5");
  log.DoLogText(LogMessageType::Comment, ModuleName::Global, "unchecked", false);
  ASSERT_EQ(capture->texts().size(), 4u);
  EXPECT_EQ(capture->texts()[2], "kept at 5");
  EXPECT_EQ(capture->texts()[3], "unchecked");

  log.SetVerbosity(0);
  log.Comment(ModuleName::Effects, "everything at 0");
  ASSERT_EQ(capture->messages().size(), 5u);
  const LogMessage last = capture->messages().back();
  EXPECT_EQ(last.type, LogMessageType::Comment);
  EXPECT_EQ(last.module, ModuleName::Effects);
  EXPECT_TRUE(std::regex_match(last.timeOfDay, std::regex(R"(<\d\d:\d\d:\d\d>)")))
      << last.timeOfDay;
}

TEST(LogFormat, LongTextIsCutNotRefused) {
  Log log;
  auto capture = std::make_shared<CaptureStream>();
  log.AddStream(capture);
  const std::string longText(3000, 'x');
  log.LogAlways(ModuleName::Global, "%s", longText.c_str());
  log.DoLogText(LogMessageType::LogAlways, ModuleName::Global, longText, true);
  const std::string exact(1023, 'y');
  log.LogAlways(ModuleName::Global, "%s", exact.c_str());
  const auto texts = capture->texts();
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0], std::string(1023, 'x'));
  EXPECT_EQ(texts[1], std::string(1023, 'x'));
  EXPECT_EQ(texts[2], exact);
}

TEST(LogStreams, OrderFlushOnErrorsAndDeadStreamsDropped) {
  Log log;
  log.SetVerbosity(0);
  auto first = std::make_shared<CaptureStream>();
  auto dying = std::make_shared<CaptureStream>(true);
  auto last = std::make_shared<CaptureStream>();
  log.AddStream(first);
  log.AddStream(dying);
  log.AddStream(last);

  log.Warning(ModuleName::Global, "one");
  EXPECT_EQ(log.StreamCount(), 2u);
  EXPECT_EQ(first->flushes(), 0) << "a Warning waits for the flush thread";
  log.Error(ModuleName::Global, "two");
  EXPECT_EQ(first->flushes(), 1);
  EXPECT_EQ(last->flushes(), 1);
  log.CriticalError(ModuleName::Global, "three");
  EXPECT_EQ(last->flushes(), 2);
  EXPECT_EQ(dying->texts(), std::vector<std::string>{"one"});
  EXPECT_EQ(first->texts(), (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_EQ(last->texts(), first->texts());

  log.Shutdown();
  EXPECT_EQ(log.StreamCount(), 0u);
  log.LogAlways(ModuleName::Global, "after shutdown");
  EXPECT_EQ(first->texts().size(), 3u);
}

TEST(LogStreams, FlushThreadFlushesUntilShutdown) {
  Log log;
  auto capture = std::make_shared<CaptureStream>();
  log.AddStream(capture);
  log.Initialize();
  log.Initialize();  // a second start keeps the one thread
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (capture->flushes() < 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_GE(capture->flushes(), 2);
  log.Shutdown();
  const int afterShutdown = capture->flushes();
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  EXPECT_EQ(capture->flushes(), afterShutdown);
}

TEST_F(LogTest, InitializeEnablesModulesAndLogSystemsReplacesMask) {
  LOG_SYSTEMS(0xFFFF);
  Logger::Initialize(dir_.str(), 0);
  EXPECT_EQ(enabledLogModules(), 237u);
  auto capture = std::make_shared<CaptureStream>();
  Logger::LogInstance().AddStream(capture);
  using T = LogMessageType;
  LOG(logstream(T::LogAlways, ModuleName::Memory) << "memory " << 1);
  LOG(logstream(T::LogAlways, ModuleName::GRFX) << "grfx");
  LOG(logstream(T::LogAlways, ModuleName::None) << "none");
  LOG(logstream(T::LogAlways, ModuleName::Effects) << "effects " << 2.5);
  LOG(logstream(T::Comment, ModuleName::Effects) << "comment below verbosity");
  LOG(logstream(static_cast<T>(6), ModuleName::Effects) << "type 6");
  LOG(logstream(static_cast<T>(-1), ModuleName::Effects) << "type -1");
  LOG_SYSTEMS(237 | 2);
  LOG(logstream(T::CriticalError, ModuleName::Memory) << "memory " << 2);
  LOG(logstream(T::LogAlways, ModuleName::None) << "still none");
  LOG_SYSTEMS(0);
  LOG(logstream(T::LogAlways, ModuleName::Global) << "all off");
  ASSERT_EQ(capture->texts(), (std::vector<std::string>{"effects 2.5", "memory 2"}));
  EXPECT_EQ(capture->messages().back().module, ModuleName::Memory);
  EXPECT_EQ(capture->messages().back().type, LogMessageType::CriticalError);
  const logstream fresh;
  EXPECT_EQ(fresh.type(), LogMessageType::Comment);
  EXPECT_EQ(fresh.module(), ModuleName::Global);
}

TEST_F(LogTest, VerbositySettingIsReadAndCapped) {
  const std::vector<std::pair<std::string, unsigned>> cases = {
      {"", 4}, {"9", 5}, {"2", 2}, {"abc", 4}, {"-3", 0}};
  for (const auto& [value, expected] : cases) {
    DataStore::instance().clear();
    if (!value.empty()) DataStore::instance().set("Logger.Verbosity", value);
    Logger::Initialize(dir_.str(), 0);
    EXPECT_EQ(Logger::LogInstance().GetVerbosity(), expected) << "setting '" << value << "'";
    UnInitLog();
  }
}

TEST_F(LogTest, ConsoleLineLayoutAndBareGrfx) {
  std::ostringstream captured;
  std::streambuf* const original = std::cout.rdbuf(captured.rdbuf());
  DataStore::instance().set("Logger.Verbosity", 0);
  Logger::Initialize(dir_.str(), kLogToConsole);
  Logger::Initialize(dir_.str(), kLogToConsole);  // no second console stream
  Log& log = Logger::LogInstance();
  log.Error(ModuleName::Effects, "bad value %d", 7);
  log.LogAlways(ModuleName::GRFX, "bare %s", "text");
  log.DoLogText(LogMessageType::LogAlways, static_cast<ModuleName>(512), "odd module", true);
  UnInitLog();
  std::cout.rdbuf(original);

  const auto got = lines(captured.str());
  ASSERT_EQ(got.size(), 3u) << captured.str();
  EXPECT_TRUE(
      std::regex_match(got[0], std::regex(R"(<\d\d:\d\d:\d\d> \[Error\] \[Effects\] bad value 7)")))
      << got[0];
  EXPECT_EQ(got[1], "bare text");
  EXPECT_TRUE(
      std::regex_match(got[2], std::regex(R"(<[0-9:]{8}> \[LogAlways\] \[undef\] odd module)")))
      << got[2];
  EXPECT_EQ(captured.str().back(), '\n');
  EXPECT_TRUE(Logger::logFileName().empty());
}

TEST_F(LogTest, FileStreamWritesOneLinePerMessage) {
  const std::string folder = (dir_.path() / "Logs").string();
  Logger::Initialize(folder, kLogToFile);
  const std::string fileName = Logger::logFileName();
  EXPECT_EQ(fileName, folder + "/log_vorn.txt");
  Logger::LogInstance().LogAlways(ModuleName::Renderer, "first %s", "line");
  LogCriticalError("second");
  EXPECT_EQ(lines(readFile(fileName)).size(), 2u) << "CriticalError flushes at once";
  UnInitLog();
  EXPECT_TRUE(Logger::logFileName().empty());
  const auto got = lines(readFile(fileName));
  ASSERT_EQ(got.size(), 2u);
  EXPECT_TRUE(
      std::regex_match(got[0], std::regex(R"(<[0-9:]{8}> \[LogAlways\] \[Renderer\] first line)")))
      << got[0];
  EXPECT_TRUE(
      std::regex_match(got[1], std::regex(R"(<[0-9:]{8}> \[CriticalError\] \[Global\] second)")))
      << got[1];
}

TEST_F(LogTest, RotationKeepsNineOlderBackups) {
  const fs::path logs = dir_.path() / "Logs";
  const fs::path backup = logs / "vorn_bkup";
  fs::create_directories(backup);
  const auto now = fs::file_time_type::clock::now();
  for (int i = 0; i < 12; ++i) {
    // Names run against age so that only the modification time can pick the survivors.
    const fs::path file = backup / ("old_" + std::to_string(i) + ".txt");
    std::ofstream(file) << i;
    fs::last_write_time(file, now - std::chrono::hours(1 + i));
  }
  std::ofstream(logs / "log_vorn.txt") << "previous run\n";

  InitLog(dir_.str());
  std::set<std::string> names;
  std::string rotated;
  for (const auto& entry : fs::directory_iterator(backup)) {
    names.insert(entry.path().filename().string());
    if (entry.path().filename().string().rfind("log_vorn_", 0) == 0)
      rotated = entry.path().string();
  }
  EXPECT_EQ(names.size(), 10u);
  for (int i = 0; i < 9; ++i) EXPECT_TRUE(names.count("old_" + std::to_string(i) + ".txt")) << i;
  ASSERT_FALSE(rotated.empty());
  EXPECT_TRUE(std::regex_match(fs::path(rotated).filename().string(),
                               std::regex(R"(log_vorn_\d{8}_\d\d_\d\d_\d\d(_\d+)?\.txt)")))
      << rotated;
  EXPECT_EQ(readFile(rotated), "previous run\n");
  EXPECT_EQ(readFile(logs / "log_vorn.txt"), "") << "the new log starts empty";
  EXPECT_EQ(Logger::logFileName(), (logs / "log_vorn.txt").string());
}

TEST_F(LogTest, RotationWithinOneSecondNeverOverwrites) {
  const fs::path logs = dir_.path() / "Logs";
  const fs::path backup = logs / "vorn_bkup";
  fs::create_directories(backup);
  // Occupy the names of this second and the next two, so the rotation must pick another.
  const auto start = std::chrono::system_clock::now();
  std::set<std::string> occupied;
  for (int s = 0; s < 3; ++s) {
    const std::time_t t = std::chrono::system_clock::to_time_t(start + std::chrono::seconds(s));
    std::tm local{};
    localtime_r(&t, &local);
    char name[64];
    std::strftime(name, sizeof name, "log_vorn_%d%m%Y_%H_%M_%S.txt", &local);
    std::ofstream(backup / name) << "occupied";
    occupied.insert(name);
  }
  std::ofstream(logs / "log_vorn.txt") << "run one";
  Logger::Initialize(logs.string(), kLogToFile);
  Logger::LogInstance().LogAlways(ModuleName::Global, "run two");
  UnInitLog();
  Logger::Initialize(logs.string(), kLogToFile);
  UnInitLog();

  std::vector<std::string> rotated;
  for (const auto& entry : fs::directory_iterator(backup)) {
    const std::string name = entry.path().filename().string();
    if (occupied.count(name)) {
      EXPECT_EQ(readFile(entry.path()), "occupied") << name;
    } else {
      rotated.push_back(readFile(entry.path()));
    }
  }
  std::sort(rotated.begin(), rotated.end());
  ASSERT_EQ(rotated.size(), 2u);
  EXPECT_NE(rotated[0].find("run two"), std::string::npos) << rotated[0];
  EXPECT_EQ(rotated[1], "run one");
}

TEST_F(LogTest, ConcurrentLoggingKeepsEachThreadsOrder) {
  auto capture = std::make_shared<CaptureStream>();
  Logger::Initialize(dir_.str(), kLogToFile);
  Logger::LogInstance().AddStream(capture);
  constexpr int kThreads = 4;
  constexpr int kMessages = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kMessages; ++i) {
        if (i % 2) {
          Logger::LogInstance().LogAlways(ModuleName::Effects, "%d %d", t, i);
        } else {
          LOG(logstream(LogMessageType::LogAlways, ModuleName::Imageproc) << t << ' ' << i);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string fileName = Logger::logFileName();
  UnInitLog();

  std::vector<int> next(kThreads, 0);
  for (const auto& text : capture->texts()) {
    int t = -1;
    int i = -1;
    ASSERT_EQ(std::sscanf(text.c_str(), "%d %d", &t, &i), 2) << text;
    ASSERT_TRUE(t >= 0 && t < kThreads);
    EXPECT_EQ(i, next[t]++) << "thread " << t;
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kMessages);
  EXPECT_EQ(lines(readFile(fileName)).size(), std::size_t(kThreads * kMessages));
}

TEST_F(LogTest, LoggingWhileInitializingAndShuttingDown) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int t = 0; t < 3; ++t) {
    writers.emplace_back([&stop, t] {
      for (int i = 0; !stop.load(); ++i) {
        Logger::LogInstance().CriticalError(ModuleName::Global, "writer %d message %d", t, i);
        LOG(logstream(LogMessageType::LogAlways, ModuleName::ReaderIPC) << "stream " << i);
        if (i % 64 == 0) Logger::LogInstance().Flush();
      }
    });
  }
  for (int cycle = 0; cycle < 15; ++cycle) {
    Logger::Initialize(dir_.str(), kLogToFile);
    Logger::LogInstance().AddStream(std::make_shared<CaptureStream>(cycle % 2 == 0));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(Logger::logFileName().empty());
    UnInitLog();
  }
  stop = true;
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(Logger::LogInstance().StreamCount(), 0u);
  EXPECT_TRUE(fs::exists(dir_.path() / "vorn_bkup"));
}

}  // namespace
}  // namespace vorn
