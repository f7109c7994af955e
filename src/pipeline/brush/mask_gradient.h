#pragma once

#include "vorn/core/geometry.h"
#include "vorn/core/mask_image.h"

namespace vorn::detail {

/// How a gradient meets the mask.
struct GradientBlend {
  /// 1 - g instead of g.
  bool invert = false;
  /// The larger of mask and gradient (true) or the gradient alone (false).
  bool add = false;
};

/// Ramp from 0 to 1 across `width` (shorter-side units) about the line through `centre`
/// (normalised) at `angle` radians; rising along (cos angle, sin angle).
void linearGradient(MaskImage& mask, _Size<int> canvas, float angle, _Point<float> centre,
                    float width, GradientBlend blend);
/// 1 inside the ellipse of radii (shorter-side units) turned by `angle`, falling to 0 over the
/// outer `feather` share of the radii.
void radialGradient(MaskImage& mask, _Size<int> canvas, _Point<float> centre, float radiusX,
                    float radiusY, float angle, float feather, GradientBlend blend);

}  // namespace vorn::detail
