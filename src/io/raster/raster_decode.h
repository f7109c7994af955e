#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "io/raster/raster_format.h"
#include "io/raster/raster_status.h"
#include "vorn/io/fail_on.h"
#include "vorn/io/image.h"

namespace vorn::detail {

/// One encoded JPEG or TIFF in memory and what the caller knows of it.
struct RasterDecodeRequest {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
  std::string name;  ///< the path, or a label, for messages
  /// The format the extension promised; Unknown accepts whatever the signature says.
  RasterFormat expected = RasterFormat::Unknown;
  /// Upright size the caller will shrink to; a JPEG then decodes at the coarsest DCT scale that
  /// still covers it (a side of 0 is free).
  _Size<int> cover{0, 0};
  /// Upright box the result should fit as it is; a JPEG then decodes at the finest DCT scale
  /// that fits inside it (or 1/8 when none does). Ignored when cover is set.
  _Size<int> fitWithin{0, 0};
  /// 1..8 turns the pixels so and skips reading metadata (an embedded preview takes its file's
  /// orientation); 0 takes the orientation from the data's own EXIF.
  int orientation = 0;
  /// Which damage in the data fails the decode; the library's setting unless the caller says.
  FailOn failOn = failOnSetting();
  /// Asked once the pixels are decoded, before they are given their profile (and, but for a
  /// JPEG, turned upright); true ends the decode with code 5 at stage "orientation".
  std::function<bool()> stop;
};

/// An upright frame with its profile, and the file's metadata (orientation as stored).
struct DecodedRaster {
  std::shared_ptr<ImageFrame> frame;
  std::shared_ptr<ImageMetadata> metadata;
};

/// Checks the signature against the promise, the header against the pixel cap, then decodes.
/// Codes: 4 not a JPEG/TIFF or not the promised one, 5 stopped, 6 corrupt or damaged data the
/// request's policy refuses, 7 over the pixel cap or the memory bound.
RasterStatus decodeRaster(const RasterDecodeRequest& request, DecodedRaster& decoded);

}  // namespace vorn::detail
