#pragma once

#include <cstdint>

namespace vorn::detail {

/// The largest image, in pixels, that any reader accepts by default: 16383 x 16383.
inline constexpr std::uint64_t kDefaultMaxPixels = 268402689;
/// The setting that raises the pixel cap.
inline constexpr const char* kMaxPixelsSetting = "ImageReader.MaxPixels";

/// The pixel cap in force: the default, or "ImageReader.MaxPixels" when that is larger.
std::uint64_t maxImagePixels();

/// Sets ImageMagick up once per process (thread-safe) and keeps its resource limits in step
/// with maxImagePixels(); call before any Magick++ use. Cheap after the first call.
void ensureMagickEnvironment();

}  // namespace vorn::detail
