#include "batch/batch_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>

#include "vorn/core/file_utils.h"
#include "vorn/core/processing_status.h"

namespace vorn::batch {

BatchRun::BatchRun(VornBatchProgress progress, void* user, const volatile int* cancel)
    : progress_(progress), user_(user), cancel_(cancel) {
  if (!cancel_) return;
  watcher_ = std::jthread([this](std::stop_token token) {
    while (!token.stop_requested()) {
      if (cancelled()) {
        requestCancel(stop_.get());
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
}

BatchRun::~BatchRun() = default;

void BatchRun::stage(double fraction, const char* name) const {
  if (cancelled()) throw BatchFailure(VORN_BATCH_CANCELLED, "cancelled");
  if (progress_) progress_(fraction, name, user_);
}

ExportParameters exportParametersFor(const std::string& output, const VornBatchOptions& options) {
  if (options.quality < 1 || options.quality > 100)
    throw BatchFailure(VORN_BATCH_BAD_ARGUMENT, "quality must be 1...100");
  if (options.depth != 8 && options.depth != 16 && options.depth != 32)
    throw BatchFailure(VORN_BATCH_BAD_ARGUMENT, "depth must be 8, 16 or 32");
  // A side beyond this is a caller's mistake, not a wish for a gigapixel file.
  if (options.longSide < 0 || options.longSide > 65535)
    throw BatchFailure(VORN_BATCH_BAD_ARGUMENT, "long side must be 0...65535");
  const std::string extension = getFileExtension(output);
  std::string lower(extension);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (lower != "jpg" && lower != "jpeg" && lower != "tif" && lower != "tiff")
    throw BatchFailure(VORN_BATCH_BAD_ARGUMENT, output + ": the output must be .jpg or .tif");
  ExportParameters exported;
  exported.path = output;
  exported.jpegQuality = options.quality;
  exported.tiffBitDepth = options.depth;
  exported.longestSide = options.longSide;
  return exported;
}

namespace {

// Hidden, unique per process and call, and with the output's extension, which picks the format.
std::filesystem::path temporaryPathFor(const std::filesystem::path& output) {
  static std::atomic<unsigned> counter{0};
  std::string name = ".";
  name += output.stem().string();
  name += ".partial-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
  name += output.extension().string();
  return output.parent_path() / name;
}

// Moves `from` onto `to` only when `to` does not exist, in one step, so an output that appears
// meanwhile is never replaced; file systems without the flag get a hard link instead.
bool renameWithoutReplacing(const std::filesystem::path& from, const std::filesystem::path& to,
                            std::error_code& error) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno == EINVAL || errno == ENOSYS) {
    if (::link(from.c_str(), to.c_str()) == 0) {
      ::unlink(from.c_str());
      return true;
    }
  }
  error = std::error_code(errno, std::generic_category());
  return false;
}

}  // namespace

void throwOutputExists(const std::string& output) {
  throw BatchFailure(VORN_BATCH_OUTPUT_FAILED, output + ": exists (not replaced)", true);
}

void writeFrameAtomically(const ImageFrame& frame, const ExportParameters& parameters,
                          const BatchRun& run, bool replace) {
  const std::filesystem::path output(parameters.path);
  ExportParameters temporary = parameters;
  temporary.path = temporaryPathFor(output).string();
  std::error_code ignored;
  const bool written = ImageMagickReader::writeImageToFile(frame, temporary);
  if (!written || run.cancelled()) {
    std::filesystem::remove(temporary.path, ignored);
    if (written) throw BatchFailure(VORN_BATCH_CANCELLED, "cancelled");
    throw BatchFailure(VORN_BATCH_OUTPUT_FAILED, parameters.path + ": could not be written");
  }
  std::error_code error;
  if (replace)
    std::filesystem::rename(temporary.path, output, error);
  else
    renameWithoutReplacing(temporary.path, output, error);
  if (error) {
    std::filesystem::remove(temporary.path, ignored);
    if (error == std::errc::file_exists) throwOutputExists(parameters.path);
    throw BatchFailure(VORN_BATCH_OUTPUT_FAILED, parameters.path + ": " + error.message());
  }
}

int reportBatchResult(VornBatchError code, const std::string& text, int* errorCode, char* message,
                      std::size_t messageSize) {
  if (errorCode) *errorCode = code;
  if (message && messageSize > 0) {
    const std::size_t length = std::min(text.size(), messageSize - 1);
    std::memcpy(message, text.data(), length);
    message[length] = '\0';
  }
  return code;
}

}  // namespace vorn::batch
