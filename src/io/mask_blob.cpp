#include <zlib.h>

#include <array>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "core/log_failure.h"
#include "core/parallel.h"
#include "io/blob_header.h"
#include "io/color_profile_code.h"
#include "io/magick_environment.h"
#include "io/pooled_bytes.h"
#include "io/zlib_stream.h"
#include "vorn/io/image_compressor.h"

namespace vorn {
namespace {

using CompressorException = ImageCompressorLosslessZlib::CompressorException;
constexpr std::size_t kGrain = std::size_t(64) << 10;

// byte x 0.003921569 rounded once to float, so 255 reads back as 1.0000001 and not 1.0
// (a float constant would round that product back to exactly 1).
constexpr std::array<float, 256> kByteToMask = [] {
  std::array<float, 256> table{};
  for (int i = 0; i < 256; ++i) table[i] = static_cast<float>(i * 0.003921569);
  return table;
}();

std::string describe(const char* format, ...) VORN_PRINTF_FORMAT(1, 2);
std::string describe(const char* format, ...) {
  char text[160];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

// Checked before anything is allocated: the header of a blob read from disk may lie.
void checkClaimedSize(std::uint32_t width, std::uint32_t height, std::uint64_t bytesPerPixel,
                      std::uint64_t streamBytes) {
  if (width == 0 || height == 0)
    throw CompressorException(describe("Mask blob has a zero side: %u x %u", width, height));
  const std::uint64_t pixels = std::uint64_t(width) * height;
  const std::uint64_t cap = detail::maxImagePixels();
  if (width > INT_MAX || height > INT_MAX || pixels > cap)
    throw CompressorException(
        describe("Mask blob claims %u x %u pixels, more than the limit of %llu", width, height,
                 static_cast<unsigned long long>(cap)));
  if (pixels * bytesPerPixel > detail::maxInflatedBytes(streamBytes))
    throw CompressorException(
        describe("Mask blob claims %u x %u pixels, more than its %llu-byte stream can hold", width,
                 height, static_cast<unsigned long long>(streamBytes)));
}

}  // namespace

void ImageCompressorProxy::compressMask(const MaskImage& mask, std::vector<std::uint8_t>& blob) {
  std::vector<std::uint8_t> bytes;
  discretizeMask(mask, bytes);
  ImageCompressorLosslessZlib::compressEx(bytes, blob, static_cast<unsigned>(mask.width),
                                          static_cast<unsigned>(mask.height), 4, 1,
                                          detail::kProfileNone, 1, Z_DEFAULT_COMPRESSION, 1, 0);
}

std::shared_ptr<MaskImage> ImageCompressorProxy::uncompressMask_1_0(
    const std::vector<std::uint8_t>& blob) {
  constexpr std::size_t kHeader = ImageCompressorLosslessZlib::kTrackedHeaderSize;
  detail::TrackedHeader header;
  if (!detail::readTrackedHeader(blob.data(), blob.size(), header))
    throw CompressorException("Tracked mask blob is shorter than its 56-byte header");
  const std::size_t streamBytes = blob.size() - kHeader;
  checkClaimedSize(header.format.width, header.format.height, 1, streamBytes);

  const std::size_t count = std::size_t(header.format.width) * header.format.height;
  detail::PooledBytes bytes(count);
  // The scratch is fresh, so a short stream leaves zeros: "as it was" for a new buffer.
  const auto result = detail::inflateInto(blob.data() + kHeader, streamBytes, bytes.data(), count,
                                          detail::InflateTail::Zero);
  detail::throwIfZlibFailed(result.status);

  auto mask = std::make_shared<MaskImage>(
      _Size<int>(static_cast<int>(header.format.width), static_cast<int>(header.format.height)));
  float* values = mask->data;
  const std::uint8_t* source = bytes.data();
  detail::parallelChunks(count, kGrain, [&](std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i) values[i] = kByteToMask[source[i]];
  });
  return mask;
}

std::shared_ptr<MaskImage> ImageCompressorProxy::uncompressMask_untracked(
    const std::vector<std::uint8_t>& blob) {
  constexpr std::size_t kHeader = ImageCompressorLosslessZlib::kUntrackedHeaderSize;
  if (blob.size() < kHeader)
    throw CompressorException("Untracked mask blob is shorter than its 8-byte header");
  const std::uint32_t width = detail::getU32(blob.data());
  const std::uint32_t height = detail::getU32(blob.data() + 4);
  const std::size_t streamBytes = blob.size() - kHeader;
  checkClaimedSize(width, height, sizeof(float), streamBytes);

  auto mask =
      std::make_shared<MaskImage>(_Size<int>(static_cast<int>(width), static_cast<int>(height)));
  // The stored floats go straight into the mask, as they were written. A short stream leaves
  // zeros (unselected) rather than whatever the pool block held.
  const auto result = detail::inflateInto(blob.data() + kHeader, streamBytes,
                                          reinterpret_cast<std::uint8_t*>(mask->data),
                                          mask->sizeInBytes(), detail::InflateTail::Zero);
  detail::throwIfZlibFailed(result.status);
  return mask;
}

void ImageCompressorProxy::uncompressMask(const std::vector<std::uint8_t>& blob,
                                          std::shared_ptr<MaskImage>& mask) {
  if (blob.size() <= ImageCompressorLosslessZlib::kUntrackedHeaderSize) return;
  try {
    auto read = detail::readVersion(blob.data()).isUntrackedVersion()
                    ? uncompressMask_untracked(blob)
                    : uncompressMask_1_0(blob);
    mask = std::move(read);
  } catch (const std::exception& error) {
    VORN_LOG_FAILURE(error.what());
  }
}

}  // namespace vorn
