// Edge-preserving blur and the dodge and burn tone moves.
#include <algorithm>
#include <cmath>

#include "effects/creative/slider.h"
#include "effects/kernels/guided_filter.h"
#include "effects/kernels/mix.h"
#include "effects/kernels/window_blur.h"
#include "effects/tone/tone_kernels.h"
#include "vorn/effects/creative_effects.h"

namespace vorn {

namespace {

using detail::fraction;
using detail::signedFraction;

using detail::Plane;

/// Guided-filter radius in reference pixels from Smooth 0 ... 200.
float smartBlurRadius(const Effect& effect) {
  return effect.mappedValue(1, 4.0f, 16.0f, 28.0f);
}

/// Only variations well below sqrt(eps) are smoothed: Amount raises it, Boost lowers it.
float smartBlurEps(const Effect& effect) {
  const float spread = 0.2f * fraction(effect, 0) * (1.0f - 0.6f * fraction(effect, 2));
  return spread * spread;
}

}  // namespace

int SmartBlurEffect::reach(float spatialScale) const {
  return 2 * detail::pixelsAt(smartBlurRadius(*this), spatialScale);
}

bool SmartBlurEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// He, Sun and Tang's self-guided filter on the luminance: flat areas are averaged over the
// radius, edges stronger than sqrt(eps) keep their step; the smoothing is added to every channel
// as an offset, so colours keep their hue.
void SmartBlurEffect::render(const Window& window) const {
  const int radius = window.pixels(smartBlurRadius(*this));
  const float eps = smartBlurEps(*this);
  static constexpr float kCeiling = 256.0f;
  const Plane luma = detail::planeOf(window.source, window.input, [](const PixelRGB<float>& p) {
    return std::clamp(detail::luminance(detail::spreadable(p)), -kCeiling, kCeiling);
  });
  Plane smoothed;
  detail::guidedFilter(luma, luma, radius, eps, smoothed, &window.control);
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        const float* l = luma.data() + index;
        const float* q = smoothed.data() + index;
        for (std::size_t x = 0; x < count; ++x) {
          const float shift = q[x] - l[x];
          out[x] = PixelRGB<float>(in[x].r + shift, in[x].g + shift, in[x].b + shift);
        }
      });
}

// Dodge and burn as a tabulated luminance gain: dodging lifts by up to a stop with a weight that
// peaks in the midtones, burning lowers by up to a stop with one that peaks in the lower midtones.
PointEffect::Kernel DodgeBurnEffect::prepare(const Setup&) const {
  const float dodge = fraction(*this, 0);
  const float burn = fraction(*this, 1);
  if (dodge == 0.0f && burn == 0.0f) return nullptr;
  return detail::lumaCurveKernel(
      [dodge, burn](float x) {
        const float l = detail::unitClamp(x);
        const float lift = dodge * 4.0f * l * (1.0f - l);
        const float deepen = burn * l * (1.0f - l) * (1.0f - l) * 6.75f;
        return x * std::exp2(lift - deepen);
      },
      detail::GainDomain::Display);
}

}  // namespace vorn
