#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "io/raster/raster_status.h"
#include "vorn/core/geometry.h"
#include "vorn/io/fail_on.h"
#include "vorn/io/image.h"

namespace vorn::detail {

/// What the JPEG decoder reads from the frame header.
struct JpegHeader {
  _Size<int> size;    ///< as stored, before orientation
  bool cmyk = false;  ///< CMYK or YCCK: the fast path cannot make RGB of it
};

/// How decodeJpegFrame decodes.
struct JpegFrameRequest {
  int denominator = 1;  ///< 1, 2, 4 or 8: the DCT scale
  int orientation = 1;  ///< EXIF orientation the stored pixels are turned upright with
  FailOn failOn = FailOn::Error;
};

/// Reads the frame header; code 6 at stage "header" when the decoder cannot, or when it warns of
/// damage that the policy fails.
RasterStatus readJpegHeader(const std::uint8_t* data, std::size_t size, JpegHeader& header,
                            FailOn failOn = failOnSetting());
/// 1, 2, 4 or 8: the coarsest DCT scale at which `stored` still covers `cover` (a side of 0 or
/// less is free; (0, 0) gives 1).
int jpegScaleDenominator(_Size<int> stored, _Size<int> cover);
/// 1, 2, 4 or 8: the finest DCT scale at which `stored` fits inside `box` (8 when none does;
/// a free box gives 1).
int jpegFitDenominator(_Size<int> stored, _Size<int> box);
/// The size a decode at 1/denominator gives.
_Size<int> jpegScaledSize(_Size<int> stored, int denominator);
/// Decodes at 1/denominator straight into a new upright float frame, a band of rows at a time,
/// so that no 8-bit copy of the image is ever held; the pixel cap and the memory bound are
/// checked before the frame is made (code 7 at stage "limit"). A decoder warning ends the decode
/// with code 6 at stage "decode" when the policy fails its kind of damage; otherwise the first
/// one is logged and the pixels kept.
RasterStatus decodeJpegFrame(const std::uint8_t* data, std::size_t size,
                             const JpegFrameRequest& request, const std::string& name,
                             std::shared_ptr<ImageFrame>& frame);

}  // namespace vorn::detail
