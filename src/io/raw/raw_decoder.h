#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "vorn/io/fail_on.h"
#include "vorn/io/image.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_source_raw.h"

namespace vorn::raw {

/// A raw file's bytes, read once and shared by the identify step and both loaders.
struct RawInput {
  std::string path;
  std::shared_ptr<const unsigned char[]> bytes;
  std::size_t length = 0;
};

/// What one decoding step produced; on failure `stage` and `message` say where and why.
struct DecodeOutcome {
  ImageReaderErrorCode code = kImageReaderFailed;
  const char* stage = "read";
  std::string message;
};

/// What the identify step learns without decoding pixels.
struct RawIdentity {
  RawFrameGeometry geometry;
  ImageMetadata metadata;
  bool isDng = false;
  bool hasMosaic = false;  ///< a colour filter array (Bayer, X-Trans) rather than full pixels
  int bitsPerSample = 0;   ///< bits of the file's samples (12 for 12-bit data)
};

/// A decoded frame and what it was decoded at.
struct RawFrame {
  std::shared_ptr<ImageFrame> frame;
  _Size<int> sensorSize;  ///< the decode's width and height before orientation
};

/// The classified file's contents as raw input, shared rather than copied; stage "read" with
/// the file's read code when it could not be read or is empty.
DecodeOutcome rawInputOf(const ImageFileClass& file, std::shared_ptr<const RawInput>& input);
/// Parses the file's structure and checks its declared size against the pixel limit.
DecodeOutcome identifyRaw(const RawInput& input, RawIdentity& identity);
/// Decodes half size (no demosaicing) or full size into float RGB in melissa RGB, upright.
/// Damage (image data past the end of the file, the decoder's reports of corrupt or missing
/// data, a decode that stopped before any image data, an unreadable filter pattern) is code 6
/// when `failOn` refuses its kind, else logged. `stop` is asked between stages and from the
/// decoder's progress callback; `beforeProcess`, when given, runs between unpacking and
/// processing (the full loader yields there).
DecodeOutcome decodeRaw(const RawInput& input, bool halfSize, FailOn failOn,
                        const std::function<bool()>& stop, RawFrame& result,
                        const std::function<void()>& beforeProcess = {});

/// The one text a failed step logs: "<stage> '<path>': <message>".
std::string describeFailure(const DecodeOutcome& outcome, const std::string& path);

/// EXIF orientation (1..8) of LibRaw's flip value.
int orientationFromFlip(int flip);

/// Reads a host's cancel flag; the host may write it from any thread.
inline bool isCancelRequested(const std::shared_ptr<bool>& cancel) {
  return cancel && std::atomic_ref<bool>(*cancel).load(std::memory_order_relaxed);
}
inline void requestCancel(const std::shared_ptr<bool>& cancel) {
  if (cancel) std::atomic_ref<bool>(*cancel).store(true, std::memory_order_relaxed);
}

}  // namespace vorn::raw
