#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <thread>
#include <type_traits>

#include "batch_plan.h"
#include "cli.h"
#include "error_echo.h"
#include "progress_line.h"
#include "vorn/batch_edit.h"

namespace vorn::cli {
namespace {

// The C calls' cancel flag is an int; a signal handler may only store to a sig_atomic_t.
static_assert(std::is_same_v<std::sig_atomic_t, int>);
volatile std::sig_atomic_t gInterrupted = 0;

bool interrupted() {
  return __atomic_load_n(&gInterrupted, __ATOMIC_RELAXED) != 0;
}

// The renders read the flag atomically from their own threads, so the handler stores it so too
// (a lock-free store is async-signal-safe) and leaves errno as it found it.
extern "C" void onInterrupt(int) {
  const int saved = errno;
  __atomic_store_n(&gInterrupted, 1, __ATOMIC_RELAXED);
  errno = saved;
}

// Ctrl-C and SIGTERM set the flag every running render watches; the previous handlers come back
// when the batch ends, so an in-process caller keeps its own.
class InterruptScope {
 public:
  InterruptScope() {
    __atomic_store_n(&gInterrupted, 0, __ATOMIC_RELAXED);
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previousInt_);
    sigaction(SIGTERM, &action, &previousTerm_);
  }
  ~InterruptScope() {
    sigaction(SIGINT, &previousInt_, nullptr);
    sigaction(SIGTERM, &previousTerm_, nullptr);
  }
  InterruptScope(const InterruptScope&) = delete;
  InterruptScope& operator=(const InterruptScope&) = delete;

