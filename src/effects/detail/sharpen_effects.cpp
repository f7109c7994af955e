// Sharpening: unsharp masking and capture deconvolution of the luminance, both limited to edges
// by an edge mask; the high-pass filter; and detail boosted or softened at three scales.
#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "effects/creative/slider.h"
#include "effects/kernels/luma_detail.h"
#include "effects/kernels/mix.h"
#include "effects/kernels/window_blur.h"
#include "vorn/effects/detail_effects.h"

namespace vorn {

namespace {

using detail::fraction;
using detail::Plane;

/// Detail changes below this (about a quarter of an 8-bit step) are taken as noise.
constexpr float kNoiseThreshold = 1.0f / 1024.0f;
/// At full Masking, edges with a luminance step of this are fully sharpened, a fifth of it not at
/// all.
constexpr float kMaskingFullStep = 0.25f;

struct SharpenSettings {
  float amount = 0.0f;
  float sigma = 1.0f;  // reference pixels
  float masking = 0.0f;
  int steps = 1;  // 1: unsharp mask; more: Van Cittert deconvolution steps
};

int sharpenReach(const SharpenSettings& settings, float spatialScale) {
  // One blur per step, and one more pixel for the mask's gradient.
  return settings.steps * detail::gaussianReach(settings.sigma * spatialScale) + 1;
}

/// The step height of the edge through (x, y) of the blurred plane: the gradient times the
/// blur's width, so the same edge measures the same at any radius and render scale.
float edgeStep(const Plane& blurred, int x, int y, float sigma) {
  const int w = blurred.width();
  const int h = blurred.height();
  const float dx = blurred.row(y)[std::min(x + 1, w - 1)] - blurred.row(y)[std::max(x - 1, 0)];
  const float dy = blurred.row(std::min(y + 1, h - 1))[x] - blurred.row(std::max(y - 1, 0))[x];
  const float spread = std::max(sigma, 0.8f) * std::sqrt(2.0f * std::numbers::pi_v<float>);
  return 0.5f * std::sqrt(dx * dx + dy * dy) * spread;
}

// Van Cittert deconvolution of the luminance, f <- f + amount (g - G f) from f = g; its first
// step is the unsharp mask. The correction is cored against noise, masked to edges and added to
// every channel, so colours do not fringe.
void renderSharpened(const detail::StencilWindow& window, const SharpenSettings& settings) {
  const float sigma = settings.sigma * window.spatialScale;
  const Plane luma = detail::windowLuminance(window);
  const Plane blurred = detail::blurredPlane(luma, sigma, window.control);
  Plane sharp(luma.width(), luma.height());
  const auto correct = [&](const Plane& current, const Plane& currentBlurred) {
    detail::parallelChunks(sharp.size(), 1 << 16, [&](std::size_t first, std::size_t end) {
      for (std::size_t i = first; i < end; ++i) {
        const float residual = luma.data()[i] - currentBlurred.data()[i];
        sharp.data()[i] =
            current.data()[i] + settings.amount * detail::cored(residual, kNoiseThreshold);
      }
    });
  };
  correct(luma, blurred);
  for (int step = 1; step < settings.steps; ++step) {
    window.control.checkpoint();
    const Plane again = detail::blurredPlane(sharp, sigma, window.control);
    correct(sharp, again);
  }
  const float fullStep = settings.masking * kMaskingFullStep;
  const int width = window.input.width;
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        const int y = static_cast<int>(index / static_cast<std::size_t>(width));
        const int x0 = static_cast<int>(index % static_cast<std::size_t>(width));
        for (std::size_t i = 0; i < count; ++i) {
          float delta = sharp.data()[index + i] - luma.data()[index + i];
          if (fullStep > 0.0f) {
            const float step = edgeStep(blurred, x0 + static_cast<int>(i), y, sigma);
            delta *= detail::smoothStep(0.2f * fullStep, fullStep, step);
          }
          out[i] = detail::withLumaOffset(in[i], delta);
        }
      });
}

SharpenSettings unsharpSettings(const Effect& effect) {
  SharpenSettings settings;
  settings.amount = effect.mappedValue(0, 0.0f, 1.0f, 2.5f);
  settings.sigma = effect.mappedValue(1, 0.5f, 2.0f, 10.0f);
  settings.masking = fraction(effect, 2);
  return settings;
}

