#include <zlib.h>

#include <algorithm>
#include <vector>

#include "io/blob_header.h"
#include "io/zlib_stream.h"
#include "vorn/io/image_compressor.h"

namespace vorn {
namespace {

using CompressorException = ImageCompressorLosslessZlib::CompressorException;
constexpr std::size_t kHeader = ImageCompressorLosslessZlib::kTrackedHeaderSize;

// A blob is kept in documents and undo history, so it gives back the unused bound.
void shrinkInto(std::vector<std::uint8_t>& blob, std::size_t size,
                std::vector<std::uint8_t>& destination) {
  blob.resize(size);
  blob.shrink_to_fit();
  destination = std::move(blob);
}

}  // namespace

void ImageCompressorLosslessZlib::compressEx(const std::vector<std::uint8_t>& source,
                                             std::vector<std::uint8_t>& destination, unsigned width,
                                             unsigned height, unsigned a, unsigned b,
                                             unsigned colorCode, unsigned d, int level, unsigned e,
                                             unsigned f) {
  if (width == 0 || height == 0 || e != 1 || f != 0) return;
  const std::uint64_t count = std::uint64_t(width) * height;
  if (source.size() < count)
    throw CompressorException("The source holds fewer bytes than width x height");
  detail::checkCompressionLevel(level);

  // Built aside so that a failure leaves the caller's blob as it was.
  std::vector<std::uint8_t> blob(kHeader + compressBound(count));
  const std::size_t streamLength = detail::deflateInto(source.data(), count, blob.data() + kHeader,
                                                       blob.size() - kHeader, level);

  detail::TrackedHeader header;
  header.format.width = width;
  header.format.height = height;
  header.format.sampleSize = a;
  header.format.channelCount = b;
  header.format.colorProfileCode = colorCode;
  header.format.planeCount = d;
  header.format.compressionLevel = static_cast<std::uint32_t>(level);
  header.format.streamLength = streamLength;
  detail::writeTrackedHeader(blob.data(), header);
  shrinkInto(blob, kHeader + streamLength, destination);
}

void ImageCompressorLosslessZlib::uncompressEx(const std::vector<std::uint8_t>& source,
                                               std::vector<std::uint8_t>& destination,
                                               std::uint64_t expectedLength, unsigned e,
                                               unsigned f) {
  if (source.empty() || expectedLength == 0 || e != 1 || f != 0) return;
  if (source.size() < kHeader)
    throw CompressorException("The blob is shorter than its 56-byte header");
  if (destination.size() < expectedLength)
    throw CompressorException("The destination is smaller than the expected length");
  const auto result =
      detail::inflateInto(source.data() + kHeader, source.size() - kHeader, destination.data(),
                          expectedLength, detail::InflateTail::Preserve);
  detail::throwIfZlibFailed(result.status);
}

void ImageCompressorLosslessZlib::uncompress(const std::vector<std::uint8_t>& source,
                                             float* destination, std::uint64_t length) {
  if (source.empty() || !destination || length == 0) return;
  // A blob cut inside its header holds an empty stream, which zlib reports as corrupt.
  const std::size_t offset = std::min(source.size(), kUntrackedHeaderSize);
  const auto result = detail::inflateInto(source.data() + offset, source.size() - offset,
                                          reinterpret_cast<std::uint8_t*>(destination), length,
                                          detail::InflateTail::Preserve);
  detail::throwIfZlibFailed(result.status);
}

void ImageCompressorLosslessZlib::compressSimple(const PixelRGB<float>* data,
                                                 std::vector<std::uint8_t>& destination,
                                                 std::uint64_t byteCount, int level) {
  if (!data && byteCount) throw CompressorException("There are no pixels to compress");
  detail::checkCompressionLevel(level);
  std::vector<std::uint8_t> blob(compressBound(byteCount));
  const std::size_t streamLength = detail::deflateInto(reinterpret_cast<const std::uint8_t*>(data),
                                                       byteCount, blob.data(), blob.size(), level);
  shrinkInto(blob, streamLength, destination);
}

void ImageCompressorLosslessZlib::decompressSimple(const std::vector<std::uint8_t>& source,
                                                   PixelRGB<float>* destination,
                                                   std::uint64_t byteCount) {
  // Nowhere to write is a no-op, as for uncompress().
  if (!destination || byteCount == 0) return;
  const auto result = detail::inflateInto(source.data(), source.size(),
                                          reinterpret_cast<std::uint8_t*>(destination), byteCount,
                                          detail::InflateTail::Any);
  detail::throwIfZlibFailed(result.status);
  if (result.written != byteCount) throw CompressorException("Incorrect decompression");
}

}  // namespace vorn