 private:
  struct sigaction previousInt_ {};
  struct sigaction previousTerm_ {};
};

enum class FileStatus { Ok, Failed, Skipped, Cancelled };

const char* statusName(FileStatus status) {
  switch (status) {
    case FileStatus::Ok:
      return "ok";
    case FileStatus::Failed:
      return "failed";
    case FileStatus::Skipped:
      return "skipped";
    default:
      return "cancelled";
  }
}

struct FileResult {
  FileStatus status = FileStatus::Ok;
  double seconds = 0.0;
  std::string error;
};

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string fixed2(double value) {
  std::ostringstream text;
  text.setf(std::ios::fixed);
  text.precision(2);
  text << value;
  return text.str();
}

std::string jsonLine(const nlohmann::json& object) {
  // Paths are bytes on Linux: a name that is not UTF-8 is kept readable, never an exception.
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// Every finished file goes through here, from any worker, one at a time.
class BatchReport {
 public:
  BatchReport(std::ostream& out, std::size_t total, bool json, bool terminal)
      : out_(out), total_(total), json_(json), started_(Clock::now()) {
    if (terminal) {
      line_.emplace(out, total);
      line_->update(0, 0.0);
    }
  }

  void finished(const std::string& input, const std::string& output, const FileResult& result) {
    const std::lock_guard lock(mutex_);
    ++counts_[static_cast<int>(result.status)];
    if (json_) {
      nlohmann::json object = {{"input", input},
                               {"output", output},
                               {"status", statusName(result.status)},
                               {"seconds", result.seconds},
                               {"error", nullptr}};
      if (!result.error.empty()) object["error"] = result.error;
      out_ << jsonLine(object) << '\n' << std::flush;
      return;
    }
    std::string message;
    if (result.status == FileStatus::Ok)
      message = "ok " + input + " -> " + output + " (" + fixed2(result.seconds) + " s)";
    else if (result.status == FileStatus::Skipped)
      message = "skipped " + input + ": exists";
    else
      message = std::string(statusName(result.status)) + " " + input + ": " + result.error;
    if (!line_) {
      out_ << message << '\n' << std::flush;
      return;
    }
    // On a terminal only what needs a reader's attention stays above the progress line.
    if (result.status == FileStatus::Failed) line_->printAbove(message);
    line_->update(done(), secondsSince(started_));
  }

  /// Prints a library error above the progress line, or on `err` when there is none.
  void echo(const std::string& line, std::ostream& err) {
    const std::lock_guard lock(mutex_);
    if (line_)
      line_->printAbove(line);
    else
      err << line << '\n' << std::flush;
  }

  /// Prints the summary; the exit code follows from the counts.
  int summarise(std::size_t notStarted, bool interrupted) {
    const std::lock_guard lock(mutex_);
    if (line_) line_->finish();
    const double seconds = secondsSince(started_);
    const std::size_t ok = count(FileStatus::Ok), failed = count(FileStatus::Failed),
                      skipped = count(FileStatus::Skipped),
                      cancelled = count(FileStatus::Cancelled);
    if (json_) {
      out_ << jsonLine({{"summary", true},
                        {"total", total_},
                        {"ok", ok},
                        {"failed", failed},
                        {"skipped", skipped},
                        {"cancelled", cancelled},
                        {"not_started", notStarted},
                        {"seconds", seconds}})
           << '\n';
    } else {
      out_ << ok << " written, " << skipped << " skipped, " << failed << " failed";
      if (interrupted) out_ << ", " << cancelled << " cancelled, " << notStarted << " not started";
      out_ << " of " << total_ << " in " << fixed2(seconds) << " s";
      if (ok > 0) out_ << " (" << fixed2(static_cast<double>(ok) / seconds) << " files/s)";
      out_ << '\n';
    }
    out_ << std::flush;
    if (interrupted) return kExitInterrupted;
    return failed > 0 ? kExitFailed : kExitOk;
  }

 private:
  std::size_t count(FileStatus status) const { return counts_[static_cast<int>(status)]; }
  std::size_t done() const { return counts_[0] + counts_[1] + counts_[2] + counts_[3]; }

  std::ostream& out_;
  std::size_t total_;
  bool json_;
  Clock::time_point started_;
  std::optional<ProgressLine> line_;
  std::mutex mutex_;
  std::size_t counts_[4] = {};
};

struct BatchJob {
  std::string input;
  std::string output;
};

FileResult renderOne(const BatchJob& job, const LayeredEdit& edit, const BatchOptions& options,
                     const VornBatchOptions& written) {
  const Clock::time_point start = Clock::now();
  const bool replace = options.existing == ExistingOutput::Overwrite;
  const batch::BatchOutcome outcome =
      batch::renderEditToFile(job.input, edit, job.output, written, replace, nullptr, nullptr,
                              const_cast<const volatile int*>(&gInterrupted));
  FileResult result;
  result.seconds = secondsSince(start);
  if (outcome.code == VORN_BATCH_OK) return result;
  // The report names the input already; the library's message starts with it too.
  const std::string prefix = job.input + ": ";
  result.error =
      outcome.message.starts_with(prefix) ? outcome.message.substr(prefix.size()) : outcome.message;
  if (outcome.outputExists && options.existing == ExistingOutput::Skip)
    result.status = FileStatus::Skipped;
  else if (outcome.code == VORN_BATCH_CANCELLED)
    result.status = FileStatus::Cancelled;
  else
    result.status = FileStatus::Failed;
  if (outcome.outputExists && result.status == FileStatus::Failed)
    result.error = job.output + ": exists (--overwrite replaces it, --skip-existing keeps it)";
  return result;
}

// Each render is itself parallel over rows; two files at once hide one file's single-threaded
// decode and encode behind the other's render.
int defaultJobs() {
  return 2;
}

}  // namespace

int runBatchWith(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                 std::ostream& err, bool terminal) {
  BatchOptions options;
  std::string error;
  if (!parseBatchOptions(args, options, error)) {
    err << "vorn batch: " << error << '\n' << kBatchUsage;
    return kExitUsage;
  }
  // Everything that can be wrong with the arguments is found before the first file is touched.
  LayeredEdit edit;
  std::vector<std::string> files, names;
  if (!readPresets(options.presets, edit, error) ||
      !collectBatchInputs(options.inputs, options.recursive, in, files, error) ||
      !planOutputNames(files, options.nameTemplate, options.format, names, error)) {
    err << "vorn batch: " << error << '\n';
    return kExitUsage;
  }
  std::error_code code;
  std::filesystem::create_directories(options.outputFolder, code);
  if (code || !std::filesystem::is_directory(options.outputFolder)) {
    err << "vorn batch: " << options.outputFolder << ": cannot be made a folder"
        << (code ? ": " + code.message() : std::string()) << '\n';
    return kExitFailed;
  }
  std::vector<BatchJob> jobs;
  for (const std::size_t position : shardPositions(files.size(), options.shard, options.shardCount))
    jobs.push_back({files[position],
                    (std::filesystem::path(options.outputFolder) / names[position]).string()});

  VornBatchOptions written;
  vornBatchDefaultOptions(&written);
  written.quality = options.quality;
  const InterruptScope interrupts;
  BatchReport report(out, jobs.size(), options.json, terminal && !options.json);
  // Errors echoed to the same terminal would tear the progress line; a redirected stderr keeps
  // them.
  std::optional<EchoRedirect> aboveProgress;
  if (terminal && !options.json && &err == &std::cerr && ::isatty(STDERR_FILENO) == 1)
    aboveProgress.emplace([&](const std::string& line) { report.echo(line, err); });
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> started{0};
  const auto worker = [&] {
    while (!interrupted()) {
      const std::size_t index = next++;
      if (index >= jobs.size()) return;
      ++started;
      report.finished(jobs[index].input, jobs[index].output,
                      renderOne(jobs[index], edit, options, written));
    }
  };
  const std::size_t threads =
      std::min<std::size_t>(jobs.size(), options.jobs > 0 ? options.jobs : defaultJobs());
  {
    std::vector<std::jthread> workers;
    for (std::size_t i = 1; i < threads; ++i) workers.emplace_back(worker);
    if (threads > 0) worker();
  }
  return report.summarise(jobs.size() - std::min(started.load(), jobs.size()), interrupted());
}

int runBatch(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  const bool terminal = &out == &std::cout && ::isatty(STDOUT_FILENO) == 1;
  return runBatchWith(args, std::cin, out, err, terminal);
}

}  // namespace vorn::cli