constexpr int kCaptureSteps = 3;

SharpenSettings captureSettings(const Effect& effect) {
  SharpenSettings settings;
  settings.amount = effect.mappedValue(0, 0.0f, 0.6f, 1.5f);
  settings.sigma = effect.mappedValue(1, 0.5f, 1.5f, 10.0f);
  settings.masking = fraction(effect, 2);
  settings.steps = kCaptureSteps;
  return settings;
}

}  // namespace

int SharpenEffect::reach(float spatialScale) const {
  return sharpenReach(unsharpSettings(*this), spatialScale);
}

bool SharpenEffect::isIdentity() const {
  return unsharpSettings(*this).amount == 0.0f;
}

void SharpenEffect::render(const Window& window) const {
  renderSharpened(window, unsharpSettings(*this));
}

int ApplyDetailsDEVELOPEffect::reach(float spatialScale) const {
  return sharpenReach(captureSettings(*this), spatialScale);
}

bool ApplyDetailsDEVELOPEffect::isIdentity() const {
  return captureSettings(*this).amount == 0.0f;
}

void ApplyDetailsDEVELOPEffect::render(const Window& window) const {
  renderSharpened(window, captureSettings(*this));
}

namespace {

float highPassSigma(const Effect& effect) {
  return effect.mappedValue(0, 0.0f, 15.0f, 30.0f);
}

}  // namespace

int HighPassFilterEffect::reach(float spatialScale) const {
  return detail::gaussianReach(highPassSigma(*this) * spatialScale);
}

bool HighPassFilterEffect::isIdentity() const {
  return highPassSigma(*this) == 0.0f;
}

// The classic high-pass layer: each channel minus its Gaussian blur, centred on mid grey.
void HighPassFilterEffect::render(const Window& window) const {
  constexpr float kMidGrey = 0.5f;
  const detail::ImageRGBf blurred =
      detail::blurredWindow(window, highPassSigma(*this) * window.spatialScale);
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        const PixelRGB<float>* b = blurred.data + index;
        for (std::size_t x = 0; x < count; ++x) {
          out[x] = detail::perChannel(detail::spreadable(in[x]), b[x],
                                      [](float v, float low) { return kMidGrey + v - low; });
        }
      });
}

namespace {

/// Band edges of the three scales, Gaussian widths in reference pixels.
constexpr std::array<float, 3> kBandSigmas = {1.5f, 6.0f, 24.0f};

/// The gain of each band: -100 removes it, 100 triples it.
std::array<float, 3> bandGains(const Effect& effect) {
  return {effect.mappedValue(0, -1.0f, 0.0f, 2.0f), effect.mappedValue(1, -1.0f, 0.0f, 2.0f),
          effect.mappedValue(2, -1.0f, 0.0f, 2.0f)};
}

}  // namespace

int DetailsEffect::reach(float spatialScale) const {
  return detail::gaussianReach(kBandSigmas.back() * spatialScale);
}

bool DetailsEffect::isIdentity() const {
  const auto gains = bandGains(*this);
  return std::all_of(gains.begin(), gains.end(), [](float g) { return g == 0.0f; });
}

// A difference-of-Gaussians decomposition of the luminance: band k is the blur at sigma k-1
// minus the blur at sigma k; each band is scaled by its gain and the sum added back.
void DetailsEffect::render(const Window& window) const {
  const auto gains = bandGains(*this);
  const Plane luma = detail::windowLuminance(window);
  std::array<Plane, 3> levels;
  for (std::size_t k = 0; k < levels.size(); ++k)
    levels[k] = detail::blurredPlane(luma, kBandSigmas[k] * window.spatialScale, window.control);
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        const float* l = luma.data() + index;
        const float* small = levels[0].data() + index;
        const float* medium = levels[1].data() + index;
        const float* large = levels[2].data() + index;
        for (std::size_t x = 0; x < count; ++x) {
          const float delta = gains[0] * (l[x] - small[x]) + gains[1] * (small[x] - medium[x]) +
                              gains[2] * (medium[x] - large[x]);
          out[x] = detail::withLumaOffset(in[x], delta);
        }
      });
}

}  // namespace vorn
