#pragma once

#include <cstdint>
#include <string>

#include "vorn/core/geometry.h"
#include "vorn/io/image.h"

namespace vorn {

/// Upright pixel size of a JPEG or TIFF file (EXIF orientation applied); (0, 0) when unreadable.
_Size<int> rasterImageSize(const std::string& path);
/// Bits per channel of the samples the decoder delivers (8, 16 or 32); 0 when unreadable.
int rasterColorDepth(const std::string& path);
/// Bits per channel the file declares (12 for 12-bit data kept in 16-bit words); 0 when unreadable.
int rasterPreciseColorDepth(const std::string& path);
/// Decodes a JPEG or TIFF held in memory, told apart by its signature.
ImageResult openRasterFromMemory(const void* data, std::uint64_t length);

}  // namespace vorn
