#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "effects/kernels/cloned_loop.h"
#include "effects/kernels/mix.h"

// Value noise on an integer lattice: repeatable pseudo-random textures (grain, paper) whose
// value at a place depends only on that place and the seed.
namespace vorn::detail {

/// A 32-bit integer hash (Wellons' lowbias32) of a lattice point (coordinates modulo 2^32) and
/// the seed.
inline std::uint32_t latticeHash(std::uint32_t i, std::uint32_t j, std::uint32_t seed) {
  std::uint32_t h = i * 0x8da6b343u ^ j * 0xd8163841u ^ seed * 0xcb1ab31fu;
  h ^= h >> 16;
  h *= 0x7feb352du;
  h ^= h >> 15;
  h *= 0x846ca68bu;
  h ^= h >> 16;
  return h;
}

/// A lattice value in -1 ... 1, triangular (the sum of two uniform halves) so large values are
/// rarer, as in grain.
inline float latticeValue(std::uint32_t i, std::uint32_t j, std::uint32_t seed) {
  const std::uint32_t h = latticeHash(i, j, seed);
  // Both halves fit a signed lane, whose conversion to float vectorises.
  return static_cast<float>(static_cast<std::int32_t>(h & 0xffffu)) / 65535.0f +
         static_cast<float>(static_cast<std::int32_t>(h >> 16)) / 65535.0f - 1.0f;
}
inline float latticeValue(std::int64_t i, std::int64_t j, std::uint32_t seed) {
  return latticeValue(static_cast<std::uint32_t>(i), static_cast<std::uint32_t>(j), seed);
}

/// The lattice values of one row of noise and where each pixel of the span falls between them:
/// a pixel's noise is then two reads and a mix, written so a loop over the span vectorises.
struct NoiseRow {
  const std::uint32_t* index;
  const float* weight;
  const float* values;
  float operator()(std::size_t i) const {
    const std::uint32_t n = index[i];
    return mix(values[n], values[n + 1], weight[i]);
  }
};

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

  /// The noise of row y (pixel centre, frame coordinates); lattice is scratch space the caller
  /// keeps between rows and must outlive the answer.
  NoiseRow row(double y, std::vector<float>& lattice) const {
    const double v = y * inverseCell_;
    const double fv = std::floor(v);
    const auto j = static_cast<std::int64_t>(fv);
    const float sv = smooth(v - fv);
    lattice.resize(static_cast<std::size_t>(last_ - first_ + 1));
    // The hash in 32-bit lanes (it truncates its coordinates to them anyway), so that the
    // lattice row vectorises: it costs as much as the pixels when the cells are small.
    const auto i0 = static_cast<std::uint32_t>(first_);
    const auto j0 = static_cast<std::uint32_t>(j);
    const std::uint32_t seed = seed_;
    float* values = lattice.data();
    clonedLoop(
        [=](std::size_t k) {
          const std::uint32_t i = i0 + static_cast<std::uint32_t>(k);
          values[k] = mix(latticeValue(i, j0, seed), latticeValue(i, j0 + 1u, seed), sv);
        },
        lattice.size());
    return NoiseRow{index_.data(), weight_.data(), values};
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
