#pragma once

#include <cmath>

#include "effects/kernels/gaussian.h"
#include "effects/render.h"

// Blurs of a neighbourhood effect's input window, shared by the blur-and-mix effects.
namespace vorn::detail {

/// Values beyond this are clipped before spreading: one hostile pixel must stay a local fault.
inline constexpr float kSpreadLimit = 65504.0f;

/// v limited to [-kSpreadLimit, kSpreadLimit], NaN as 0.
inline float spreadable(float v) {
  // Selects rather than fmin/fmax, which are library calls on the baseline instruction set.
  return v != v ? 0.0f
                : (v < -kSpreadLimit ? -kSpreadLimit : (v > kSpreadLimit ? kSpreadLimit : v));
}
inline PixelRGB<float> spreadable(const PixelRGB<float>& p) {
  return PixelRGB<float>(spreadable(p.r), spreadable(p.g), spreadable(p.b));
}

/// How far a Gaussian of sigma pixels reaches (the support of its three box passes).
inline int gaussianReach(float sigma) {
  return static_cast<int>(std::ceil(3.0f * sigma)) + 3;
}

/// A window-sized image of prepare(p) for every input pixel p of the window (made spreadable
/// first), Gaussian-blurred with sigma pixels. Rows are contiguous, so the index forOutputRows
/// hands out addresses it directly.
template <typename Prepare>
ImageRGBf blurredWindow(const StencilWindow& window, float sigma, const Prepare& prepare) {
  ImageRGBf blurred(_Size<int>(window.input.width, window.input.height));
  parallelRowsCancellable(window.input.height, window.control, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const PixelRGB<float>* in = window.source.row(window.input.y + y) + window.input.x;
      PixelRGB<float>* out = blurred.row(y);
      for (int x = 0; x < window.input.width; ++x) out[x] = prepare(spreadable(in[x]));
    }
  });
  if (sigma >= kNegligibleSigma)
    gaussianBlur(blurred, blurred.rect(), sigma, blurred, &window.control);
  window.control.checkpoint();
  return blurred;
}

/// blurredWindow of the plain input.
inline ImageRGBf blurredWindow(const StencilWindow& window, float sigma) {
  return blurredWindow(window, sigma, [](const PixelRGB<float>& p) { return p; });
}

}  // namespace vorn::detail
