#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numbers>

#include "effects/color/color_kernels.h"
#include "vorn/effects/color_effects.h"

// Effects keyed to a range of hues: smooth Oklab hue weights that fade out towards grey, so
// neighbouring hues blend without bands and neutral areas are left alone.
namespace vorn {

using detail::HueWindow;
using detail::LmsRoot;
using detail::Oklab;

namespace {

/// The Oklab lightness change a hue-keyed effect makes at full weight, by contrast about the
/// middle of the range; k in [-0.5, 0.5] keeps the curve rising and 0 and 1 fixed.
inline float lightnessContrast(float L, float k) {
  const float x = detail::unitClampBits(L);
  return 4.0f * k * x * (1.0f - x) * (x - 0.5f);
}

}  // namespace

// Polarizer: blue sky darkened and deepened in proportion to its hue weight and brightness,
// and every colour a little richer as glare goes.
PointEffect::Kernel PolarizeEffect::prepare(const Setup&) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (amount == 0.0f) return nullptr;
  // Per-call factors folded: 1 + 0.6 w + 0.15 amount and 0.3 w, w the weight times amount.
  const float richer = 1.0f + 0.15f * amount;
  const float deeper = 0.6f * amount;
  const float darker = 0.3f * amount;
  return detail::lmsRootKernel([richer, deeper, darker,
                                sky = HueWindow(detail::wheelHue(210.0f), 50.0f),
                                bright = detail::FusedStep(0.3f, 0.85f)](LmsRoot& roots) {
    const Oklab lab = roots.oklab();
    const float w = sky.weight(lab.a, lab.b, detail::chroma(lab));
    // The gain is at least 1: no clamp.
    roots.reshape(lab.L, std::fma(deeper, w, richer),
                  lab.L * std::fma(-darker * w, bright(lab.L), 1.0f));
  });
}

// Foliage: chroma and a little lightness for yellow-green to green hues.
PointEffect::Kernel FoliageEnhanceEffect::prepare(const Setup&) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (amount == 0.0f) return nullptr;
  const float richer = 0.7f * amount;
  const float lighter = 0.06f * amount;
  return detail::lmsRootKernel(
      [richer, lighter, leaves = HueWindow(detail::wheelHue(95.0f), 45.0f)](LmsRoot& roots) {
        const Oklab lab = roots.oklab();
        const float w = leaves.weight(lab.a, lab.b, detail::chroma(lab));
        roots.reshape(lab.L, std::fma(richer, w, 1.0f), lab.L * std::fma(lighter, w, 1.0f));
      });
}

// Contrast in a colour range: an S-curve on the lightness of the hues inside the window.
PointEffect::Kernel ContrastColorRangeEffect::prepare(const Setup&) const {
  const float k = mappedValue(0, -0.5f, 0.0f, 0.5f);
  if (k == 0.0f) return nullptr;
  const float hue = mappedValue(1, 0.0f, 180.0f, 360.0f);
  const float halfWidth = mappedValue(2, 10.0f, 65.0f, 120.0f);
  return detail::lmsRootKernel(
      [k, range = HueWindow(detail::wheelHue(hue), halfWidth)](LmsRoot& roots) {
        const Oklab lab = roots.oklab();
        // A lightness change moves the three roots alike.
        const float change =
            range.weight(lab.a, lab.b, detail::chroma(lab)) * lightnessContrast(lab.L, k);
        roots.l += change;
        roots.m += change;
        roots.s += change;
      });
}

