// Wavelet denoising in an opponent luma/chroma space on the shared a trous decomposition.
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>

#include "effects/kernels/atrous.h"
#include "effects/kernels/luminance.h"
#include "effects/kernels/window_blur.h"
#include "vorn/effects/detail_effects.h"

namespace vorn {

namespace {

using detail::kMaxAtrousLevels;
using detail::Plane;
using Levels = std::array<float, kMaxAtrousLevels>;

/// How a band coefficient d is shrunk towards 0 for threshold t.
enum class Shrink {
  /// Donoho's soft threshold: sign(d) max(|d| - t, 0).
  Soft,
  /// Breiman's non-negative garrote, d - t^2 / d: strong detail keeps almost all of itself.
  Garrote,
  /// Mihcak's locally adaptive Wiener gain max(m - t^2, 0) / m, m the local mean of d^2.
  LocalWiener,
};

/// A denoiser: per-level thresholds in units of each band's measured noise deviation.
struct DenoiseSetting {
  Shrink rule = Shrink::Soft;
  Levels luma{};
  Levels chroma{};
  /// Part of the removed luminance given back, so fine texture is not smeared to plastic.
  float lumaKept = 0.0f;

  int levels() const {
    int count = 0;
    for (int level = 0; level < kMaxAtrousLevels; ++level) {
      const auto i = static_cast<std::size_t>(level);
      if (luma[i] > 0.0f || chroma[i] > 0.0f) count = level + 1;
    }
    return count;
  }
  bool identity() const { return levels() == 0; }
};

/// Radius of the neighbourhood the local Wiener gain measures its band energy over.
constexpr int kWienerRadius = 2;
/// Noise after demosaicing is correlated over a few pixels, so its coarse bands hold up to a
/// few times what white noise would; more than that is taken for picture.
constexpr float kMaxCorrelation = 4.0f;
/// Channel values beyond this are clipped first: one extreme pixel must stay a local fault.
constexpr float kChannelLimit = 64.0f;

float limited(float v) {
  return std::clamp(v, -kChannelLimit, kChannelLimit);
}

// Opponent channels Y, B - Y, R - Y: linear, so the inverse is exact, and chroma noise can be
// treated apart from luminance noise.
float lumaOf(const PixelRGB<float>& p) {
  return limited(detail::luminance(detail::spreadable(p)));
}
float blueDifferenceOf(const PixelRGB<float>& p) {
  return limited(detail::spreadable(p.b) - detail::luminance(detail::spreadable(p)));
}
float redDifferenceOf(const PixelRGB<float>& p) {
  return limited(detail::spreadable(p.r) - detail::luminance(detail::spreadable(p)));
}

int denoiseReach(const DenoiseSetting& setting) {
  if (setting.identity()) return 0;
  return detail::atrousReach(setting.levels()) +
         (setting.rule == Shrink::LocalWiener ? kWienerRadius : 0);
}

void shrinkPointwise(Plane& band, float t, Shrink rule) {
  detail::parallelChunks(band.size(), 1 << 16, [&](std::size_t first, std::size_t end) {
    float* d = band.data();
    for (std::size_t i = first; i < end; ++i) {
      const float magnitude = std::fabs(d[i]);
      if (rule == Shrink::Soft) {
        d[i] = std::copysign(std::max(magnitude - t, 0.0f), d[i]);
      } else {
        d[i] = magnitude > t ? d[i] - t * t / d[i] : 0.0f;
      }
    }
  });
}

void shrinkLocalWiener(Plane& band, float t, const detail::RenderControl& control) {
  Plane energy(band.width(), band.height());
  detail::parallelChunks(band.size(), 1 << 16, [&](std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i) energy.data()[i] = band.data()[i] * band.data()[i];
  });
  cv::Mat energyMat(band.height(), band.width(), CV_32FC1, energy.data());
  constexpr int kSide = 2 * kWienerRadius + 1;
  cv::blur(energyMat, energyMat, cv::Size(kSide, kSide), cv::Point(-1, -1), cv::BORDER_REPLICATE);
  control.checkpoint();
  const float noise = t * t;
  detail::parallelChunks(band.size(), 1 << 16, [&](std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i) {
      const float m = energy.data()[i];
      band.data()[i] *= m > noise ? (m - noise) / m : 0.0f;
    }
  });
}

