#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numbers>

#include "effects/color/color_kernels.h"
#include "effects/color/hue_gains.h"
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
  // Per-call factors folded: chroma times 1 + 0.6 w + 0.15 amount, lightness times
  // 1 - 0.3 w bright, w the weight times amount. The window's peak carries 0.6 amount.
  const float richer = 1.0f + 0.15f * amount;
  const float deeper = 0.6f * amount;
  return detail::lmsRootKernel([richer, sky = HueWindow(detail::wheelHue(210.0f), 50.0f, deeper),
                                bright = detail::FusedStep(0.3f, 0.85f)](LmsRoot& roots) {
    const Oklab lab = roots.oklab();
    // 0.6 amount w; the gain is at least 1: no clamp.
    const float deepening = sky.weight(lab.a, lab.b, detail::chroma(lab));
    // New lightness L (1 - 0.3 amount w bright) less gain L, folded into one factor of L.
    roots.scaleAndLift(
        deepening + richer,
        lab.L * std::fma(-deepening, bright.scaledFrom(1.0f, 0.5f, lab.L), 1.0f - richer));
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

/// The full black-and-white mix: every pixel the neutral grey of Oklab lightness
/// L (1 + strength gain), r = g = b exactly, one transfer curve per pixel where a colour takes
/// three. The hues' gains take a pass of their own, where the vector unit reads them by permutes.
std::unique_ptr<detail::RowKernel> greyMixKernel(const detail::HueGains& gains, float perChroma) {
  return detail::finiteRowKernel(
      [gains, perChroma](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
        detail::forPlaneBlocks<true, detail::PlaneResult::GreyInR>(
            [&](float* r, float* g, float* b, std::size_t n, std::size_t) {
              detail::toLmsRoots(detail::kLinearSrgbToLms, r, g, b, n);
              // Lightness, the mix's strength and the hue angle.
              detail::adjustPlanes(
                  [perChroma](float& l, float& m, float& s, std::size_t)
                      __attribute__((always_inline)) {
                        const Oklab lab = LmsRoot{l, m, s}.oklab();
                        l = lab.L;
                        m = std::min(detail::chroma(lab) * perChroma, 1.0f);
                        s = detail::fastAtan2(lab.b, lab.a);
                      },
                  r, g, b, n);
              gains.apply(b, n);
              // A grey's cone responses are all its linear value, so that value is L^3.
              detail::adjustPlanes(
                  [](float& L, float& strength, float& gain, std::size_t)
                      __attribute__((always_inline)) {
                        const float grey = std::fma(L, strength * gain, L);
                        L = grey * grey * grey;
                      },
                  r, g, b, n);
            },
            in, out, count);
      });
}

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
  const detail::HueGains gains(sliders);
  // The full mix, the usual black and white, keeps no colour: the picture is its greys.
  if (amount == 1.0f) return greyMixKernel(gains, perChroma);
  return detail::lmsRootKernel([ keep = 1.0f - amount, amount, perChroma,
                                 gains ](LmsRoot & roots) __attribute__((always_inline)) {
    const Oklab lab = roots.oklab();
    const float strength = std::min(detail::chroma(lab) * perChroma, amount);
    const float change = strength * gains(detail::fastAtan2(lab.b, lab.a));
    roots.reshape(lab.L, keep, std::fma(lab.L, change, lab.L));
  });
}

}  // namespace vorn
