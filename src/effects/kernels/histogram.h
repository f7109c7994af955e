#pragma once

#include <tbb/combinable.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/parallel.h"
#include "vorn/core/image_data.h"

namespace vorn::detail {

/// Counts of value(pixel) over `bins` equal bins of [0, 1] for the pixels of rect; values
/// outside are limited to it and NaN is not counted. Large areas are sampled on every 4th pixel
/// of every 4th row: percentiles read from it move by less than a bin. Per-thread counts,
/// merged once.
template <typename Value>
std::vector<std::uint64_t> histogram(const _ImageData<PixelRGB<float>>& image, _Rect<int> rect,
                                     std::size_t bins, const Value& value) {
  constexpr std::uint64_t kSampleAbovePixels = std::uint64_t(1) << 22;
  const std::uint64_t area = static_cast<std::uint64_t>(rect.width) * rect.height;
  const int step = area > kSampleAbovePixels ? 4 : 1;
  tbb::combinable<std::vector<std::uint64_t>> partial(
      [bins] { return std::vector<std::uint64_t>(bins, 0); });
  const float scale = static_cast<float>(bins - 1);
  parallelRows((rect.height + step - 1) / step, [&](int first, int end) {
    std::vector<std::uint64_t>& counts = partial.local();
    for (int y = first * step; y < end * step && y < rect.height; y += step) {
      const PixelRGB<float>* row = image.row(rect.y + y) + rect.x;
      for (int x = 0; x < rect.width; x += step) {
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

/// The value (a bin's lower edge, in [0, 1]) below which `fraction` of the counted values lie;
/// 1 for an empty histogram.
inline float histogramPercentile(const std::vector<std::uint64_t>& counts, double fraction) {
  std::uint64_t total = 0;
  for (const std::uint64_t count : counts) total += count;
  const auto wanted = static_cast<std::uint64_t>(fraction * static_cast<double>(total));
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    seen += counts[i];
    if (seen > wanted) return static_cast<float>(i) / static_cast<float>(counts.size() - 1);
  }
  return 1.0f;
}

}  // namespace vorn::detail
