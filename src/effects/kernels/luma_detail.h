#pragma once

#include <algorithm>
#include <cmath>

#include "effects/kernels/gaussian.h"
#include "effects/kernels/luminance.h"
#include "effects/kernels/plane.h"
#include "effects/render.h"

// Luminance detail of a neighbourhood effect's window: the plane detail is measured on, its
// blurs, and the way a luminance change goes back onto the colour pixels.
namespace vorn::detail {

/// Luminance is limited to this before filtering, so one extreme pixel stays a local fault.
inline constexpr float kDetailLumaCeiling = 256.0f;

/// Finite luminance (NaN as 0, limited to [0, kDetailLumaCeiling]) of every window pixel.
inline Plane windowLuminance(const StencilWindow& window) {
  return planeOf(window.source, window.input, [](const PixelRGB<float>& p) {
    const float luma = luminance(p);
    return luma > 0.0f ? (luma < kDetailLumaCeiling ? luma : kDetailLumaCeiling) : 0.0f;
  });
}

/// A new plane: input blurred by a Gaussian of sigma pixels (a copy when sigma is negligible).
inline Plane blurredPlane(const Plane& input, float sigma, const RenderControl& control) {
  Plane output(input.width(), input.height());
  if (sigma >= kNegligibleSigma) {
    gaussianBlur(input, sigma, output, &control);
  } else {
    std::copy_n(input.data(), input.size(), output.data());
  }
  control.checkpoint();
  return output;
}

/// The pixel with delta added to every channel: a luminance change that keeps colour
/// differences (no coloured fringes); darkening stops where the lowest channel reaches black.
inline PixelRGB<float> withLumaOffset(const PixelRGB<float>& p, float delta) {
  const float lowest = std::min({p.r, p.g, p.b});
  const float limited = std::max(delta, -std::max(lowest, 0.0f));
  return PixelRGB<float>(p.r + limited, p.g + limited, p.b + limited);
}

/// Soft coring: detail well below `threshold` (noise) fades out, detail above it passes.
inline float cored(float detail, float threshold) {
  const float square = detail * detail;
  return detail * square / (square + threshold * threshold + 1e-30f);
}

}  // namespace vorn::detail
