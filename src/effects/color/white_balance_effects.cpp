#include <tbb/combinable.h>

#include <array>
#include <cmath>

#include "effects/color/color_kernels.h"
#include "effects/kernels/luminance.h"
#include "vorn/effects/color_effects.h"

// Effects that act on linear light as a filter or a change of illuminant would: per-channel
// gains and 3 x 3 matrices.
namespace vorn {

using detail::Matrix3;

namespace {

/// Temperature at +-100 moves the assumed scene light by 95 mired (about 4000 K ... 17000 K
/// around D65); tint at +-100 moves it 0.02 in Duv, the span of everyday light sources.
constexpr float kMiredPerStep = 0.95f;
constexpr float kDuvPerStep = 0.0002f;

}  // namespace

// White balance: Bradford adaptation from a light shifted along and across the daylight locus.
PointEffect::Kernel WhiteBalanceEffect::prepare(const Setup&) const {
  const float temperature = mappedValue(0, -100.0f, 0.0f, 100.0f);
  const float tint = mappedValue(1, -100.0f, 0.0f, 100.0f);
  if (temperature == 0.0f && tint == 0.0f) return nullptr;
  // A warmer picture means the scene light was bluer (fewer mired) than the picture assumed;
  // a magenta one means it was greener.
  return detail::linearMatrixKernel(detail::adaptationToD65(
      detail::shiftedWhite(-kMiredPerStep * temperature, kDuvPerStep * tint)));
}

// Warm skylight filter: a mild warming adaptation (at most 35 mired, a strong skylight glass)
// with a magenta-green correction.
PointEffect::Kernel WarmSkylightEffect::prepare(const Setup&) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  const float correction = mappedValue(1, -1.0f, 0.0f, 1.0f);
  if (amount == 0.0f && correction == 0.0f) return nullptr;
  return detail::linearMatrixKernel(
      detail::adaptationToD65(detail::shiftedWhite(-35.0f * amount, 0.006f * correction)));
}

// Channels: each channel's linear light scaled by up to one stop either way.
PointEffect::Kernel ChannelsEffect::prepare(const Setup&) const {
  std::array<float, 3> gains{};
  for (std::size_t c = 0; c < 3; ++c) gains[c] = std::exp2(mappedValue(c, -1.0f, 0.0f, 1.0f));
  if (gains == std::array<float, 3>{1.0f, 1.0f, 1.0f}) return nullptr;
  return detail::linearMatrixKernel(Matrix3::diagonal(gains[0], gains[1], gains[2]));
}

// Channel mixer: the percentages as a matrix on linear light, so mixing adds light as filters do.
PointEffect::Kernel ChannelMixerEffect::prepare(const Setup&) const {
  Matrix3 matrix;
  for (std::size_t i = 0; i < 9; ++i) matrix.m[i] = mappedValue(i, -2.0f, 0.0f, 2.0f);
  if (matrix.isIdentity()) return nullptr;
  return detail::linearMatrixKernel(matrix);
}

// Photo filter: linear light through a coloured glass whose transmission follows the filter
// hue; "Preserve Luminosity" restores each pixel's luminance afterwards.
PointEffect::Kernel PhotoFilterEffect::prepare(const Setup&) const {
  const float density = 0.6f * mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (density == 0.0f) return nullptr;
  const float hue = mappedValue(1, 0.0f, 180.0f, 360.0f);
  const bool preserve = mappedValue(2, 0.0f, 0.5f, 1.0f) >= 0.5f;
  const std::array<float, 3> t = detail::glassTransmission(hue, density);
  if (!preserve) return detail::linearMatrixKernel(Matrix3::diagonal(t[0], t[1], t[2]));
  return detail::linearKernel([t](float& r, float& g, float& b) {
    const float before = detail::luminance(r, g, b);
    r *= t[0];
    g *= t[1];
    b *= t[2];
    const float after = detail::luminance(r, g, b);
    const float k = after > 1e-9f ? before / after : 1.0f;
    r *= k;
    g *= k;
    b *= k;
  });
}

