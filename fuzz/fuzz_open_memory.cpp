// Whole encoded files from memory, as an application hands over a dropped or pasted file: JPEG
// and TIFF through the raster decoders, DNG and other raw data through the raw loaders.
#include <cstdint>

#include "vorn/core/log.h"
#include "vorn/io/image_reader.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vorn::Logger::LogInstance().SetVerbosity(vorn::Log::kMaxVerbosity);  // no console noise
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const vorn::ImageResult result =
      vorn::ImageReader::open(const_cast<std::uint8_t*>(data), static_cast<std::uint64_t>(size));
  // Success and an image come together.
  if ((result.errorCode == vorn::kImageReaderOk) != static_cast<bool>(result.image))
    __builtin_trap();
  if (!result.image) return 0;
  // A raw source decodes on its loader threads; a failed decode leaves no frame, never a crash.
  result.image->waitForFullRaw();
  const auto frame = result.image->workingImage();
  if (!frame) return 0;
  if (frame->empty()) __builtin_trap();
  // Raster frames hold values in [0, 1]; raw frames are finite.
  const float* values = &frame->data->r;
  for (std::uint64_t i = 0; i < frame->area() * 3; ++i)
    if (!(values[i] >= 0.0f && values[i] <= 1.0f + 1e-6f)) __builtin_trap();
  return 0;
}
