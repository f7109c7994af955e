#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "vorn/io/image_file_class.h"

namespace vorn::detail {

/// The raster formats this reader decodes are the Jpeg and Tiff of ImageFileFormat.
using RasterFormat = ImageFileFormat;

/// By extension: Jpeg for jpg/jpeg, Tiff for tif/tiff (any case), else Unknown.
RasterFormat rasterFormatFromExtension(const std::string& path);
/// By the file's own first bytes: FF D8 FF for JPEG, "II*\0" or "MM\0*" for TIFF.
RasterFormat rasterFormatFromSignature(const std::uint8_t* data, std::size_t size);
/// The coder name ImageMagick is told explicitly ("JPEG", "TIFF"; "" for the others).
const char* rasterFormatName(RasterFormat format);

}  // namespace vorn::detail
