#include <algorithm>
#include <cmath>
#include <numbers>

#include "effects/color/color_kernels.h"
#include "effects/kernels/luminance.h"
#include "vorn/effects/color_effects.h"

// Effects that change how colourful a picture is, without regard to which colours: chroma in
// Oklab for the editor's sliders, chroma around luminance in linear light for the mixer's.
namespace vorn {

using detail::LmsRoot;
using detail::Oklab;

namespace {

/// Oklab chroma of the most colourful sRGB colours; vibrance leaves colours this strong alone.
constexpr float kStrongChroma = 0.25f;

/// How much vibrance may act on a colour of chroma c: fully on grey-ish colours, not at all on
/// strong ones, and less on skin so faces do not turn orange.
struct VibranceWeight {
  /// Skin keeps 0.3 of the weight: the window's peak is the share taken away.
  detail::HueWindow skin{detail::wheelHue(25.0f), 35.0f, 0.7f};
  float operator()(float a, float b, float c) const {
    // At most 1: only the low side is cut.
    const float room = detail::unitClampBits(std::fma(c, -1.0f / kStrongChroma, 1.0f));
    const float roomSquared = room * room;
    return std::fma(-roomSquared, skin.weight(a, b, c), roomSquared);
  }
};

}  // namespace

// Saturation: Oklab chroma times 1 + s, so lightness and hue stay as they are; a fixed linear
// map of Oklab, so it is one matrix on the cone roots.
PointEffect::Kernel SaturationEffect::prepare(const Setup&) const {
  const float k = 1.0f + mappedValue(0, -1.0f, 0.0f, 1.0f);
  if (k == 1.0f) return nullptr;
  const float gain = std::max(k, 0.0f);
  return detail::oklabMatrixKernel(detail::Matrix3::diagonal(1.0f, gain, gain));
}

// Vibrance: Oklab chroma gain falling to 1 with the colour's own chroma and on skin hues.
PointEffect::Kernel VibranceEffect::prepare(const Setup&) const {
  const float v = mappedValue(0, -1.0f, 0.0f, 1.0f);
  if (v == 0.0f) return nullptr;
  return detail::lmsRootKernel([v, weight = VibranceWeight{}](LmsRoot& roots) {
    const Oklab lab = roots.oklab();
    // The weight lies in [0, 1] and v in [-1, 1]: the gain needs no clamp at 0.
    const float gain = std::fma(v, weight(lab.a, lab.b, detail::chroma(lab)), 1.0f);
    roots.reshape(lab.L, gain, lab.L);
  });
}

namespace {

/// Linear light pulled from (k < 1) or pushed away from (k > 1) its luminance, which stays.
inline void saturateAroundLuminance(float& r, float& g, float& b, float k) {
  const float y = detail::luminance(r, g, b);
  r = std::max(y + (r - y) * k, 0.0f);
  g = std::max(y + (g - y) * k, 0.0f);
  b = std::max(y + (b - y) * k, 0.0f);
}

}  // namespace

// Mixer saturation: linear-light channels scaled around their luminance, which is kept exactly
// and may lie above 1; cheaper than Oklab and neutral for scene-referred data.
PointEffect::Kernel RamixSaturationEffect::prepare(const Setup&) const {
  const float k = 1.0f + mappedValue(0, -1.0f, 0.0f, 1.0f);
  if (k == 1.0f) return nullptr;
  return detail::linearKernel(
      [k](float& r, float& g, float& b) { saturateAroundLuminance(r, g, b, k); });
}

// Mixer vibrance: the same, with the gain falling with the channel spread (max - min) / max.
PointEffect::Kernel RamixVibranceEffect::prepare(const Setup&) const {
  const float v = mappedValue(0, -1.0f, 0.0f, 1.0f);
  if (v == 0.0f) return nullptr;
  return detail::linearKernel([v](float& r, float& g, float& b) {
    const float high = std::max({r, g, b});
    const float low = std::min({r, g, b});
    // 1 - spread, clamped to [0, 1], is min / max, never above 1 and 0 where it is negative.
    float rest = high > 1e-6f ? low / high : 1.0f;
    rest = rest > 0.0f ? rest : 0.0f;
    saturateAroundLuminance(r, g, b, 1.0f + v * rest * rest);
  });
}

// Hue shift: rotation of the Oklab a-b plane, lightness and chroma kept; one matrix on the cone
// roots like saturation.
PointEffect::Kernel HueShiftEffect::prepare(const Setup&) const {
  const float degrees = mappedValue(0, -180.0f, 0.0f, 180.0f);
  if (degrees == 0.0f) return nullptr;
  const detail::HueDirection turn = detail::HueDirection::ofAngle(degrees);
  return detail::oklabMatrixKernel(
      {{1.0f, 0.0f, 0.0f, 0.0f, turn.cosine, -turn.sine, 0.0f, turn.sine, turn.cosine}});
}

// Colour contrast: each opponent axis (a, b) through a rational curve with slope 1 + k at grey
// that meets the identity at the gamut's edge, so muted colours separate and strong ones hold.
PointEffect::Kernel ColorContrastEffect::prepare(const Setup&) const {
  const float k = mappedValue(0, -0.8f, 0.0f, 1.5f);
  if (k == 0.0f) return nullptr;
  constexpr float kEdge = 0.3f;
  // x (1 + k) / (1 + k |x| / edge), with 1 + k (at least 0.2) divided into the denominator.
  const float gain = 1.0f + k;
  const float bend = k / kEdge / gain;
  const float base = 1.0f / gain;
  return detail::lmsRootKernel([bend, base](LmsRoot& roots) {
    Oklab lab = roots.oklab();
    lab.a = lab.a / std::fma(bend, std::fabs(lab.a), base);
    lab.b = lab.b / std::fma(bend, std::fabs(lab.b), base);
    roots = LmsRoot::of(lab);
  });
}

// Brilliance and warmth: vibrance with a midtone lightness lift, after a Bradford adaptation of
// up to 40 mired for warmth.
PointEffect::Kernel BrillianceWarmthEffect::prepare(const Setup&) const {
  const float brilliance = mappedValue(0, -1.0f, 0.0f, 1.0f);
  const float warmth = mappedValue(1, -1.0f, 0.0f, 1.0f);
  if (brilliance == 0.0f && warmth == 0.0f) return nullptr;
  const detail::Matrix3 warm =
      warmth == 0.0f ? detail::Matrix3{}
                     : detail::adaptationToD65(detail::shiftedWhite(-40.0f * warmth, 0.0f));
  const float vibrance = 0.6f * brilliance;
  const float lift = 0.25f * brilliance;
  return detail::lmsRootKernel(warm, [vibrance, lift, weight = VibranceWeight{}](LmsRoot& roots) {
    const Oklab lab = roots.oklab();
    // At least 0.4, as in vibrance: no clamp.
    const float k = std::fma(vibrance, weight(lab.a, lab.b, detail::chroma(lab)), 1.0f);
    const float L = detail::unitClampBits(lab.L);
    roots.reshape(lab.L, k, std::fma(lift * L, 1.0f - L, lab.L));
  });
}

}  // namespace vorn
