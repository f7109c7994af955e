#pragma once

#include <tbb/combinable.h>

#include <cstdint>
#include <new>
#include <vector>

#include "effects/render.h"
#include "effects/tone/tone_curve.h"

namespace vorn::detail {

/// The shape of every per-value tone effect: copy when the parameters make it an identity,
/// else tabulate the curve once and run the shared per-channel lookup over the buffer.
template <typename Curve>
bool renderChannelCurve(EffectCallContext& call, bool identity, const Curve& curve,
                        float threshold = 1.0f) {
  if (identity) return copySourceToDestination(call);
  if (!prepareDestination(call)) return false;
  const auto lookup = makeToneCurve(curve, threshold);
  applyChannelCurve(*lookup, *call.source, *call.destination);
  return true;
}

/// As renderChannelCurve, with the curve applied to luminance as a gain on all channels.
template <typename Curve>
bool renderLumaCurve(EffectCallContext& call, bool identity, const Curve& curve,
                     GainDomain domain) {
  if (identity) return copySourceToDestination(call);
  if (!prepareDestination(call)) return false;
  const auto lookup = makeToneCurve(curve, 1.0f);
  applyKeyedGain(*lookup, domain, *call.source, nullptr, *call.destination);
  return true;
}

/// Counts of value(pixel) over `bins` equal bins of [0, 1]; values outside are limited to it
/// and NaN is not counted. Large images are sampled on every 4th pixel of every 4th row: the
/// percentiles effects read from it move by less than a bin. Per-thread counts, merged once.
template <typename Value>
std::vector<std::uint64_t> histogram(const ImageRGBf& image, std::size_t bins, const Value& value) {
  constexpr std::uint64_t kSampleAbovePixels = std::uint64_t(1) << 22;
  const int step = image.area() > kSampleAbovePixels ? 4 : 1;
  tbb::combinable<std::vector<std::uint64_t>> partial(
      [bins] { return std::vector<std::uint64_t>(bins, 0); });
  const float scale = static_cast<float>(bins - 1);
  parallelRows((image.height + step - 1) / step, [&](int first, int end) {
    std::vector<std::uint64_t>& counts = partial.local();
    for (int y = first * step; y < end * step && y < image.height; y += step) {
      const PixelRGB<float>* row = image.row(y);
      for (int x = 0; x < image.width; x += step) {
        const float v = value(row[x]);
        if (!(v == v)) continue;
        ++counts[static_cast<std::size_t>((v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f) * scale)];
      }
    }
  });
  std::vector<std::uint64_t> total(bins, 0);
  partial.combine_each([&](const std::vector<std::uint64_t>& counts) {
    for (std::size_t i = 0; i < bins; ++i) total[i] += counts[i];
  });
  return total;
}

/// Runs a render that allocates working planes: running out of memory fails the call (the
/// wrapper logs it) instead of throwing through the effect interface.
template <typename Render>
bool failOnExhaustion(Render&& render) {
  try {
    return render();
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace vorn::detail
