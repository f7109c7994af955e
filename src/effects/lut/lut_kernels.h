#pragma once

#include <cstddef>

#include "effects/lut/cube_file.h"
#include "vorn/core/pixel.h"

namespace vorn::detail {

/// The instruction sets the 3D table's sampling is written for.
enum class LutIsa { Scalar, Avx2, Avx512 };

/// The tetrahedral sampling of a 3D table over count pixels, mixed with them by amount, with the
/// given kernel (the scalar loop takes the pixels it leaves); `padded` picks the table layout of
/// small tables over the packed one of large tables. False when the table is not 3D, the running
/// CPU lacks the kernel's instructions or the kernel needs the padded layout.
bool sampleLatticeWith(LutIsa isa, const CubeLut& lut, bool padded, const PixelRGB<float>* in,
                       PixelRGB<float>* out, std::size_t count, float amount);

}  // namespace vorn::detail