/// One channel of the window with every band shrunk; thresholds scale each band's noise.
template <typename Value>
Plane denoiseChannel(const detail::StencilWindow& window, const Value& value, const Levels& k,
                     Shrink rule, int levels) {
  Levels sigmas = detail::bandNoise(window.statistics, window.statisticsRect, levels, value);
  // Coarse bands of a textured picture hold more picture than noise: their estimate may exceed
  // what white noise of the finest band's strength would leave there by kMaxCorrelation only.
  for (int level = 1; level < levels; ++level) {
    const float white = sigmas[0] * detail::atrousNoiseGain(level) / detail::atrousNoiseGain(0);
    auto& sigma = sigmas[static_cast<std::size_t>(level)];
    sigma = std::min(sigma, kMaxCorrelation * white);
  }
  window.control.checkpoint();
  const Plane channel = detail::planeOf(window.source, window.input, value);
  return detail::atrousReshape(
      channel, levels,
      [&](int level, Plane& band) {
        const auto i = static_cast<std::size_t>(level);
        const float t = k[i] * sigmas[i];
        if (!(t > 0.0f)) return;
        if (rule == Shrink::LocalWiener) {
          shrinkLocalWiener(band, t, window.control);
        } else {
          shrinkPointwise(band, t, rule);
        }
      },
      &window.control);
}

bool anyAbove(const Levels& k) {
  return std::any_of(k.begin(), k.end(), [](float v) { return v > 0.0f; });
}

// The three channels are shrunk separately and their changes mapped back to RGB exactly.
void renderDenoise(const detail::StencilWindow& window, const DenoiseSetting& setting) {
  const int levels = setting.levels();
  const Plane luma = denoiseChannel(window, lumaOf, setting.luma, setting.rule, levels);
  const bool chroma = anyAbove(setting.chroma);
  // Chroma noise is smooth blotches, not edges worth a local estimate: the soft rule does.
  const Shrink chromaRule = setting.rule == Shrink::LocalWiener ? Shrink::Soft : setting.rule;
  const Plane blue =
      chroma ? denoiseChannel(window, blueDifferenceOf, setting.chroma, chromaRule, levels)
             : Plane();
  const Plane red =
      chroma ? denoiseChannel(window, redDifferenceOf, setting.chroma, chromaRule, levels)
             : Plane();
  const float removedKept = 1.0f - setting.lumaKept;
  window.forOutputRows([&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index,
                           std::size_t count) {
    for (std::size_t x = 0; x < count; ++x) {
      const float dy = removedKept * (luma.data()[index + x] - lumaOf(in[x]));
      const float db = chroma ? blue.data()[index + x] - blueDifferenceOf(in[x]) : 0.0f;
      const float dr = chroma ? red.data()[index + x] - redDifferenceOf(in[x]) : 0.0f;
      const float r = in[x].r + dr + dy;
      const float b = in[x].b + db + dy;
      const float dg =
          (dy - detail::kLumaRed * (dr + dy) - detail::kLumaBlue * (db + dy)) / detail::kLumaGreen;
      out[x] = PixelRGB<float>(r, in[x].g + dg, b);
    }
  });
}

/// Levels set to strength times the given multipliers, the rest 0.
Levels levelsOf(float strength, std::initializer_list<float> multipliers) {
  Levels k{};
  std::size_t i = 0;
  for (const float m : multipliers) k[i++] = strength * m;
  return k;
}

