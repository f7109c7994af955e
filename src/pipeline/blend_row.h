#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vorn/pipeline/blend.h"

namespace vorn::detail {

/// One row of a blend: `pixels` RGB pixels of each image and one mask value per pixel (mask may
/// be null).
struct BlendRow {
  const float* top = nullptr;
  const float* bottom = nullptr;
  const float* mask = nullptr;
  float opacity = 1.0f;
  float* out = nullptr;
  std::size_t pixels = 0;
};

/// Blends one row in Normal ... Subtract; out may be top or bottom.
void blendChannelRow(BlendModeType mode, const BlendRow& row);
/// Blends one row in Luminosity, Hue or Color; out may be top or bottom.
void blendLabRow(BlendModeType mode, const BlendRow& row);

// Rows are worked in blocks that stay in L1: the per-channel weights and the blended values
// live on the stack, so out may alias an input and the inner loops still vectorise. At 256
// pixels the six arrays of an L*a*b* block take 18 KB; 512 overflowed a 32 KB L1 and ran 5-8%
// slower.
inline constexpr std::size_t kBlendBlockPixels = 256;
inline constexpr std::size_t kBlendBlockFloats = 3 * kBlendBlockPixels;

/// Whether out shares memory with top or bottom over the row.
inline bool rowAliased(const BlendRow& row) {
  const auto overlaps = [&](const float* input) {
    const auto a = reinterpret_cast<std::uintptr_t>(input);
    const auto o = reinterpret_cast<std::uintptr_t>(row.out);
    const std::uintptr_t bytes = 3 * row.pixels * sizeof(float);
    return a < o + bytes && o < a + bytes;
  };
  return overlaps(row.top) || overlaps(row.bottom);
}

using Lanes8 = float __attribute__((vector_size(32)));
inline constexpr std::size_t kGroupPixels = 8;

// Opacity times eight mask values, each repeated for the three channels of its pixel. Built as
// whole vectors so that the loads which follow are forwarded from the stores.
[[gnu::always_inline]] inline void spreadAlpha(const float* mask, float opacity,
                                               float* __restrict alpha) {
  Lanes8 m;
  std::memcpy(&m, mask, sizeof m);
  m *= opacity;
  const Lanes8 spread[3] = {__builtin_shufflevector(m, m, 0, 0, 0, 1, 1, 1, 2, 2),
                            __builtin_shufflevector(m, m, 2, 3, 3, 3, 4, 4, 4, 5),
                            __builtin_shufflevector(m, m, 5, 5, 6, 6, 6, 7, 7, 7)};
  std::memcpy(alpha, spread, sizeof spread);
}

/// alpha[3i + c] = opacity * mask[i], or opacity alone without a mask.
[[gnu::always_inline]] inline void expandAlpha(const float* __restrict mask, float opacity,
                                               float* __restrict alpha, std::size_t pixels) {
  if (!mask) {
    for (std::size_t i = 0; i < 3 * pixels; ++i) alpha[i] = opacity;
    return;
  }
  std::size_t p = 0;
  for (; p + kGroupPixels <= pixels; p += kGroupPixels)
    spreadAlpha(mask + p, opacity, alpha + 3 * p);
  for (; p < pixels; ++p) {
    const float a = opacity * mask[p];
    alpha[3 * p] = a;
    alpha[3 * p + 1] = a;
    alpha[3 * p + 2] = a;
  }
}

/// f * a + b * (1 - a): the weighting every mode but Normal shares.
[[gnu::always_inline]] inline float mixBlend(float f, float b, float a) {
  return f * a + b * (1.0f - a);
}

/// Calls block(top, bottom, alpha, out, floats) for each block of the row, out being a stack
/// buffer stored to the row afterwards.
template <typename Block>
[[gnu::always_inline]] inline void forEachBlendBlock(const BlendRow& row, const Block& block) {
  alignas(64) float alpha[kBlendBlockFloats];
  alignas(64) float out[kBlendBlockFloats];
  for (std::size_t first = 0; first < row.pixels; first += kBlendBlockPixels) {
    const std::size_t pixels = std::min(kBlendBlockPixels, row.pixels - first);
    expandAlpha(row.mask ? row.mask + first : nullptr, row.opacity, alpha, pixels);
    block(row.top + 3 * first, row.bottom + 3 * first, alpha, out, 3 * pixels);
    std::memcpy(row.out + 3 * first, out, 3 * pixels * sizeof(float));
  }
}

}  // namespace vorn::detail
