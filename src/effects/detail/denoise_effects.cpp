// Wavelet denoising in an opponent luma/chroma space on the shared a trous decomposition.
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>
#include <vector>

#include "core/opencv_cpu.h"
#include "effects/kernels/atrous.h"
#include "effects/kernels/cloned_loop.h"
#include "effects/kernels/decimate.h"
#include "effects/kernels/luminance.h"
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

  int levels() const { return std::max(levelsOf(luma), levelsOf(chroma)); }
  /// Levels up to the coarsest one with a threshold.
  static int levelsOf(const Levels& k) {
    int count = 0;
    for (int level = 0; level < kMaxAtrousLevels; ++level)
      if (k[static_cast<std::size_t>(level)] > 0.0f) count = level + 1;
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

/// v limited to +-kChannelLimit, NaN as 0; plain comparisons, so the pixel loops vectorise.
float limited(float v) {
  const float low = v == v ? -kChannelLimit : 0.0f;
  const float high = v < kChannelLimit ? v : kChannelLimit;
  return v > -kChannelLimit ? high : low;
}

// Opponent channels Y, B - Y, R - Y: linear, so the inverse is exact, and chroma noise can be
// treated apart from luminance noise.
// Lambdas rather than functions, so the plane and decimation loops they are passed to inline them.
constexpr auto lumaOf = [](const PixelRGB<float>& p) {
  return detail::luminance(limited(p.r), limited(p.g), limited(p.b));
};
constexpr auto blueDifferenceOf = [](const PixelRGB<float>& p) { return limited(p.b) - lumaOf(p); };
constexpr auto redDifferenceOf = [](const PixelRGB<float>& p) { return limited(p.r) - lumaOf(p); };

int denoiseReach(const DenoiseSetting& setting) {
  if (setting.identity()) return 0;
  return detail::atrousReach(setting.levels()) +
         (setting.rule == Shrink::LocalWiener ? kWienerRadius : 0);
}

void shrinkPointwise(float* d, int count, float t, Shrink rule) {
  for (int i = 0; i < count; ++i) {
    const float magnitude = std::fabs(d[i]);
    if (rule == Shrink::Soft) {
      d[i] = std::copysign(std::max(magnitude - t, 0.0f), d[i]);
    } else {
      d[i] = magnitude > t ? d[i] - t * t / d[i] : 0.0f;
    }
  }
}

void shrinkLocalWiener(Plane& band, float t, const detail::RenderControl& control) {
  Plane energy(band.width(), band.height());
  detail::parallelChunks(band.size(), 1 << 16, [&](std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i) energy.data()[i] = band.data()[i] * band.data()[i];
  });
  cv::Mat energyMat(band.height(), band.width(), CV_32FC1, energy.data());
  constexpr int kSide = 2 * kWienerRadius + 1;
  detail::openCvOnCpu();
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
                     Shrink rule) {
  const int levels = std::max(1, DenoiseSetting::levelsOf(k));
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
  const auto threshold = [&](int level) {
    const auto i = static_cast<std::size_t>(level);
    return k[i] * sigmas[i];
  };
  if (rule == Shrink::LocalWiener) {
    return detail::atrousReshape(
        channel, levels,
        [&](int level, Plane& band) {
          const float t = threshold(level);
          if (t > 0.0f) shrinkLocalWiener(band, t, window.control);
        },
        &window.control);
  }
  return detail::atrousReshapeRows(
      channel, levels,
      [&](int level, float* band, int count) {
        const float t = threshold(level);
        if (t > 0.0f) shrinkPointwise(band, count, t, rule);
      },
      &window.control);
}

bool anyAbove(const Levels& k) {
  return std::any_of(k.begin(), k.end(), [](float v) { return v > 0.0f; });
}

/// The pixel with its Y, B - Y and R - Y moved by dy, db and dr; the inverse is exact.
inline PixelRGB<float> withChanges(const PixelRGB<float>& p, float dy, float db, float dr) {
  const float r = p.r + dr + dy;
  const float b = p.b + db + dy;
  const float dg =
      (dy - detail::kLumaRed * (dr + dy) - detail::kLumaBlue * (db + dy)) / detail::kLumaGreen;
  return PixelRGB<float>(r, p.g + dg, b);
}

