#include "io/blob_header.h"

namespace vorn::detail {
namespace {

enum TrackedOffset : std::size_t {
  kVersionFirst = 0,
  kVersionSecond = 4,
  kSignatureMajor = 8,
  kSignatureMinor = 12,
  kSignatureCompressor = 16,
  kWidth = 20,
  kHeight = 24,
  kSampleSize = 28,
  kChannelCount = 32,
  kProfileCode = 36,
  kPlaneCount = 40,
  kLevel = 44,
  kStreamLength = 48,
};
static_assert(kStreamLength + 8 == ImageCompressorLosslessZlib::kTrackedHeaderSize);

}  // namespace

void writeTrackedHeader(std::uint8_t* out, const TrackedHeader& h) {
  putU32(out + kVersionFirst, static_cast<std::uint32_t>(h.version.first));
  putU32(out + kVersionSecond, static_cast<std::uint32_t>(h.version.second));
  putU32(out + kSignatureMajor, h.signature.versionMajor);
  putU32(out + kSignatureMinor, h.signature.versionMinor);
  putU32(out + kSignatureCompressor, h.signature.compressor);
  putU32(out + kWidth, h.format.width);
  putU32(out + kHeight, h.format.height);
  putU32(out + kSampleSize, h.format.sampleSize);
  putU32(out + kChannelCount, h.format.channelCount);
  putU32(out + kProfileCode, h.format.colorProfileCode);
  putU32(out + kPlaneCount, h.format.planeCount);
  putU32(out + kLevel, h.format.compressionLevel);
  putU64(out + kStreamLength, h.format.streamLength);
}

STrackVersionFormat readVersion(const std::uint8_t* data) {
  STrackVersionFormat version;
  version.first = static_cast<std::int32_t>(getU32(data + kVersionFirst));
  version.second = static_cast<std::int32_t>(getU32(data + kVersionSecond));
  return version;
}

bool readTrackedHeader(const std::uint8_t* data, std::size_t size, TrackedHeader& h) {
  if (size < ImageCompressorLosslessZlib::kTrackedHeaderSize) return false;
  h.version = readVersion(data);
  h.signature.versionMajor = getU32(data + kSignatureMajor);
  h.signature.versionMinor = getU32(data + kSignatureMinor);
  h.signature.compressor = getU32(data + kSignatureCompressor);
  h.format.width = getU32(data + kWidth);
  h.format.height = getU32(data + kHeight);
  h.format.sampleSize = getU32(data + kSampleSize);
  h.format.channelCount = getU32(data + kChannelCount);
  h.format.colorProfileCode = getU32(data + kProfileCode);
  h.format.planeCount = getU32(data + kPlaneCount);
  h.format.compressionLevel = getU32(data + kLevel);
  h.format.streamLength = getU64(data + kStreamLength);
  return true;
}

void writeProxyHeader(std::uint8_t* out, const ProxyHeader& h) {
  putU32(out, h.width);
  putU32(out + 4, h.height);
  putU32(out + 8, h.colorProfileCode);
}

ProxyHeader readProxyHeader(const std::uint8_t* data) {
  return {getU32(data), getU32(data + 4), getU32(data + 8)};
}

}  // namespace vorn::detail
