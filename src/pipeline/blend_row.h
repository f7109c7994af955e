#pragma once

#include <immintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vorn/pipeline/blend.h"

namespace vorn::detail {

/// One row of a blend: `pixels` RGB pixels of each image, one mask value per pixel (mask may be
/// null), and whether the result goes out with non-temporal stores.
struct BlendRow {
  const float* top = nullptr;
  const float* bottom = nullptr;
  const float* mask = nullptr;
  float opacity = 1.0f;
  float* out = nullptr;
  std::size_t pixels = 0;
  bool stream = false;
};

/// Blends one row in Normal ... Subtract; out may be top or bottom.
void blendChannelRow(BlendModeType mode, const BlendRow& row);
/// Blends one row in Luminosity, Hue or Color; out may be top or bottom.
void blendLabRow(BlendModeType mode, const BlendRow& row);

// Rows are worked in blocks that stay in L1: the per-channel weights and the blended values
// live on the stack, so out may alias an input and the inner loops still vectorise.
inline constexpr std::size_t kBlendBlockPixels = 512;
inline constexpr std::size_t kBlendBlockFloats = 3 * kBlendBlockPixels;

/// alpha[3i + c] = opacity * mask[i], or opacity alone without a mask.
[[gnu::always_inline]] inline void expandAlpha(const float* __restrict mask, float opacity,
                                               float* __restrict alpha, std::size_t pixels) {
  if (mask) {
    for (std::size_t i = 0; i < pixels; ++i) {
      const float a = opacity * mask[i];
      alpha[3 * i] = a;
      alpha[3 * i + 1] = a;
      alpha[3 * i + 2] = a;
    }
  } else {
    for (std::size_t i = 0; i < 3 * pixels; ++i) alpha[i] = opacity;
  }
}

/// f * a + b * (1 - a): the weighting every mode but Normal shares.
[[gnu::always_inline]] inline float mixBlend(float f, float b, float a) {
  return f * a + b * (1.0f - a);
}

/// Streaming bypasses the cache for a result too large to be read back from it.
[[gnu::always_inline]] inline void storeBlock(float* dst, const float* src, std::size_t count,
                                              bool stream) {
  if (!stream) {
    std::memcpy(dst, src, count * sizeof(float));
    return;
  }
  std::size_t i = 0;
  for (; i < count && (reinterpret_cast<std::uintptr_t>(dst + i) & 15u) != 0; ++i) dst[i] = src[i];
  for (; i + 4 <= count; i += 4) _mm_stream_ps(dst + i, _mm_loadu_ps(src + i));
  for (; i < count; ++i) dst[i] = src[i];
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
    storeBlock(row.out + 3 * first, out, 3 * pixels, row.stream);
  }
  if (row.stream) _mm_sfence();
}

}  // namespace vorn::detail
