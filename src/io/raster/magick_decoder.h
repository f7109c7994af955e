#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "io/raster/raster_format.h"
#include "io/raster/raster_status.h"
#include "vorn/core/blob.h"
#include "vorn/io/fail_on.h"
#include "vorn/io/image.h"

namespace vorn::detail {

/// What a header ping tells: the stored size and the declared bits per sample.
struct MagickHeader {
  _Size<int> size;
  int depth = 0;
};

/// A frame as stored (orientation not yet applied) and the ICC bytes it carried.
struct MagickDecoded {
  std::shared_ptr<ImageFrame> frame;
  Blob icc;
};

/// Reads only the header, through the named coder.
RasterStatus pingWithMagick(const std::uint8_t* data, std::size_t size, RasterFormat format,
                            const std::string& name, MagickHeader& header);
/// Pings, checks the pixel cap and the memory bound (code 7 at stage "limit") and decodes the
/// first frame into floats in [0, 1]; alpha is dropped and other colour spaces are converted to
/// sRGB. A JPEG's warnings of damaged data fail the decode (code 6) when `failOn` says so.
RasterStatus decodeWithMagick(const std::uint8_t* data, std::size_t size, RasterFormat format,
                              const std::string& name, FailOn failOn, MagickDecoded& decoded);
/// Logs an ImageMagick warning after the prefix "Image Magick warning:".
void logMagickWarning(const std::string& name, const char* text);

}  // namespace vorn::detail