/// Writes the window's output from its denoised luminance plane (part `lumaKept` of the change
/// undone) and chromaChange(rowIndex, x, pixel), the {B - Y, R - Y} change of pixel x of the
/// output row whose first pixel has index rowIndex in window planes; the inverse is exact.
template <typename ChromaChange>
void writeDenoised(const detail::StencilWindow& window, const Plane& luma, float lumaKept,
                   const ChromaChange& chromaChange) {
  const float removedKept = 1.0f - lumaKept;
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        for (std::size_t x = 0; x < count; ++x) {
          const float dy = removedKept * (luma.data()[index + x] - lumaOf(in[x]));
          const auto [db, dr] = chromaChange(index, x, in[x]);
          out[x] = withChanges(in[x], dy, db, dr);
        }
      });
}

// The three channels are shrunk separately and their changes mapped back to RGB.
void renderDenoise(const detail::StencilWindow& window, const DenoiseSetting& setting) {
  const Plane luma = denoiseChannel(window, lumaOf, setting.luma, setting.rule);
  if (!anyAbove(setting.chroma)) {
    writeDenoised(window, luma, setting.lumaKept,
                  [](std::size_t, std::size_t, const PixelRGB<float>&) {
                    return std::pair{0.0f, 0.0f};
                  });
    return;
  }
  // Chroma noise is smooth blotches, not edges worth a local estimate: the soft rule does.
  const Shrink chromaRule = setting.rule == Shrink::LocalWiener ? Shrink::Soft : setting.rule;
  const Plane blue = denoiseChannel(window, blueDifferenceOf, setting.chroma, chromaRule);
  const Plane red = denoiseChannel(window, redDifferenceOf, setting.chroma, chromaRule);
  writeDenoised(window, luma, setting.lumaKept,
                [&](std::size_t rowIndex, std::size_t x, const PixelRGB<float>& p) {
                  return std::pair{blue.data()[rowIndex + x] - blueDifferenceOf(p),
                                   red.data()[rowIndex + x] - redDifferenceOf(p)};
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
  setting.luma = levelsOf(s, {1.5f, 2.0f, 2.0f, 1.5f, 1.0f});
  setting.chroma = levelsOf(s, {3.0f, 3.0f, 3.0f, 2.5f, 2.0f, 1.5f});
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

// Non-local means (Buades, Coll and Morel) for the chroma of the NLB denoiser, on a copy
// decimated by kNlbFactor: chroma noise is blotchy and chroma detail coarse, so half
// resolution loses nothing visible and quarters the cost.
constexpr int kNlbFactor = 2;
constexpr int kNlbSearch = 2;
constexpr int kNlbPatch = 1;
constexpr int kNlbPatchValues = 3 * (2 * kNlbPatch + 1) * (2 * kNlbPatch + 1);

/// exp(-t) for t >= 0 as (1 - t / 8)^8, which vectorises and reaches 0 at t = 8.
inline float similarity(float t) {
  const float u = std::max(0.0f, 1.0f - 0.125f * std::max(t, 0.0f));
  const float u2 = u * u;
  const float u4 = u2 * u2;
  return u4 * u4;
}

/// The three channels of a decimated picture as planes padded by `pad` replicated pixels, so
/// that the search loops read without clamping.
struct PaddedChannels {
  PaddedChannels(const detail::ImageRGBf& small, int pad)
      : width(small.width + 2 * pad),
        padding(pad),
        y(width, small.height + 2 * pad),
        blue(width, small.height + 2 * pad),
        red(width, small.height + 2 * pad) {
    detail::parallelRows(y.height(), [&](int first, int end) {
      for (int row = first; row < end; ++row) {
        const PixelRGB<float>* in = small.row(std::clamp(row - pad, 0, small.height - 1));
        for (int x = 0; x < width; ++x) {
          const PixelRGB<float>& p = in[std::clamp(x - pad, 0, small.width - 1)];
          y.row(row)[x] = p.r;
          blue.row(row)[x] = p.g;
          red.row(row)[x] = p.b;
        }
      }
    });
  }
  int width;
  int padding;
  Plane y;
  Plane blue;
  Plane red;
};

/// The chroma (g, b) of a decimated Y, B - Y, R - Y picture averaged over its search window,
/// each candidate weighted by how alike its patch is in all three channels (each measured in
/// its own noise deviation); `spread` widens what counts as alike.
detail::ImageRGBf nonLocalMeansChroma(const detail::ImageRGBf& small, std::array<float, 3> sigma,
                                      float spread, const detail::RenderControl& control) {
  constexpr int kPad = kNlbSearch + kNlbPatch;
  const int width = small.width;
  const PaddedChannels padded(small, kPad);
  detail::ImageRGBf filtered(_Size<int>(width, small.height));
  std::array<float, 3> inverse{};
  for (std::size_t c = 0; c < 3; ++c) inverse[c] = 1.0f / std::max(sigma[c] * sigma[c], 1e-10f);
  const float iy = inverse[0];
  const float ib = inverse[1];
  const float ir = inverse[2];
  // A patch of pure noise differs from another by 2 sigma^2 per value on average.
  constexpr float kNoiseDistance = 2.0f;
  const float scale = 1.0f / (static_cast<float>(kNlbPatchValues) * spread * spread);
  const float offset = kNoiseDistance / (spread * spread);
  // Distances are kept for x in [-P, width + P): `reach` values either side of the row.
  const int span = width + 2 * kNlbPatch;
  detail::parallelRowsCancellable(small.height, control, [&](int first, int end) {
    const int rows = end - first;
    const auto row = [](std::vector<float>& v, int r, int length) {
      return v.data() + static_cast<std::size_t>(r) * static_cast<std::size_t>(length);
    };
    // Scratch kept by each thread: fresh pages for every few rows would cost more than the
    // filtering itself.
    thread_local std::vector<float> distance, column, weights, blue, red;
    distance.resize(static_cast<std::size_t>(rows + 2 * kNlbPatch) *
                    static_cast<std::size_t>(span));
    column.resize(static_cast<std::size_t>(span));
    const std::size_t sums = static_cast<std::size_t>(rows) * static_cast<std::size_t>(width);
    for (std::vector<float>* sum : {&weights, &blue, &red}) sum->assign(sums, 0.0f);
    for (int dy = -kNlbSearch; dy <= kNlbSearch; ++dy) {
      for (int dx = -kNlbSearch; dx <= kNlbSearch; ++dx) {
        // Padded coordinates: image row r is padded row r + kPad, column x is x + kPad.
        for (int r = 0; r < rows + 2 * kNlbPatch; ++r) {
          const int py = first + r - kNlbPatch + kPad;
          const int x0 = kPad - kNlbPatch;
          const float* ay = padded.y.row(py) + x0;
          const float* ab = padded.blue.row(py) + x0;
          const float* ar = padded.red.row(py) + x0;
          const float* by = padded.y.row(py + dy) + x0 + dx;
          const float* bb = padded.blue.row(py + dy) + x0 + dx;
          const float* br = padded.red.row(py + dy) + x0 + dx;
          float* d = row(distance, r, span);
          detail::clonedLoop(
              [=](std::size_t x) {
                d[x] = (ay[x] - by[x]) * (ay[x] - by[x]) * iy +
                       (ab[x] - bb[x]) * (ab[x] - bb[x]) * ib +
                       (ar[x] - br[x]) * (ar[x] - br[x]) * ir;
              },
              static_cast<std::size_t>(span));
        }
        for (int r = 0; r < rows; ++r) {
          std::fill(column.begin(), column.end(), 0.0f);
          float* columnSum = column.data();
          for (int k = 0; k <= 2 * kNlbPatch; ++k) {
            const float* d = row(distance, r + k, span);
            detail::clonedLoop([=](std::size_t x) { columnSum[x] += d[x]; },
                               static_cast<std::size_t>(span));
          }
          const int qy = first + r + dy + kPad;
          const float* candidateBlue = padded.blue.row(qy) + kPad + dx;
          const float* candidateRed = padded.red.row(qy) + kPad + dx;
          float* w = row(weights, r, width);
          float* sb = row(blue, r, width);
          float* sr = row(red, r, width);
          detail::clonedTableLoop(
              [=](std::size_t x) {
                float patch = 0.0f;
                for (std::size_t k = 0; k <= 2 * kNlbPatch; ++k) patch += columnSum[x + k];
                const float weight = similarity(patch * scale - offset);
                w[x] += weight;
                sb[x] += weight * candidateBlue[x];
                sr[x] += weight * candidateRed[x];
              },
              static_cast<std::size_t>(width));
        }
      }
    }
    for (int r = 0; r < rows; ++r) {
      const PixelRGB<float>* in = small.row(first + r);
      PixelRGB<float>* out = filtered.row(first + r);
      const float* w = row(weights, r, width);
      const float* sb = row(blue, r, width);
      const float* sr = row(red, r, width);
      // The centre weighs 1, so the sum never vanishes.
      for (int x = 0; x < width; ++x) out[x] = PixelRGB<float>(in[x].r, sb[x] / w[x], sr[x] / w[x]);
    }
  });
  return filtered;
}

/// The NLB denoiser's values: Amount overall, Denoise the luminance share, Boost the chroma.
struct NlbSetting {
  DenoiseSetting luma;
  float chromaAmount;
  float spread;
  bool identity() const { return chromaAmount == 0.0f; }
};

// Luminance by the Laplacian denoiser's local Wiener gain, scaled by Denoise (mild by
// default); chroma by non-local means, Boost widening what it averages.
NlbSetting nlbSetting(const Effect& effect) {
  const float amount = effect.mappedValue(0, 0.0f, 0.5f, 1.0f);
  const float lumaShare = 0.3f + 2.7f * effect.mappedValue(1, 0.0f, 0.5f, 1.0f);
  NlbSetting setting;
  setting.luma.rule = Shrink::LocalWiener;
  setting.luma.luma = levelsOf(amount * lumaShare, {1.5f, 1.5f, 1.0f, 0.5f});
  setting.chromaAmount = amount;
  setting.spread = 0.5f + 1.5f * effect.mappedValue(2, 0.0f, 0.5f, 1.0f);
  return setting;
}

int nlbReach(const NlbSetting& setting) {
  if (setting.identity()) return 0;
  // The decimated search and patch, one block more for the bilinear sample, and the grid margin.
  const int chroma = (kNlbSearch + kNlbPatch + 1) * kNlbFactor + 2 * kNlbFactor;
  return std::max(denoiseReach(setting.luma), chroma);
}

void renderNlb(const detail::StencilWindow& window, const NlbSetting& setting) {
  const Plane luma = denoiseChannel(window, lumaOf, setting.luma.luma, Shrink::LocalWiener);
  std::array<float, 3> sigma{};
  const auto measure = [&](std::size_t c, const auto& value) {
    // Averaging kNlbFactor^2 pixels of white noise divides its deviation by kNlbFactor.
    const float finest = detail::bandNoise(window.statistics, window.statisticsRect, 1, value)[0];
    sigma[c] = finest / detail::atrousNoiseGain(0) / static_cast<float>(kNlbFactor);
  };
  measure(0, lumaOf);
  measure(1, blueDifferenceOf);
  measure(2, redDifferenceOf);
  window.control.checkpoint();
  const detail::DecimationGrid grid(window, kNlbFactor);
  const detail::ImageRGBf small = grid.decimate([](const PixelRGB<float>& p) {
    return PixelRGB<float>(lumaOf(p), blueDifferenceOf(p), redDifferenceOf(p));
  });
  const detail::ImageRGBf filtered =
      nonLocalMeansChroma(small, sigma, setting.spread, window.control);
  const float amount = setting.chromaAmount;
  // The filtered half-resolution chroma replaces the pixel's own, in proportion to Amount. The
  // column taps are worked out once, as value offsets the vector loop gathers at.
  const auto width = static_cast<std::size_t>(window.output.width);
  const auto columns = grid.columnTaps(window.output.x, width);
  std::vector<int> leftValue(width);
  std::vector<int> rightValue(width);
  std::vector<float> across(width);
  for (std::size_t i = 0; i < width; ++i) {
    leftValue[i] = 3 * columns[i].first;
    rightValue[i] = 3 * columns[i].second;
    across[i] = columns[i].weight;
  }
  window.forOutputRows([&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index,
                           std::size_t count) {
    const int y =
        window.input.y + static_cast<int>(index / static_cast<std::size_t>(window.input.width));
    const detail::DecimationGrid::Tap row = grid.rowTap(y);
    const float* top = &filtered.row(row.first)->r;
    const float* bottom = &filtered.row(row.second)->r;
    const float down = row.weight;
    const float* denoised = luma.data() + index;
    const int* left = leftValue.data();
    const int* right = rightValue.data();
    const float* weight = across.data();
    detail::clonedTableLoop(
        [=](std::size_t x) {
          const auto chroma = [=](int c) {
            return detail::mix(detail::mix(top[left[x] + c], top[right[x] + c], weight[x]),
                               detail::mix(bottom[left[x] + c], bottom[right[x] + c], weight[x]),
                               down);
          };
          const float dy = denoised[x] - lumaOf(in[x]);
          out[x] = withChanges(in[x], dy, amount * (chroma(1) - blueDifferenceOf(in[x])),
                               amount * (chroma(2) - redDifferenceOf(in[x])));
        },
        count);
  });
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

int DenoiseLaplacianNLBEffect::reach(float) const {
  return nlbReach(nlbSetting(*this));
}
bool DenoiseLaplacianNLBEffect::isIdentity() const {
  return nlbSetting(*this).identity();
}
void DenoiseLaplacianNLBEffect::render(const Window& window) const {
  renderNlb(window, nlbSetting(*this));
}

}  // namespace vorn
