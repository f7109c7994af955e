#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vorn::detail {

/// The raster formats this reader decodes.
enum class RasterFormat { Unknown, Jpeg, Tiff };

/// By extension: jpg/jpeg or tif/tiff, any case.
RasterFormat rasterFormatFromExtension(const std::string& path);
/// By the file's own first bytes: FF D8 FF for JPEG, "II*\0" or "MM\0*" for TIFF.
RasterFormat rasterFormatFromSignature(const std::uint8_t* data, std::size_t size);
/// The coder name ImageMagick is told explicitly ("JPEG", "TIFF"; "" for Unknown).
const char* rasterFormatName(RasterFormat format);

}  // namespace vorn::detail