namespace {

/// Oklab chroma at which a colour's slider acts fully in the black-and-white mix.
constexpr float kFullMixChroma = 0.2f;

/// The black-and-white lightness gain by hue: each of the six wheel colours has its slider,
/// hues between two of them ease from one to the other along a raised cosine. Worked out per
/// pixel from the hue angle, with no table: the vector units have no cheap gather.
class HueGains {
 public:
  explicit HueGains(const std::array<float, 6>& sliders) {
    std::array<float, 6> angles{};
    for (std::size_t k = 0; k < 6; ++k)
      angles[k] = detail::wheelHueAngle(60.0f * static_cast<float>(k));
    // Segments in order of their starting angle, so that the last one passed is the pixel's.
    std::array<std::size_t, 6> order{0, 1, 2, 3, 4, 5};
    std::sort(order.begin(), order.end(),
              [&](std::size_t i, std::size_t j) { return angles[i] < angles[j]; });
    for (std::size_t i = 0; i < 6; ++i) {
      const std::size_t k = order[i];
      const std::size_t next = (k + 1) % 6;
      const float span = std::fmod(angles[next] - angles[k] + 2.0f * kTurn, kTurn);
      start_[i] = angles[k];
      scale_[i] = 1.0f / std::max(span, 1e-3f);
      shift_[i] = -angles[k] * scale_[i] - 0.5f;
      middle_[i] = 0.5f * (sliders[k] + sliders[next]);
      change_[i] = sliders[next] - sliders[k];
    }
    // Below the first start, the last segment, which wraps around through pi.
    wrapShift_ = shift_[5] + kTurn * scale_[5];
  }
  /// The gain at a hue angle in [-pi, pi].
  float operator()(float angle) const {
    float scale = scale_[5];
    float shift = wrapShift_;
    float middle = middle_[5];
    float change = change_[5];
    // Written out, each value read before its select: a loop here, or a read under the select,
    // leaves the pixel loop unvectorised.
    const auto pick = [&](std::size_t i) __attribute__((always_inline)) {
      const float segmentScale = scale_[i];
      const float segmentShift = shift_[i];
      const float segmentMiddle = middle_[i];
      const float segmentChange = change_[i];
      const bool passed = angle >= start_[i];
      scale = passed ? segmentScale : scale;
      shift = passed ? segmentShift : shift;
      middle = passed ? segmentMiddle : middle;
      change = passed ? segmentChange : change;
    };
    pick(0);
    pick(1);
    pick(2);
    pick(3);
    pick(4);
    pick(5);
    // The place in the segment, from -1/2 at its start to 1/2 at its end; the picked segment
    // holds the angle, so no clamp (a NaN angle comes with a NaN chroma, which decides).
    const float x = std::fma(angle, scale, shift);
    // The raised cosine 0.5 - 0.5 cos(pi (x + 1/2)) less its middle, 0.5 sin(pi x), as an odd
    // polynomial (error below 4e-5, a tenth of what the hue angle's error makes).
    const float x2 = x * x;
    const float v = std::fma(
        change,
        std::fma(std::fma(1.1497733917e+00f, x2, -2.5684526057e+00f), x2, 1.5703200169e+00f) * x,
        middle);
    // At most half as light again or 40 % darker: a strong filter, short of clipping.
    return v > 0.0f ? 0.5f * v : 0.4f * v;
  }

 private:
  static constexpr float kTurn = 2.0f * std::numbers::pi_v<float>;
  std::array<float, 6> start_{};
  std::array<float, 6> scale_{};
  std::array<float, 6> shift_{};
  std::array<float, 6> middle_{};
  std::array<float, 6> change_{};
  float wrapShift_ = 0.0f;
};

}  // namespace

// Black and white mix: Oklab lightness scaled by the hue's slider in proportion to chroma, then
// all chroma removed; "Amount" blends from the colour picture to that grey.
PointEffect::Kernel BWChannelsEffect::prepare(const Setup&) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (amount == 0.0f) return nullptr;
  std::array<float, 6> sliders{};
  for (std::size_t k = 0; k < 6; ++k) sliders[k] = mappedValue(k + 1, -1.0f, 0.0f, 1.0f);
  // The grey's lightness L (1 + strength gain) blended in by amount is L (1 + amount strength
  // gain): the amount goes into the strength, which it also bounds.
  const float perChroma = amount / kFullMixChroma;
  const auto greyLightness = [ amount, perChroma, gains = HueGains(sliders) ](const Oklab& lab)
      __attribute__((always_inline)) {
    const float strength = std::min(detail::chroma(lab) * perChroma, amount);
    const float change = strength * gains(detail::fastAtan2(lab.b, lab.a));
    return std::fma(lab.L, change, lab.L);
  };
  // The full mix, the usual black and white, keeps no colour: the picture is its greys.
  if (amount == 1.0f) {
    return detail::greyKernel([greyLightness](const LmsRoot& roots) __attribute__((always_inline)) {
      return greyLightness(roots.oklab());
    });
  }
  return detail::lmsRootKernel([ keep = 1.0f - amount, greyLightness ](LmsRoot & roots)
                                   __attribute__((always_inline)) {
                                     const Oklab lab = roots.oklab();
                                     roots.reshape(lab.L, keep, greyLightness(lab));
                                   });
}

}  // namespace vorn