// Fine noise: the three finest luminance bands; chroma over five, more strongly. The garrote,
// unlike the soft threshold, leaves an edge's large coefficients almost whole.
DenoiseSetting fineSetting(const Effect& effect) {
  const float s = effect.mappedValue(0, 0.0f, 0.5f, 1.0f);
  DenoiseSetting setting;
  setting.rule = Shrink::Garrote;
  setting.luma = levelsOf(s, {3.0f, 2.5f, 1.5f});
  setting.chroma = levelsOf(s, {4.0f, 4.0f, 3.5f, 3.0f, 2.0f});
  return setting;
}

// Coarse noise (blotches a few pixels wide): the finest band lightly, the next four firmly;
// each band's noise is measured in that band, so correlated noise is seen where it lives. The
// local Wiener gain spares edges, whose coarse bands are wide enough to be smeared otherwise.
DenoiseSetting coarseSetting(const Effect& effect) {
  const float s = effect.mappedValue(0, 0.0f, 0.5f, 1.0f);
  DenoiseSetting setting;
  setting.rule = Shrink::LocalWiener;
  setting.luma = levelsOf(s, {1.5f, 2.5f, 2.5f, 2.5f, 2.0f});
  setting.chroma = levelsOf(s, {3.0f, 4.0f, 4.0f, 4.0f, 4.0f, 3.0f});
  return setting;
}

// Denoise that keeps structure: the two finest bands shrunk, the mid bands left alone.
DenoiseSetting structureSetting(const Effect& effect) {
  const float s = effect.mappedValue(0, 0.0f, 0.5f, 1.0f);
  DenoiseSetting setting;
  setting.luma = levelsOf(s, {3.0f, 2.0f});
  setting.chroma = levelsOf(s, {4.0f, 4.0f, 3.0f});
  return setting;
}

// Detail-keeping denoise: the garrote leaves strong detail almost whole and a fifth of the
// removed luminance returns as fine texture.
DenoiseSetting detailsSetting(const Effect& effect) {
  const float s = effect.mappedValue(0, 0.0f, 0.5f, 1.0f);
  DenoiseSetting setting;
  setting.rule = Shrink::Garrote;
  setting.luma = levelsOf(s, {3.0f, 2.5f, 1.5f});
  setting.chroma = levelsOf(s, {4.0f, 4.0f, 3.0f, 2.0f});
  setting.lumaKept = 0.2f;
  return setting;
}

// Laplacian denoise: the local Wiener gain per band; Detail gives back part of the luminance.
DenoiseSetting laplacianSetting(const Effect& effect) {
  const float s = effect.mappedValue(0, 0.0f, 0.5f, 1.0f);
  DenoiseSetting setting;
  setting.rule = Shrink::LocalWiener;
  setting.luma = levelsOf(s, {2.0f, 2.0f, 1.5f, 1.0f});
  setting.chroma = levelsOf(s, {4.0f, 4.0f, 3.5f, 3.0f, 2.0f});
  setting.lumaKept = 0.5f * effect.mappedValue(1, 0.0f, 0.5f, 1.0f);
  return setting;
}

}  // namespace

#define VORN_DENOISE_OVERRIDES(Class, setting)     \
  int Class::reach(float) const {                  \
    return denoiseReach(setting(*this));           \
  }                                                \
  bool Class::isIdentity() const {                 \
    return setting(*this).identity();              \
  }                                                \
  void Class::render(const Window& window) const { \
    renderDenoise(window, setting(*this));         \
  }

VORN_DENOISE_OVERRIDES(DenoiseEffect, fineSetting)
VORN_DENOISE_OVERRIDES(DenoiseCoarseEffect, coarseSetting)
VORN_DENOISE_OVERRIDES(DenoiseStructureEffect, structureSetting)
VORN_DENOISE_OVERRIDES(DenoiseDetailsEffect, detailsSetting)
VORN_DENOISE_OVERRIDES(DenoiseLaplacianEffect, laplacianSetting)

#undef VORN_DENOISE_OVERRIDES

}  // namespace vorn
