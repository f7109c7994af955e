#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "vorn/batch.h"
#include "vorn/batch_edit.h"
#include "vorn/io/image.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn::batch {

/// A batch call's failure: the code the C function returns and the message it copies out.
struct BatchFailure : std::runtime_error {
  BatchFailure(VornBatchError code_, const std::string& message, bool exists = false)
      : std::runtime_error(message), code(code_), outputExists(exists) {}
  VornBatchError code;
  bool outputExists;
};

/// Throws the failure for an output that is there already and must not be replaced.
[[noreturn]] void throwOutputExists(const std::string& output);

/// One call's progress reports and cancel flag; the host's flag is mirrored into the library's
/// stop flag by a watcher thread so that a running decode or render ends early.
class BatchRun {
 public:
  BatchRun(VornBatchProgress progress, void* user, const volatile int* cancel);
  ~BatchRun();
  BatchRun(const BatchRun&) = delete;
  BatchRun& operator=(const BatchRun&) = delete;

  // The host sets the flag from its own thread; an atomic read keeps that well defined.
  bool cancelled() const { return cancel_ && __atomic_load_n(cancel_, __ATOMIC_RELAXED) != 0; }
  /// Reports the stage; throws a cancelled failure when the flag is set.
  void stage(double fraction, const char* name) const;
  const std::shared_ptr<bool>& stopFlag() const { return stop_; }

 private:
  VornBatchProgress progress_;
  void* user_;
  const volatile int* cancel_;
  std::shared_ptr<bool> stop_ = std::make_shared<bool>(false);
  std::jthread watcher_;
};

/// Checks the options and fills in the export parameters for `output` (jpg or tif).
ExportParameters exportParametersFor(const std::string& output, const VornBatchOptions& options);

/// Writes `frame` beside `parameters.path` and renames it into place; on any failure or a
/// cancel the temporary file is removed and nothing else is touched. Without `replace` an
/// existing output stays as it is and the failure is VORN_BATCH_OUTPUT_FAILED with outputExists.
void writeFrameAtomically(const ImageFrame& frame, const ExportParameters& parameters,
                          const BatchRun& run, bool replace = true);

/// Runs `body`, turning every failure into a code and a message.
template <typename Body>
BatchOutcome runCaught(Body&& body);

/// Runs `body` and reports its outcome to the C caller.
template <typename Body>
int runBatchCall(int* errorCode, char* message, std::size_t messageSize, Body&& body);

/// Copies `text` into the caller's buffer (truncated, terminated) and stores the code.
int reportBatchResult(VornBatchError code, const std::string& text, int* errorCode, char* message,
                      std::size_t messageSize);

template <typename Body>
BatchOutcome runCaught(Body&& body) {
  try {
    body();
    return {};
  } catch (const BatchFailure& failure) {
    return {failure.code, failure.what(), failure.outputExists};
  } catch (const std::bad_alloc&) {
    return {VORN_BATCH_RENDER_FAILED, "out of memory", false};
  } catch (const std::exception& e) {
    return {VORN_BATCH_RENDER_FAILED, e.what(), false};
  }
}

template <typename Body>
int runBatchCall(int* errorCode, char* message, std::size_t messageSize, Body&& body) {
  const BatchOutcome outcome = runCaught(std::forward<Body>(body));
  return reportBatchResult(outcome.code, outcome.message, errorCode, message, messageSize);
}

}  // namespace vorn::batch
