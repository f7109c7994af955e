#include <algorithm>

#include "effects/color/color_kernels.h"
#include "effects/kernels/mix.h"
#include "vorn/effects/color_effects.h"

// Develop steps on the frame's linear light: black point and highlight recovery.
namespace vorn {

namespace {

/// Black Level at +-100 moves the black point by 2 % of linear white, about the spread of a
/// sensor's black level between cameras.
constexpr float kBlackPerStep = 0.0002f;
/// Highlight recovery starts where the brightest channel reaches this share of clipping.
constexpr float kRecoveryKnee = 0.8f;
constexpr float kClip = 1.0f;

}  // namespace

// Raw develop: linear black point shift, then desaturate-to-white of clipped highlights (channel
// ratios near the clip point are no longer the scene's, so they are blended into the brightest
// channel with a smooth step on it). Profile Strength needs a camera profile; with none given
// there is nothing to blend, so it changes nothing.
PointEffect::Kernel RawDevelopEffect::prepare(const Setup&) const {
  const float recovery = mappedValue(0, 0.0f, 0.5f, 1.0f);
  const float black = kBlackPerStep * mappedValue(1, -100.0f, 0.0f, 100.0f);
  if (recovery == 0.0f && black == 0.0f) return nullptr;
  const float gain = 1.0f / (1.0f - black);
  return detail::linearKernel([recovery, black, gain](float& r, float& g, float& b) {
    // Light below the new black point is black, not negative light.
    r = std::max((r - black) * gain, 0.0f);
    g = std::max((g - black) * gain, 0.0f);
    b = std::max((b - black) * gain, 0.0f);
    const float high = std::max(r, std::max(g, b));
    const float w = recovery * detail::smoothStep(kRecoveryKnee, kClip, high);
    r += (high - r) * w;
    g += (high - g) * w;
    b += (high - b) * w;
  });
}

}  // namespace vorn
