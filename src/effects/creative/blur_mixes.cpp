// Blur-and-mix effects: the picture combined with a Gaussian blur of itself (or of a brightened
// copy) through a layer mix, so the blur's cost does not grow with its radius.
#include <cmath>

#include "effects/creative/slider.h"
#include "effects/kernels/mix.h"
#include "effects/kernels/window_blur.h"
#include "vorn/effects/creative_effects.h"

namespace vorn {

namespace {

using detail::fraction;
using detail::signedFraction;

using detail::ImageRGBf;

/// A ±100 brightness slider as a gain of 0.5 ... 1 ... 2.
float brightnessGain(const Effect& effect, std::size_t index) {
  return std::exp2(effect.mappedValue(index, -1.0f, 0.0f, 1.0f));
}

/// Runs mix(in, blurred) over the output rows, blurred being blurredWindow(window, sigma, pre).
template <typename Prepare, typename Mix>
void renderBlurMix(const detail::StencilWindow& window, float sigmaReference, const Prepare& pre,
                   const Mix& mixPixel) {
  const ImageRGBf blurred =
      detail::blurredWindow(window, sigmaReference * window.spatialScale, pre);
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        const PixelRGB<float>* b = blurred.data + index;
        for (std::size_t x = 0; x < count; ++x) out[x] = mixPixel(in[x], b[x]);
      });
}

const auto kSame = [](const PixelRGB<float>& p) { return p; };

float blurSigma(const Effect& effect) {
  return effect.mappedValue(0, 0.0f, 50.0f, 100.0f);
}
float glowSigma(const Effect& effect) {
  return effect.mappedValue(1, 5.0f, 55.0f, 105.0f);
}
float softFocusSigma(const Effect& effect) {
  return effect.mappedValue(1, 3.0f, 33.0f, 63.0f);
}
float ortonSigma(const Effect& effect) {
  return effect.mappedValue(1, 4.0f, 24.0f, 44.0f);
}
constexpr float kFogSigma = 16.0f;
constexpr float kHighKeySigma = 30.0f;

}  // namespace

int BlurEffect::reach(float spatialScale) const {
  return detail::gaussianReach(blurSigma(*this) * spatialScale);
}

bool BlurEffect::isIdentity() const {
  return blurSigma(*this) * spatialScale() < detail::kNegligibleSigma;
}

// Gaussian blur as three box passes (cost independent of the radius).
void BlurEffect::render(const Window& window) const {
  renderBlurMix(window, blurSigma(*this), kSame,
                [](const PixelRGB<float>&, const PixelRGB<float>& b) { return b; });
}

int GlowEffect::reach(float spatialScale) const {
  return detail::gaussianReach(glowSigma(*this) * spatialScale);
}

bool GlowEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// Glow: the picture screened with its Gaussian blur scaled by the brightness gain.
void GlowEffect::render(const Window& window) const {
  const float amount = fraction(*this, 0);
  const float gain = brightnessGain(*this, 2);
  renderBlurMix(window, glowSigma(*this), kSame,
                [amount, gain](const PixelRGB<float>& in, const PixelRGB<float>& b) {
                  const PixelRGB<float> glow = detail::perChannel(
                      in, b, [gain](float a, float g) { return detail::screen(a, g * gain); });
                  return detail::mix(in, glow, amount);
                });
}

int SoftFocusFilterEffect::reach(float spatialScale) const {
  return detail::gaussianReach(softFocusSigma(*this) * spatialScale);
}

bool SoftFocusFilterEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// Diffusion: lighten of the picture and its Gaussian blur, so only brighter light spreads.
void SoftFocusFilterEffect::render(const Window& window) const {
  const float amount = fraction(*this, 0);
  renderBlurMix(window, softFocusSigma(*this), kSame,
                [amount](const PixelRGB<float>& in, const PixelRGB<float>& b) {
                  const PixelRGB<float> light =
                      detail::perChannel(in, b, [](float a, float c) { return a > c ? a : c; });
                  return detail::mix(in, light, amount);
                });
}

int OrtonFilterEffect::reach(float spatialScale) const {
  return detail::gaussianReach(ortonSigma(*this) * spatialScale);
}

bool OrtonFilterEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// Orton: the picture screened with itself (overexposed), times the Gaussian blur of the same.
void OrtonFilterEffect::render(const Window& window) const {
  const float amount = fraction(*this, 0);
  const float gain = brightnessGain(*this, 2);
  const auto overexposed = [gain](const PixelRGB<float>& p) {
    return detail::scaled(
        detail::perChannel(p, p, [](float a, float b) { return detail::screen(a, b); }), gain);
  };
  renderBlurMix(window, ortonSigma(*this), overexposed,
                [&](const PixelRGB<float>& in, const PixelRGB<float>& b) {
                  const PixelRGB<float> sharp = overexposed(detail::spreadable(in));
                  const PixelRGB<float> sandwich =
                      detail::perChannel(sharp, b, [](float s, float c) { return s * c; });
                  return detail::mix(in, sandwich, amount);
                });
}

int FogFilterEffect::reach(float spatialScale) const {
  return detail::gaussianReach(kFogSigma * spatialScale);
}

bool FogFilterEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// Fog: the softened picture veiled by a light grey haze (blacks lifted, contrast lowered).
void FogFilterEffect::render(const Window& window) const {
  const float amount = 0.85f * fraction(*this, 0);
  const float veilOpacity = detail::mix(0.3f, 0.9f, fraction(*this, 1));
  constexpr float kVeil = 0.88f;
  renderBlurMix(window, kFogSigma, kSame,
                [amount, veilOpacity](const PixelRGB<float>& in, const PixelRGB<float>& b) {
                  const PixelRGB<float> fog = detail::mix(b, PixelRGB<float>(kVeil), veilOpacity);
                  return detail::mix(in, fog, amount);
                });
}

int HighKeyEffect::reach(float spatialScale) const {
  return detail::gaussianReach(kHighKeySigma * spatialScale);
}

bool HighKeyEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// High key: the picture screened with itself (a stop brighter, highlights compressed), its
// contrast lowered towards light grey, saturation reduced, then a soft glow screened over it.
void HighKeyEffect::render(const Window& window) const {
  const float amount = fraction(*this, 0);
  constexpr float kFlatten = 0.2f;
  constexpr float kKeyGrey = 0.8f;
  constexpr float kSaturation = 0.75f;
  constexpr float kGlow = 0.35f;
  renderBlurMix(
      window, kHighKeySigma, kSame, [amount](const PixelRGB<float>& in, const PixelRGB<float>& b) {
        const PixelRGB<float> p = detail::spreadable(in);
        PixelRGB<float> key =
            detail::perChannel(p, p, [](float a, float c) { return detail::screen(a, c); });
        key = detail::saturated(detail::mix(key, PixelRGB<float>(kKeyGrey), kFlatten), kSaturation);
        key = detail::perChannel(key, b,
                                 [](float k, float g) { return detail::screen(k, kGlow * g); });
        return detail::mix(in, key, amount);
      });
}

}  // namespace vorn
