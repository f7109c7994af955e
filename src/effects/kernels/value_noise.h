#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "effects/kernels/cloned_loop.h"
#include "effects/kernels/mix.h"

// Value noise on an integer lattice: repeatable pseudo-random textures (grain, paper) whose
// value at a place depends only on that place and the seed.
namespace vorn::detail {

/// A 32-bit integer hash (Wellons' lowbias32) of a lattice point and the seed.
inline std::uint32_t latticeHash(std::int64_t i, std::int64_t j, std::uint32_t seed) {
  std::uint32_t h = static_cast<std::uint32_t>(i) * 0x8da6b343u ^
                    static_cast<std::uint32_t>(j) * 0xd8163841u ^ seed * 0xcb1ab31fu;
  h ^= h >> 16;
  h *= 0x7feb352du;
  h ^= h >> 15;
  h *= 0x846ca68bu;
  h ^= h >> 16;
  return h;
}

/// A lattice value in -1 ... 1, triangular (the sum of two uniform halves) so large values are
/// rarer, as in grain.
inline float latticeValue(std::int64_t i, std::int64_t j, std::uint32_t seed) {
  const std::uint32_t h = latticeHash(i, j, seed);
  return static_cast<float>(h & 0xffffu) / 65535.0f + static_cast<float>(h >> 16) / 65535.0f - 1.0f;
}

/// Value noise over rows of one span of pixels. Where each pixel falls between lattice columns is
/// worked out once; a row then interpolates its lattice columns vertically once and costs a pixel
/// two table reads and a mix.
class NoiseRows {
 public:
  /// The span starts at pixel centre x0 (frame coordinates) and holds count pixels.
  NoiseRows(double cell, std::uint32_t seed, double x0, std::size_t count)
      : inverseCell_(1.0 / cell), seed_(seed), index_(count), weight_(count) {
    first_ = static_cast<std::int64_t>(std::floor(x0 * inverseCell_));
    last_ =
        static_cast<std::int64_t>(std::floor((x0 + static_cast<double>(count)) * inverseCell_)) + 1;
    for (std::size_t i = 0; i < count; ++i) {
      const double u = (x0 + static_cast<double>(i)) * inverseCell_;
      const double fu = std::floor(u);
      index_[i] = static_cast<std::uint32_t>(static_cast<std::int64_t>(fu) - first_);
      weight_[i] = smooth(u - fu);
    }
  }

  /// Adds amplitude times the noise of row y (pixel centre, frame coordinates) to sum; lattice
  /// is scratch space the caller keeps between rows.
  void accumulate(double y, float amplitude, float* sum, std::vector<float>& lattice) const {
    const double v = y * inverseCell_;
    const double fv = std::floor(v);
    const auto j = static_cast<std::int64_t>(fv);
    const float sv = smooth(v - fv);
    lattice.resize(static_cast<std::size_t>(last_ - first_ + 1));
    for (std::int64_t i = first_; i <= last_; ++i) {
      lattice[static_cast<std::size_t>(i - first_)] =
          mix(latticeValue(i, j, seed_), latticeValue(i, j + 1, seed_), sv);
    }
    const float* values = lattice.data();
    const std::uint32_t* index = index_.data();
    const float* weight = weight_.data();
    clonedLoop(
        [=](std::size_t i) {
          const std::uint32_t n = index[i];
          sum[i] += amplitude * mix(values[n], values[n + 1], weight[i]);
        },
        index_.size());
  }

 private:
  static float smooth(double t) { return static_cast<float>(t * t * (3.0 - 2.0 * t)); }
  double inverseCell_;
  std::uint32_t seed_;
  std::int64_t first_ = 0;
  std::int64_t last_ = 0;
  std::vector<std::uint32_t> index_;
  std::vector<float> weight_;
};

/// Value noise at (u, v) in lattice units, for places that are not visited along rows.
inline float valueNoise(double u, double v, std::uint32_t seed) {
  const double fu = std::floor(u);
  const double fv = std::floor(v);
  const auto i = static_cast<std::int64_t>(fu);
  const auto j = static_cast<std::int64_t>(fv);
  const auto smooth = [](double t) { return static_cast<float>(t * t * (3.0 - 2.0 * t)); };
  const float su = smooth(u - fu);
  const float top = mix(latticeValue(i, j, seed), latticeValue(i + 1, j, seed), su);
  const float bottom = mix(latticeValue(i, j + 1, seed), latticeValue(i + 1, j + 1, seed), su);
  return mix(top, bottom, smooth(v - fv));
}

/// Value noise whose lattice repeats every `period` cells in both directions, for tiles.
inline float tiledValueNoise(double u, double v, std::int64_t period, std::uint32_t seed) {
  const double fu = std::floor(u);
  const double fv = std::floor(v);
  const auto wrap = [period](std::int64_t k) { return ((k % period) + period) % period; };
  const auto i = static_cast<std::int64_t>(fu);
  const auto j = static_cast<std::int64_t>(fv);
  const auto smooth = [](double t) { return static_cast<float>(t * t * (3.0 - 2.0 * t)); };
  const float su = smooth(u - fu);
  const auto value = [&](std::int64_t a, std::int64_t b) {
    return latticeValue(wrap(a), wrap(b), seed);
  };
  const float top = mix(value(i, j), value(i + 1, j), su);
  const float bottom = mix(value(i, j + 1), value(i + 1, j + 1), su);
  return mix(top, bottom, smooth(v - fv));
}

}  // namespace vorn::detail
