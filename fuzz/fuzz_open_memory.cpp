// Whole JPEG and TIFF files from memory, as an application hands over a dropped or pasted file.
#include <cstdint>

#include "vorn/core/log.h"
#include "vorn/io/raster_info.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vorn::Logger::LogInstance().SetVerbosity(vorn::Log::kMaxVerbosity);  // no console noise
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const vorn::ImageResult result = vorn::openRasterFromMemory(data, size);
  // Success and an image come together, and an opened frame holds values in [0, 1].
  if ((result.errorCode == vorn::kImageReaderOk) != static_cast<bool>(result.image))
    __builtin_trap();
  if (!result.image) return 0;
  const auto frame = result.image->workingImage();
  if (!frame || frame->empty()) __builtin_trap();
  const float* values = &frame->data()->r;
  for (std::uint64_t i = 0; i < frame->area() * 3; ++i)
    if (!(values[i] >= 0.0f && values[i] <= 1.0f)) __builtin_trap();
  return 0;
}
