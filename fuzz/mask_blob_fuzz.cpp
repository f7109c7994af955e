// Mask blobs from documents on disk: both layouts, through the entry point and each reader.
#include <cmath>
#include <cstdint>
#include <vector>

#include "io/blob_header.h"
#include "vorn/core/log.h"
#include "vorn/io/image_compressor.h"

namespace {

using vorn::ImageCompressorProxy;
using Exception = vorn::ImageCompressorLosslessZlib::CompressorException;

// A mask that was read must match the size its header claims; one made of bytes (the tracked
// layout) must also hold values of a mask, while the untracked layout keeps its stored floats.
void check(const std::shared_ptr<vorn::MaskImage>& mask, std::uint32_t width, std::uint32_t height,
           bool fromBytes) {
  if (!mask) return;
  if (mask->width != static_cast<int>(width) || mask->height != static_cast<int>(height))
    __builtin_trap();
  if (!fromBytes) return;
  const float* values = mask->data;
  for (std::uint64_t i = 0; i < mask->area(); ++i)
    if (!(values[i] >= 0.0f && values[i] <= 1.0000002f)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vorn::Logger::LogInstance().SetVerbosity(vorn::Log::kMaxVerbosity);  // no console noise
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size vector, so AddressSanitizer sees any read past the end of the blob.
  const std::vector<std::uint8_t> blob(data, data + size);

  std::shared_ptr<vorn::MaskImage> mask;
  ImageCompressorProxy::uncompressMask(blob, mask);
  if (mask && size <= 8) __builtin_trap();

  try {
    auto tracked = ImageCompressorProxy::uncompressMask_1_0(blob);
    check(tracked, vorn::detail::getU32(data + 20), vorn::detail::getU32(data + 24), true);
  } catch (const Exception&) {
  }
  try {
    auto untracked = ImageCompressorProxy::uncompressMask_untracked(blob);
    check(untracked, vorn::detail::getU32(data), vorn::detail::getU32(data + 4), false);
  } catch (const Exception&) {
  }
  return 0;
}
