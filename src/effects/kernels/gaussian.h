#pragma once

#include "effects/kernels/plane.h"
#include "effects/render.h"

namespace vorn::detail {

/// Gaussian blur of standard deviation `sigma` pixels, borders mirrored. From sigma 4 up it is
/// three box passes whose cost does not depend on sigma; below 4, the exact sampled kernel (small
/// boxes miss the variance by up to a tenth). output may be input; the control, when given, is
/// polled between passes.
void gaussianBlur(const Plane& input, float sigma, Plane& output,
                  const RenderControl* control = nullptr);

/// The same on the RGB pixels of `rect` of image, written rect-sized into output (which may
/// be image when rect is the whole frame); channels are blurred independently.
void gaussianBlur(const ImageRGBf& image, _Rect<int> rect, float sigma, ImageRGBf& output,
                  const RenderControl* control = nullptr);

/// Below this sigma a blur leaves pixels unchanged to within float rounding.
inline constexpr float kNegligibleSigma = 0.2f;

}  // namespace vorn::detail
