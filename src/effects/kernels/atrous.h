#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <functional>
#include <vector>

#include "effects/kernels/plane.h"
#include "effects/render.h"

// Starck and Murtagh's "a trous" (undecimated) wavelet transform with the cubic B-spline kernel
// [1 4 6 4 1] / 16: level j smooths with taps 2^j apart and its band is the difference of two
// successive smoothings, so the bands and the residual sum back to the input exactly.
namespace vorn::detail {

/// Levels beyond this would read more than two thousand pixels around each output pixel.
inline constexpr int kMaxAtrousLevels = 10;

/// Pixels around an output pixel that a transform of `levels` levels reads.
inline int atrousReach(int levels) {
  return 2 * ((1 << std::clamp(levels, 1, kMaxAtrousLevels)) - 1);
}

/// The scale of band `level` in reference pixels: the geometric middle of its 2^j ... 2^(j+1)
/// render pixels.
inline float atrousBandScale(int level, float spatialScale) {
  return std::exp2(static_cast<float>(level) + 0.5f) / std::max(spatialScale, 1e-6f);
}

/// The fewest levels whose coarsest band reaches `referencePixels` at spatialScale, clamped to
/// 1 ... kMaxAtrousLevels.
inline int atrousLevelsFor(float referencePixels, float spatialScale) {
  const float span = std::log2(std::max(referencePixels * spatialScale, 1.0f)) - 0.5f;
  if (!(span > 0.0f)) return 1;
  return std::clamp(static_cast<int>(span) + 1, 1, kMaxAtrousLevels);
}

/// Standard deviation of band `level` of unit white noise (about 0.89, 0.20, 0.086, ...).
float atrousNoiseGain(int level);

/// Changes one band in place, finest first; runs its own rows in parallel.
using BandReshape = std::function<void(int level, Plane& band)>;

/// The input rebuilt as its residual plus its `levels` bands, each first passed to reshape;
/// borders clamp. Polls the control between levels; std::bad_alloc when the pool is empty.
Plane atrousReshape(const Plane& input, int levels, const BandReshape& reshape,
                    const RenderControl* control = nullptr);

/// Changes one row of a band in place: (level, values, count).
using BandRowReshape = std::function<void(int level, float* band, int count)>;

/// atrousReshape for a reshape that reads no neighbours: one pass over the picture per level,
/// with no band plane.
Plane atrousReshapeRows(const Plane& input, int levels, const BandRowReshape& reshape,
                        const RenderControl* control = nullptr);

/// Noise deviation of each band of `levels` by Donoho's robust estimate, the median absolute
/// band value / 0.6745, taken in 8 x 8 tiles of 64 pixels spread across rect of image: the
/// lower quartile of the tiles is the answer, as the flatter tiles hold noise rather than
/// picture. The same picture and rect give the same values whatever the threads.
template <typename Value>
std::array<float, kMaxAtrousLevels> bandNoise(const ImageRGBf& image, _Rect<int> rect, int levels,
                                              const Value& value) {
  std::array<float, kMaxAtrousLevels> sigmas{};
  constexpr int kTile = 64;
  constexpr int kTilesAcross = 8;
  if (rect.width < 1 || rect.height < 1) return sigmas;
  const int tileWidth = std::min(kTile, rect.width);
  const int tileHeight = std::min(kTile, rect.height);
  // Values within this of a tile's side see the clamped border more than the picture.
  const int marginX = std::min(atrousReach(levels) / 2, tileWidth / 4);
  const int marginY = std::min(atrousReach(levels) / 2, tileHeight / 4);
  std::array<std::vector<float>, kMaxAtrousLevels> tileSigmas;
  std::vector<float> kept;
  const auto median = [](std::vector<float>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
  };
  const auto place = [](int start, int span, int tile, int i) {
    return start + (span - tile) * i / (kTilesAcross - 1);
  };
  for (int ty = 0; ty < kTilesAcross; ++ty) {
    for (int tx = 0; tx < kTilesAcross; ++tx) {
      const _Rect<int> tile(place(rect.x, rect.width, tileWidth, tx),
                            place(rect.y, rect.height, tileHeight, ty), tileWidth, tileHeight);
      atrousReshape(planeOf(image, tile, value), levels, [&](int level, Plane& band) {
        kept.clear();
        for (int y = marginY; y < tileHeight - marginY; ++y)
          for (int x = marginX; x < tileWidth - marginX; ++x)
            kept.push_back(std::fabs(band.row(y)[x]));
        if (!kept.empty())
          tileSigmas[static_cast<std::size_t>(level)].push_back(median(kept) / 0.6745f);
      });
    }
  }
  for (std::size_t level = 0; level < tileSigmas.size(); ++level) {
    auto& values = tileSigmas[level];
    if (values.empty()) continue;
    const auto quartile = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 4);
    std::nth_element(values.begin(), quartile, values.end());
    sigmas[level] = *quartile;
  }
  return sigmas;
}

}  // namespace vorn::detail
