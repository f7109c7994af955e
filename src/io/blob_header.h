#pragma once

#include <cstddef>
#include <cstdint>

#include "vorn/io/image_compressor.h"

namespace vorn::detail {

/// Every word of every blob is little-endian, whatever the machine.
inline void putU32(std::uint8_t* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
inline void putU64(std::uint8_t* p, std::uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
inline std::uint32_t getU32(const std::uint8_t* p) {
  std::uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}
inline std::uint64_t getU64(const std::uint8_t* p) {
  std::uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

/// The 56-byte header of a tracked blob.
struct TrackedHeader {
  STrackVersionFormat version;
  SCompressedDataSignature signature;
  SCompressedImageFormat format;
};

void writeTrackedHeader(std::uint8_t* out, const TrackedHeader& header);
/// False (and header untouched) when fewer than 56 bytes are given.
bool readTrackedHeader(const std::uint8_t* data, std::size_t size, TrackedHeader& header);
/// The version words of any blob of at least 8 bytes.
STrackVersionFormat readVersion(const std::uint8_t* data);

/// The 12-byte header of a proxy blob.
struct ProxyHeader {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t colorProfileCode = 0;
};

void writeProxyHeader(std::uint8_t* out, const ProxyHeader& header);
ProxyHeader readProxyHeader(const std::uint8_t* data);

}  // namespace vorn::detail