namespace {

/// Weighted sums over count pixels for the grey-world means: weight times each channel's linear
/// light, and the weight. Pixels near neutral weigh most (strongly coloured subjects say little
/// about the light); clipped, black and NaN pixels weigh nothing.
VORN_FMA_DISPATCH std::array<float, 4> nearNeutralSums(const float* pixels, int samples) {
  // Sixteen running sums each: a float sum over one running total would not vectorise.
  constexpr int kLanes = 16;
  float sums[4][kLanes] = {};
  const auto decode = [](float v) __attribute__((always_inline)) {
    return detail::srgbDecodeUnit(v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f);
  };
  for (int first = 0; first < samples; first += kLanes) {
    const int n = samples - first < kLanes ? samples - first : kLanes;
    for (int lane = 0; lane < n; ++lane) {
      const float* p = pixels + 3 * (first + lane);
      const float high = std::max(p[0], std::max(p[1], p[2]));
      const float low = std::min(p[0], std::min(p[1], p[2]));
      // Channel spread of 0.6 of the brightest channel and more: no weight. Every comparison
      // with NaN is false.
      float weight = 1.0f - (high - low) / (0.6f * high);
      weight = high < 0.97f && low > 0.02f && weight > 0.0f ? weight : 0.0f;
      sums[0][lane] += weight * decode(p[0]);
      sums[1][lane] += weight * decode(p[1]);
      sums[2][lane] += weight * decode(p[2]);
      sums[3][lane] += weight;
    }
  }
  std::array<float, 4> total{};
  for (std::size_t c = 0; c < 4; ++c)
    for (int lane = 0; lane < kLanes; ++lane) total[c] += sums[c][lane];
  return total;
}

/// Grey-world means of linear light over near-neutral pixels (see nearNeutralSums).
std::array<double, 3> nearNeutralMeans(const detail::RenderSetup& setup) {
  const _Rect<int> rect = setup.statisticsRect;
  const std::int64_t area = static_cast<std::int64_t>(rect.width) * rect.height;
  const bool sparse = area > (std::int64_t(1) << 20);
  const int step = sparse ? 4 : 1;
  tbb::combinable<std::array<double, 4>> partial([] { return std::array<double, 4>{}; });
  detail::parallelRows((rect.height + step - 1) / step, [&](int first, int end) {
    std::array<double, 4>& sums = partial.local();
    const auto add = [&sums](const float* pixels, int count) {
      const std::array<float, 4> part = nearNeutralSums(pixels, count);
      for (std::size_t c = 0; c < 4; ++c) sums[c] += part[c];
    };
    for (int y = first * step; y < end * step && y < rect.height; y += step) {
      const PixelRGB<float>* row = setup.statistics.row(rect.y + y) + rect.x;
      if (!sparse) {
        add(&row->r, rect.width);
        continue;
      }
      // Every fourth pixel gathered first: the vector loop reads only consecutive pixels.
      constexpr int kBlock = 256;
      float gathered[3 * kBlock];
      for (int x = 0; x < rect.width; x += step * kBlock) {
        int n = 0;
        for (int i = x; i < rect.width && n < kBlock; i += step, ++n) {
          gathered[3 * n] = row[i].r;
          gathered[3 * n + 1] = row[i].g;
          gathered[3 * n + 2] = row[i].b;
        }
        add(gathered, n);
      }
    }
  });
  std::array<double, 4> total{};
  partial.combine_each([&](const std::array<double, 4>& sums) {
    for (std::size_t i = 0; i < 4; ++i) total[i] += sums[i];
  });
  if (total[3] < 4.0) return {0.0, 0.0, 0.0};
  return {total[0] / total[3], total[1] / total[3], total[2] / total[3]};
}

}  // namespace

// Remove colour cast: grey world weighted towards near-neutral, unclipped pixels; von Kries
// gains in linear light that keep the mean luminance, applied in proportion to the amount.
PointEffect::Kernel RemoveColorCastEffect::prepare(const Setup& setup) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (amount == 0.0f) return nullptr;
  const std::array<double, 3> mean = nearNeutralMeans(setup);
  if (!(mean[0] > 1e-4 && mean[1] > 1e-4 && mean[2] > 1e-4)) return nullptr;
  const double grey =
      detail::kLumaRed * mean[0] + detail::kLumaGreen * mean[1] + detail::kLumaBlue * mean[2];
  std::array<float, 3> gains{};
  for (std::size_t c = 0; c < 3; ++c) {
    // A cast stronger than a stop is more likely a coloured subject than a coloured light.
    const double full = std::clamp(grey / mean[c], 0.5, 2.0);
    gains[c] = static_cast<float>(std::pow(full, static_cast<double>(amount)));
  }
  return detail::linearMatrixKernel(Matrix3::diagonal(gains[0], gains[1], gains[2]));
}

}  // namespace vorn
