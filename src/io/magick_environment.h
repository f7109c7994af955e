#pragma once

#include <string>

#include "io/input_limits.h"
#include "vorn/core/geometry.h"

namespace vorn::detail {

/// Sets ImageMagick up once per process (thread-safe) and keeps its resource limits in step
/// with maxImagePixels(); call before any Magick++ use. Cheap after the first call.
void ensureMagickEnvironment();

/// Empty when ImageMagick may hold an image of `size`, else a reason naming its limit: past its
/// width, height or area limits it aborts on an assertion instead of reporting an error.
std::string magickSizeRefusal(_Size<int> size);

}  // namespace vorn::detail
