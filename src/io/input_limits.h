#pragma once

#include <cstdint>

namespace vorn::detail {

/// The largest image, in pixels, that any reader accepts by default: 16383 x 16383.
inline constexpr std::uint64_t kDefaultMaxPixels = 268402689;
/// The setting that replaces the pixel cap.
inline constexpr const char* kMaxPixelsSetting = "ImageReader.MaxPixels";
/// Files larger than this are refused before any byte is read: it holds the largest default
/// image as uncompressed 16-bit RGBA with room to spare, and no real photo comes near it.
inline constexpr std::uint64_t kMaxInputFileBytes = std::uint64_t(4) << 30;

/// The pixel cap in force: "ImageReader.MaxPixels" when it holds a positive whole number (a
/// host on a small machine may lower it, a scanner host raise it), else the default.
std::uint64_t maxImagePixels();

}  // namespace vorn::detail
