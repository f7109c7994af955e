#pragma once

#include "io/raster/raster_status.h"
#include "vorn/core/geometry.h"

namespace vorn::detail {

/// Code 7 at stage "limit" when the stored size exceeds the pixel cap, checked before any
/// pixel is decoded or allocated.
RasterStatus checkPixelCap(_Size<int> stored);

}  // namespace vorn::detail
