#include "effects/tone/tone_kernels.h"
#include "effects/tone/tone_shapes.h"
#include "vorn/effects/tone_effects.h"

namespace vorn {

// Every pixel goes through the tables even at 0: the curve is the effect's definition.
PointEffect::Kernel ExposureEffect::prepare(const Setup&) const {
  const float k = factor();
  const detail::ToneTables& tables = detail::toneTables();
  return detail::channelCurveKernel(
      [k, &tables](float x) { return detail::exposureCurve(x, k, tables); }, 0.85f);
}

PointEffect::Kernel ExposureEffectHDR::prepare(const Setup&) const {
  const float ev = stops();
  if (ev == 0.0f) return nullptr;
  return detail::channelCurveKernel([ev](float x) { return detail::stopsExposureCurve(x, ev); });
}

}  // namespace vorn
