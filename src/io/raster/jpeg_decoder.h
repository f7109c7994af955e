#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "io/pooled_bytes.h"
#include "io/raster/raster_status.h"
#include "vorn/core/geometry.h"

namespace vorn::detail {

/// What the JPEG decoder reads from the frame header.
struct JpegHeader {
  _Size<int> size;    ///< as stored, before orientation
  bool cmyk = false;  ///< CMYK or YCCK: the fast path cannot make RGB of it
};

/// Packed 8-bit RGB rows from the pixel pool.
struct Rgb8Image {
  std::unique_ptr<PooledBytes> pixels;
  _Size<int> size;
  std::size_t rowBytes = 0;
};

/// Reads the frame header; code 6 at stage "header" when the decoder cannot.
RasterStatus readJpegHeader(const std::uint8_t* data, std::size_t size, JpegHeader& header);
/// 1, 2, 4 or 8: the coarsest DCT scale at which `stored` still covers `cover` (a side of 0 or
/// less is free; (0, 0) gives 1).
int jpegScaleDenominator(_Size<int> stored, _Size<int> cover);
/// 1, 2, 4 or 8: the finest DCT scale at which `stored` fits inside `box` (8 when none does;
/// a free box gives 1).
int jpegFitDenominator(_Size<int> stored, _Size<int> box);
/// The size a decode at 1/denominator gives.
_Size<int> jpegScaledSize(_Size<int> stored, int denominator);
/// Decodes at 1/denominator into pooled RGB rows; a truncated stream is code 6 at stage
/// "decode", other decoder warnings are logged and the pixels kept.
RasterStatus decodeJpegRgb8(const std::uint8_t* data, std::size_t size, int denominator,
                            const std::string& name, Rgb8Image& image);

}  // namespace vorn::detail
