#include "effects/tone/tone_render.h"
#include "effects/tone/tone_shapes.h"
#include "vorn/effects/tone_effects.h"

namespace vorn {

bool ExposureEffect::processImage(EffectCallContext& call) {
  if (!detail::prepareDestination(call)) return false;
  const float k = factor();
  const detail::ToneTables& tables = detail::toneTables();
  const auto lookup = detail::makeToneCurve(
      [k, &tables](float x) { return detail::exposureCurve(x, k, tables); }, 0.85f);
  detail::applyChannelCurve(*lookup, *call.source, *call.destination);
  return true;
}

bool ExposureEffectHDR::processImage(EffectCallContext& call) {
  const float ev = stops();
  return detail::renderChannelCurve(call, ev == 0.0f,
                                    [ev](float x) { return detail::stopsExposureCurve(x, ev); });
}

}  // namespace vorn
