#pragma once

#include "io/input_limits.h"

namespace vorn::detail {

/// Sets ImageMagick up once per process (thread-safe) and keeps its resource limits in step
/// with maxImagePixels(); call before any Magick++ use. Cheap after the first call.
void ensureMagickEnvironment();

}  // namespace vorn::detail
