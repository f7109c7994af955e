#pragma once

#include <cstdint>
#include <string>

#include "vorn/core/geometry.h"
#include "vorn/io/image.h"
#include "vorn/io/image_file_class.h"

namespace vorn {

// Each query reads the header from the classified file's contents: the file is not opened again.
// A file that is not the JPEG or TIFF its name says counts as unreadable.

/// Upright pixel size of a JPEG or TIFF file (EXIF orientation applied); (0, 0) when unreadable.
_Size<int> rasterImageSize(const ImageFileClass& file);
/// Bits per channel of the samples the decoder delivers (8, 16 or 32); 0 when unreadable.
int rasterColorDepth(const ImageFileClass& file);
/// Bits per channel the file declares (12 for 12-bit data kept in 16-bit words); 0 when unreadable.
int rasterPreciseColorDepth(const ImageFileClass& file);
/// Decodes a JPEG or TIFF held in memory, told apart by its signature.
ImageResult openRasterFromMemory(const void* data, std::uint64_t length);

}  // namespace vorn
