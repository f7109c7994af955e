// Local contrast around edge-preserving bases: clarity, two-scale dynamic contrast, and its
// opposite, the smoothing of flat areas. Every change is a luminance offset on all channels.
#include <algorithm>
#include <cmath>

#include "effects/creative/slider.h"
#include "effects/kernels/guided_filter.h"
#include "effects/kernels/luma_detail.h"
#include "effects/kernels/mix.h"
#include "vorn/effects/detail_effects.h"

namespace vorn {

namespace {

using detail::fraction;
using detail::Plane;

/// The self-guided (edge-preserving) base of the window's luminance.
Plane edgePreservingBase(const detail::StencilWindow& window, const Plane& luma,
                         float radiusReference, float eps) {
  Plane base;
  detail::guidedFilter(luma, luma, window.pixels(radiusReference), eps, base, &window.control);
  return base;
}

/// The output rows with delta(luma, index) added to every channel of each pixel.
template <typename Delta>
void addLumaDelta(const detail::StencilWindow& window, const Delta& delta) {
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        for (std::size_t x = 0; x < count; ++x)
          out[x] = detail::withLumaOffset(in[x], delta(index + x));
      });
}

constexpr float kClarityRadius = 48.0f;
constexpr float kClarityEps = 0.004f;

float clarityGain(const Effect& effect) {
  return effect.mappedValue(0, 0.0f, 0.75f, 1.5f);
}

}  // namespace

int ClarityEffect::reach(float spatialScale) const {
  return 2 * detail::pixelsAt(kClarityRadius, spatialScale);
}

bool ClarityEffect::isIdentity() const {
  return clarityGain(*this) == 0.0f;
}

// Local contrast around a guided-filter base: edges stronger than sqrt(eps) stay in the base, so
// they gain no halo; the boost peaks in the midtones and fades to nothing at black and white.
void ClarityEffect::render(const Window& window) const {
  const float gain = clarityGain(*this);
  const Plane luma = detail::windowLuminance(window);
  const Plane base = edgePreservingBase(window, luma, kClarityRadius, kClarityEps);
  addLumaDelta(window, [&](std::size_t i) {
    const float b = base.data()[i];
    const float midtones = std::clamp(4.0f * b * (1.0f - b), 0.0f, 1.0f);
    return gain * midtones * (luma.data()[i] - b);
  });
}

namespace {

constexpr float kFineRadius = 6.0f;
constexpr float kFineEps = 0.0025f;
constexpr float kCoarseRadius = 40.0f;
constexpr float kCoarseEps = 0.005f;
/// The coarse scale's share: broad contrast is pushed less than texture.
constexpr float kCoarseShare = 1.0f;

float dynamicContrastGain(const Effect& effect) {
  return effect.mappedValue(0, 0.0f, 0.75f, 1.5f);
}

/// The boost kept at luminance l: brightening fades out towards white, darkening towards black,
/// and no boost pushes a value past white.
float protectedBoost(float boost, float l) {
  if (boost > 0.0f)
    return std::min(boost * detail::smoothStep(1.0f, 0.5f, l), std::max(1.0f - l, 0.0f));
  return boost * detail::smoothStep(0.0f, 0.3f, l);
}

}  // namespace

int RamixDynamicContrastEffect::reach(float spatialScale) const {
  return 2 * detail::pixelsAt(kCoarseRadius, spatialScale);
}

bool RamixDynamicContrastEffect::isIdentity() const {
  return dynamicContrastGain(*this) == 0.0f;
}

// Two guided-filter bases split the luminance into texture (around the fine base) and broad
// local contrast (fine base around the coarse one); both are amplified, then protected.
void RamixDynamicContrastEffect::render(const Window& window) const {
  const float gain = dynamicContrastGain(*this);
  const Plane luma = detail::windowLuminance(window);
  const Plane fine = edgePreservingBase(window, luma, kFineRadius, kFineEps);
  const Plane coarse = edgePreservingBase(window, luma, kCoarseRadius, kCoarseEps);
  addLumaDelta(window, [&](std::size_t i) {
    const float l = luma.data()[i];
    const float f = fine.data()[i];
    const float boost = gain * ((l - f) + kCoarseShare * (f - coarse.data()[i]));
    return protectedBoost(boost, l);
  });
}

namespace {

float smoothAreaRadius(const Effect& effect) {
  return effect.mappedValue(1, 4.0f, 24.0f, 100.0f);
}

/// Variations below this luminance deviation count as flat: more with more Amount.
float flatDeviation(float amount) {
  return 0.02f + 0.08f * amount;
}

}  // namespace

int SmoothAreaEffect::reach(float spatialScale) const {
  return 2 * detail::pixelsAt(smoothAreaRadius(*this), spatialScale);
}

bool SmoothAreaEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// A self-guided filter smooths what varies less than its eps; a flatness mask from the local
// standard deviation then keeps textured areas (where the filter would still soften) as they are.
void SmoothAreaEffect::render(const Window& window) const {
  const float amount = fraction(*this, 0);
  const float flat = flatDeviation(amount);
  const float radius = smoothAreaRadius(*this);
  const Plane luma = detail::windowLuminance(window);
  const Plane smoothed = edgePreservingBase(window, luma, radius, flat * flat);
  Plane square(luma.width(), luma.height());
  detail::combinePlanes(square, luma, luma, luma, luma,
                        [](float l, float, float, float) { return l * l; });
  Plane mean, meanSquare;
  detail::boxMean(luma, window.pixels(radius), mean);
  detail::boxMean(square, window.pixels(radius), meanSquare);
  window.control.checkpoint();
  addLumaDelta(window, [&](std::size_t i) {
    const float m = mean.data()[i];
    const float deviation = std::sqrt(std::max(meanSquare.data()[i] - m * m, 0.0f));
    const float flatness = 1.0f - detail::smoothStep(flat, 1.5f * flat, deviation);
    return amount * flatness * (smoothed.data()[i] - luma.data()[i]);
  });
}

}  // namespace vorn
