#pragma once

#include <memory>

#include "effects/kernels/tone_curve.h"
#include "effects/render.h"

// The shapes every per-value tone effect takes once its curve is known: the curve tabulated once
// per call and run over the rows by the shared lookup kernels.
namespace vorn::detail {

/// Every channel of every pixel through the curve (continued as a line above `threshold`).
template <typename Curve>
std::unique_ptr<RowKernel> channelCurveKernel(const Curve& curve, float threshold = 1.0f) {
  std::shared_ptr<const ToneCurveLookup> lookup = makeToneCurve(curve, threshold);
  return finiteRowKernel(
      [lookup](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
        applyToneCurve(*lookup, &in->r, &out->r, 3 * count);
      });
}

/// The curve applied to each pixel's luminance, as a gain on all three channels.
template <typename Curve>
std::unique_ptr<RowKernel> lumaCurveKernel(const Curve& curve, GainDomain domain) {
  std::shared_ptr<const ToneCurveLookup> lookup = makeToneCurve(curve, 1.0f);
  return finiteRowKernel(
      [lookup, domain](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
        applyKeyedGain(*lookup, domain, in, nullptr, out, count);
      });
}

}  // namespace vorn::detail
