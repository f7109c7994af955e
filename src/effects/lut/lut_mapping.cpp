// LUT mapping: a .cube table named in Amount's optional data, sampled per pixel and mixed with
// the input by Amount.
#include <immintrin.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "effects/kernels/mix.h"
#include "effects/lut/cube_cache.h"
#include "effects/lut/lut_kernels.h"
#include "effects/render.h"
#include "vorn/effects/lut_effects.h"

namespace vorn {

namespace {

using detail::CubeLut;

/// The LUT file name: Amount's optional data when it is a non-empty string.
std::string lutName(const Effect& effect) {
  const ParameterOptionalData data = effect.parameters()[0].optionalData();
  const auto* name = boost::get<std::string>(&data);
  return name ? *name : std::string();
}

/// Maps a channel value onto table positions 0 ... size - 1; outside the domain (and NaN) it
/// holds at the nearer end, as the table says nothing there.
struct DomainScale {
  DomainScale(const CubeLut& lut, std::size_t channel)
      : scale(static_cast<float>(lut.size - 1) / (lut.domainMax[channel] - lut.domainMin[channel])),
        offset(-lut.domainMin[channel] * scale),
        top(static_cast<float>(lut.size - 1)) {}
  float operator()(float value) const {
    return std::fmin(std::fmax(value * scale + offset, 0.0f), top);
  }
  float scale;
  float offset;
  float top;
};

/// Splits a table position into a cell (at most size - 2) and the fraction within it, 0 exactly
/// on a lattice point so entries come back unchanged.
inline int cellOf(float position, int lastCell, float& fraction) {
  const int cell = std::min(static_cast<int>(position), lastCell);
  fraction = position - static_cast<float>(cell);
  return cell;
}

class CurveSampler {
 public:
  explicit CurveSampler(const CubeLut& lut)
      : table_(lut.values.data()),
        lastCell_(lut.size - 2),
        scales_{DomainScale(lut, 0), DomainScale(lut, 1), DomainScale(lut, 2)} {}

  // Piecewise-linear interpolation of each channel's own curve.
  PixelRGB<float> operator()(const PixelRGB<float>& p) const {
    return PixelRGB<float>(channel(p.r, 0), channel(p.g, 1), channel(p.b, 2));
  }

 private:
  float channel(float value, std::size_t c) const {
    float f = 0.0f;
    const auto cell = static_cast<std::size_t>(cellOf(scales_[c](value), lastCell_, f));
    return (1.0f - f) * table_[3 * cell + c] + f * table_[3 * cell + 3 + c];
  }

  const float* table_;
  int lastCell_;
  DomainScale scales_[3];
};

class LatticeSampler {
 public:
  explicit LatticeSampler(const CubeLut& lut, bool pad = true)
      : table_(lut.values.data()),
        lastCell_(lut.size - 2),
        steps_{3, 3 * static_cast<std::size_t>(lut.size),
               3 * static_cast<std::size_t>(lut.size) * static_cast<std::size_t>(lut.size)},
        scales_{DomainScale(lut, 0), DomainScale(lut, 1), DomainScale(lut, 2)},
        padded_(pad ? padded(lut) : nullptr) {}

  // Tetrahedral interpolation: the cell is cut along its grey diagonal into six tetrahedra and
  // the one holding the point is chosen by the order of its fractions; greys stay on the axis.
  PixelRGB<float> operator()(const PixelRGB<float>& p) const {
    const float channels[3] = {p.r, p.g, p.b};
    float f[3];
    const float* c0 = table_;
    for (std::size_t c = 0; c < 3; ++c) {
      const auto cell = static_cast<std::size_t>(cellOf(scales_[c](channels[c]), lastCell_, f[c]));
      c0 += cell * steps_[c];
    }
    // A table lookup instead of branches: the order is as good as random on textured images.
    const auto& [a, b, c] = kOrders[(f[0] >= f[1]) * 4 + (f[1] >= f[2]) * 2 + (f[0] >= f[2])];
    const float* c1 = c0 + steps_[a];
    const float* c2 = c1 + steps_[b];
    const float* c3 = c2 + steps_[c];
    const float w0 = 1.0f - f[a], w1 = f[a] - f[b], w2 = f[b] - f[c], w3 = f[c];
    const auto blend = [&](std::size_t k) {
      return w0 * c0[k] + w1 * c1[k] + w2 * c2[k] + w3 * c3[k];
    };
    return PixelRGB<float>(blend(0), blend(1), blend(2));
  }

  /// Axes by falling fraction, indexed by (fr >= fg, fg >= fb, fr >= fb) as bits 4, 2, 1: the
  /// walk 000 -> first -> first + second -> 111. Codes 1 and 6 cannot occur.
  static constexpr std::array<std::size_t, 3> kOrders[8] = {
      {2, 1, 0}, {2, 1, 0}, {1, 2, 0}, {1, 0, 2}, {2, 0, 1}, {0, 2, 1}, {0, 1, 2}, {0, 1, 2}};

  /// The entries four floats apart (the fourth 0), so one 16-byte load reads a corner; only for
  /// tables small enough that the copy costs little (65^3 entries take 4.4 MB).
  static std::shared_ptr<const std::vector<float>> padded(const CubeLut& lut) {
    if (lut.size > 65) return nullptr;
    auto table = std::make_shared<std::vector<float>>(lut.values.size() / 3 * 4, 0.0f);
    for (std::size_t e = 0; e < lut.values.size() / 3; ++e)
      std::copy_n(&lut.values[3 * e], 3, &(*table)[4 * e]);
    return table;
  }

  const float* table_;
  int lastCell_;
  std::size_t steps_[3];
  DomainScale scales_[3];
  std::shared_ptr<const std::vector<float>> padded_;
};

// GCC 12's intrinsic headers seed results with self-initialised "undefined" vectors, which
// -Wmaybe-uninitialized reports in every caller; the values are always overwritten.
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

/// b where takeB is set, else a.
__attribute__((target("avx2"))) inline __m256i pick(__m256i a, __m256i b, __m256 takeB) {
  return _mm256_castps_si256(
      _mm256_blendv_ps(_mm256_castsi256_ps(a), _mm256_castsi256_ps(b), takeB));
}

/// One channel of eight interleaved pixels from their three registers: two blends put its values
/// in one register out of order, a permutation sorts them (cheaper than a gather with stride 3).
template <int FromSecond, int FromThird>
__attribute__((target("avx2"))) inline __m256 channelOfEight(__m256 a0, __m256 a1, __m256 a2,
                                                             __m256i order) {
  return _mm256_permutevar8x32_ps(
      _mm256_blend_ps(_mm256_blend_ps(a0, a1, FromSecond), a2, FromThird), order);
}

/// The four corners of two pixels' cells in the padded table: pixel j in the low half, j + 1 in
/// the high half.
__attribute__((target("avx2"))) inline __m256 cornerPair(const float* table,
                                                         const std::int32_t* indices) {
  return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(table + 4 * indices[0])),
                              _mm_loadu_ps(table + 4 * indices[1]), 1);
}

// LatticeSampler on eight pixels at a time; the same operations in the same order (no fused
// multiply-add), so every pixel matches the scalar result bit for bit. With the padded table
// each corner is one 16-byte load and two pixels share a register; without it (large tables)
// the corners are gathered channel by channel. Returns the pixels done (a multiple of eight).
template <bool Padded>
__attribute__((target("avx2"))) std::size_t latticeAvx2(const LatticeSampler& sampler,
                                                        const PixelRGB<float>* in,
                                                        PixelRGB<float>* out, std::size_t count,
                                                        float amount) {
  const float* source = &in->r;
  const __m256i orderR = _mm256_setr_epi32(0, 3, 6, 1, 4, 7, 2, 5);
  const __m256i orderG = _mm256_setr_epi32(1, 4, 7, 2, 5, 0, 3, 6);
  const __m256i orderB = _mm256_setr_epi32(2, 5, 0, 3, 6, 1, 4, 7);
  const __m256i lastCell = _mm256_set1_epi32(sampler.lastCell_);
  // The padded table is indexed by entry, the packed one by float.
  constexpr std::size_t kUnit = Padded ? 3 : 1;
  __m256i steps[3];
  for (std::size_t c = 0; c < 3; ++c)
    steps[c] = _mm256_set1_epi32(static_cast<int>(sampler.steps_[c] / kUnit));
  const __m256i stepAll = _mm256_add_epi32(_mm256_add_epi32(steps[0], steps[1]), steps[2]);
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 weight = _mm256_set1_ps(amount);
  const __m256 keep = _mm256_set1_ps(1.0f - amount);
  // Lanes of pair p's pixels, each over its half; two pixels' channels spread over the halves
  // and packed back into six floats.
  const __m256i pairLanes[4] = {
      _mm256_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1), _mm256_setr_epi32(2, 2, 2, 2, 3, 3, 3, 3),
      _mm256_setr_epi32(4, 4, 4, 4, 5, 5, 5, 5), _mm256_setr_epi32(6, 6, 6, 6, 7, 7, 7, 7)};
  const __m256i spreadPair = _mm256_setr_epi32(0, 1, 2, 2, 3, 4, 5, 5);
  const __m256i packPair = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
  const __m256i sixLanes = _mm256_setr_epi32(-1, -1, -1, -1, -1, -1, 0, 0);
  alignas(32) float lanes[3][8];
  alignas(32) std::int32_t corner[4][8];
  const float* padded = Padded ? sampler.padded_->data() : nullptr;
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 a0 = _mm256_loadu_ps(source + 3 * i);
    const __m256 a1 = _mm256_loadu_ps(source + 3 * i + 8);
    const __m256 a2 = _mm256_loadu_ps(source + 3 * i + 16);
    const __m256 x[3] = {channelOfEight<0x92, 0x24>(a0, a1, a2, orderR),
                         channelOfEight<0x24, 0x49>(a0, a1, a2, orderG),
                         channelOfEight<0x49, 0x92>(a0, a1, a2, orderB)};
    __m256 f[3];
    __m256i base = _mm256_setzero_si256();
    for (std::size_t c = 0; c < 3; ++c) {
      const DomainScale& scale = sampler.scales_[c];
      // max with the value first returns 0 for NaN, as fmax does.
      const __m256 position = _mm256_min_ps(
          _mm256_max_ps(_mm256_add_ps(_mm256_mul_ps(x[c], _mm256_set1_ps(scale.scale)),
                                      _mm256_set1_ps(scale.offset)),
                        _mm256_setzero_ps()),
          _mm256_set1_ps(scale.top));
      const __m256i cell = _mm256_min_epi32(_mm256_cvttps_epi32(position), lastCell);
      f[c] = _mm256_sub_ps(position, _mm256_cvtepi32_ps(cell));
      base = _mm256_add_epi32(base, _mm256_mullo_epi32(cell, steps[c]));
    }
    const __m256 high = _mm256_max_ps(_mm256_max_ps(f[0], f[1]), f[2]);
    const __m256 low = _mm256_min_ps(_mm256_min_ps(f[0], f[1]), f[2]);
    const __m256 mid =
        _mm256_max_ps(_mm256_min_ps(f[0], f[1]), _mm256_min_ps(_mm256_max_ps(f[0], f[1]), f[2]));
    // The first step goes along the axis of the largest fraction, the last along the smallest.
    const __m256 firstIsR = _mm256_cmp_ps(f[0], high, _CMP_EQ_OQ);
    const __m256 firstIsG = _mm256_cmp_ps(f[1], high, _CMP_EQ_OQ);
    const __m256 lastIsB = _mm256_cmp_ps(f[2], low, _CMP_EQ_OQ);
    const __m256 lastIsG = _mm256_cmp_ps(f[1], low, _CMP_EQ_OQ);
    const __m256i first = pick(pick(steps[2], steps[1], firstIsG), steps[0], firstIsR);
    const __m256i last = pick(pick(steps[0], steps[1], lastIsG), steps[2], lastIsB);
    const __m256i i1 = _mm256_add_epi32(base, first);
    const __m256i i2 = _mm256_sub_epi32(_mm256_add_epi32(base, stepAll), last);
    const __m256i i3 = _mm256_add_epi32(base, stepAll);
    const __m256 w0 = _mm256_sub_ps(one, high);
    const __m256 w1 = _mm256_sub_ps(high, mid);
    const __m256 w2 = _mm256_sub_ps(mid, low);
    if constexpr (Padded) {
      _mm256_store_si256(reinterpret_cast<__m256i*>(corner[0]), base);
      _mm256_store_si256(reinterpret_cast<__m256i*>(corner[1]), i1);
      _mm256_store_si256(reinterpret_cast<__m256i*>(corner[2]), i2);
      _mm256_store_si256(reinterpret_cast<__m256i*>(corner[3]), i3);
      for (std::size_t p = 0; p < 4; ++p) {
        const std::size_t j = 2 * p;
        const __m256i lane = pairLanes[p];
        __m256 v =
            _mm256_mul_ps(_mm256_permutevar8x32_ps(w0, lane), cornerPair(padded, &corner[0][j]));
        v = _mm256_add_ps(v, _mm256_mul_ps(_mm256_permutevar8x32_ps(w1, lane),
                                           cornerPair(padded, &corner[1][j])));
        v = _mm256_add_ps(v, _mm256_mul_ps(_mm256_permutevar8x32_ps(w2, lane),
                                           cornerPair(padded, &corner[2][j])));
        v = _mm256_add_ps(v, _mm256_mul_ps(_mm256_permutevar8x32_ps(low, lane),
                                           cornerPair(padded, &corner[3][j])));
        const float* pixels = source + 3 * (i + j);
        if (amount != 1.0f) {
          const __m256 xs =
              _mm256_permutevar8x32_ps(_mm256_maskload_ps(pixels, sixLanes), spreadPair);
          v = _mm256_add_ps(_mm256_mul_ps(v, weight), _mm256_mul_ps(xs, keep));
        }
        // Six floats in two stores, none past the pair: out may be in.
        const __m256 packed = _mm256_permutevar8x32_ps(v, packPair);
        float* target = &out[i + j].r;
        _mm_storeu_ps(target, _mm256_castps256_ps128(packed));
        _mm_storel_pi(reinterpret_cast<__m64*>(target + 4), _mm256_extractf128_ps(packed, 1));
      }
      continue;
    }
    for (std::size_t c = 0; c < 3; ++c) {
      const float* table = sampler.table_ + c;
      __m256 v = _mm256_mul_ps(w0, _mm256_i32gather_ps(table, base, 4));
      v = _mm256_add_ps(v, _mm256_mul_ps(w1, _mm256_i32gather_ps(table, i1, 4)));
      v = _mm256_add_ps(v, _mm256_mul_ps(w2, _mm256_i32gather_ps(table, i2, 4)));
      v = _mm256_add_ps(v, _mm256_mul_ps(low, _mm256_i32gather_ps(table, i3, 4)));
      if (amount != 1.0f) v = _mm256_add_ps(_mm256_mul_ps(v, weight), _mm256_mul_ps(x[c], keep));
      _mm256_store_ps(lanes[c], v);
    }
    for (std::size_t k = 0; k < 8; ++k)
      out[i + k] = PixelRGB<float>(lanes[0][k], lanes[1][k], lanes[2][k]);
  }
  return i;
}

#define VORN_LUT_AVX512 __attribute__((target("avx512f,avx512vl")))

/// Picks lanes c, c + 3, c + 6 ... of 48 interleaved floats: one channel of 16 pixels.
struct ChannelLanes {
  __m512i fromFirstTwo;
  __m512i fromThird;
  __mmask16 third;
};

VORN_LUT_AVX512 inline ChannelLanes channelLanes(int c) {
  alignas(64) std::int32_t low[16];
  alignas(64) std::int32_t high[16];
  for (int k = 0; k < 16; ++k) {
    low[k] = 3 * k + c < 32 ? 3 * k + c : 0;
    high[k] = 3 * k + c >= 32 ? 3 * k + c - 32 : 0;
  }
  return {_mm512_load_si512(low), _mm512_load_si512(high),
          static_cast<__mmask16>(0xffffu << ((32 - c + 2) / 3))};
}

VORN_LUT_AVX512 inline __m512 channelOf(__m512 a0, __m512 a1, __m512 a2, const ChannelLanes& c) {
  const __m512 firstTwo = _mm512_permutex2var_ps(a0, c.fromFirstTwo, a1);
  return _mm512_mask_permutexvar_ps(firstTwo, c.third, c.fromThird, a2);
}

/// The 16-byte corners at entry indices[j ... j + 3] of the padded table, one per 128-bit lane.
VORN_LUT_AVX512 inline __m512 cornersOf(const float* table, const std::int32_t* indices) {
  __m512 v = _mm512_castps128_ps512(_mm_loadu_ps(table + 4 * indices[0]));
  v = _mm512_insertf32x4(v, _mm_loadu_ps(table + 4 * indices[1]), 1);
  v = _mm512_insertf32x4(v, _mm_loadu_ps(table + 4 * indices[2]), 2);
  return _mm512_insertf32x4(v, _mm_loadu_ps(table + 4 * indices[3]), 3);
}

/// The four weights at `four`, each repeated over its pixel's 128-bit lane.
VORN_LUT_AVX512 inline __m512 spreadWeights(const float* four) {
  return _mm512_permutexvar_ps(_mm512_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3),
                               _mm512_castps128_ps512(_mm_load_ps(four)));
}

// LatticeSampler on sixteen pixels at a time: cells and weights as in the AVX2 kernel, then each
// corner as one 16-byte load of the padded table and the blend done four pixels to a register,
// in the scalar order (no fused multiply-add), so every pixel matches it bit for bit.
VORN_LUT_AVX512 std::size_t latticeAvx512(const LatticeSampler& sampler, const PixelRGB<float>* in,
                                          PixelRGB<float>* out, std::size_t count, float amount) {
  const float* table = sampler.padded_->data();
  const __m512i lastCell = _mm512_set1_epi32(sampler.lastCell_);
  __m512i steps[3];
  for (std::size_t c = 0; c < 3; ++c)
    steps[c] = _mm512_set1_epi32(static_cast<int>(sampler.steps_[c] / 3));
  const __m512i stepAll = _mm512_add_epi32(_mm512_add_epi32(steps[0], steps[1]), steps[2]);
  const __m512 one = _mm512_set1_ps(1.0f);
  const __m512 weight = _mm512_set1_ps(amount);
  const __m512 keep = _mm512_set1_ps(1.0f - amount);
  // Pixel k of a group of four spread over its 128-bit lane, and back to 12 packed floats.
  const __m512i spreadPixels = _mm512_setr_epi32(0, 1, 2, 2, 3, 4, 5, 5, 6, 7, 8, 8, 9, 10, 11, 11);
  const __m512i packPixels = _mm512_setr_epi32(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 0, 0, 0, 0);
  const ChannelLanes lanes[3] = {channelLanes(0), channelLanes(1), channelLanes(2)};
  alignas(64) std::int32_t corner[4][16];
  alignas(64) float weights[4][16];
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const float* source = &in[i].r;
    const __m512 a0 = _mm512_loadu_ps(source);
    const __m512 a1 = _mm512_loadu_ps(source + 16);
    const __m512 a2 = _mm512_loadu_ps(source + 32);
    __m512 f[3];
    __m512i base = _mm512_setzero_si512();
    for (std::size_t c = 0; c < 3; ++c) {
      const __m512 x = channelOf(a0, a1, a2, lanes[c]);
      const DomainScale& scale = sampler.scales_[c];
      const __m512 position =
          _mm512_min_ps(_mm512_max_ps(_mm512_add_ps(_mm512_mul_ps(x, _mm512_set1_ps(scale.scale)),
                                                    _mm512_set1_ps(scale.offset)),
                                      _mm512_setzero_ps()),
                        _mm512_set1_ps(scale.top));
      const __m512i cell = _mm512_min_epi32(_mm512_cvttps_epi32(position), lastCell);
      f[c] = _mm512_sub_ps(position, _mm512_cvtepi32_ps(cell));
      base = _mm512_add_epi32(base, _mm512_mullo_epi32(cell, steps[c]));
    }
    const __m512 high = _mm512_max_ps(_mm512_max_ps(f[0], f[1]), f[2]);
    const __m512 low = _mm512_min_ps(_mm512_min_ps(f[0], f[1]), f[2]);
    const __m512 mid =
        _mm512_max_ps(_mm512_min_ps(f[0], f[1]), _mm512_min_ps(_mm512_max_ps(f[0], f[1]), f[2]));
    const __mmask16 firstIsR = _mm512_cmp_ps_mask(f[0], high, _CMP_EQ_OQ);
    const __mmask16 firstIsG = _mm512_cmp_ps_mask(f[1], high, _CMP_EQ_OQ);
    const __mmask16 lastIsB = _mm512_cmp_ps_mask(f[2], low, _CMP_EQ_OQ);
    const __mmask16 lastIsG = _mm512_cmp_ps_mask(f[1], low, _CMP_EQ_OQ);
    const __m512i first = _mm512_mask_mov_epi32(_mm512_mask_mov_epi32(steps[2], firstIsG, steps[1]),
                                                firstIsR, steps[0]);
    const __m512i last = _mm512_mask_mov_epi32(_mm512_mask_mov_epi32(steps[0], lastIsG, steps[1]),
                                               lastIsB, steps[2]);
    _mm512_store_si512(corner[0], base);
    _mm512_store_si512(corner[1], _mm512_add_epi32(base, first));
    _mm512_store_si512(corner[2], _mm512_sub_epi32(_mm512_add_epi32(base, stepAll), last));
    _mm512_store_si512(corner[3], _mm512_add_epi32(base, stepAll));
    _mm512_store_ps(weights[0], _mm512_sub_ps(one, high));
    _mm512_store_ps(weights[1], _mm512_sub_ps(high, mid));
    _mm512_store_ps(weights[2], _mm512_sub_ps(mid, low));
    _mm512_store_ps(weights[3], low);
    for (std::size_t j = 0; j < 16; j += 4) {
      __m512 v = _mm512_mul_ps(spreadWeights(&weights[0][j]), cornersOf(table, &corner[0][j]));
      v = _mm512_add_ps(
          v, _mm512_mul_ps(spreadWeights(&weights[1][j]), cornersOf(table, &corner[1][j])));
      v = _mm512_add_ps(
          v, _mm512_mul_ps(spreadWeights(&weights[2][j]), cornersOf(table, &corner[2][j])));
      v = _mm512_add_ps(
          v, _mm512_mul_ps(spreadWeights(&weights[3][j]), cornersOf(table, &corner[3][j])));
      float* target = &out[i + j].r;
      if (amount != 1.0f) {
        const __m512 x =
            _mm512_permutexvar_ps(spreadPixels, _mm512_maskz_loadu_ps(0x0fff, source + 3 * j));
        v = _mm512_add_ps(_mm512_mul_ps(v, weight), _mm512_mul_ps(x, keep));
      }
      // A fixed permutation and a masked store: a compressing store to memory is microcoded
      // on some cores and took most of the loop's time.
      _mm512_mask_storeu_ps(target, 0x0fff, _mm512_permutexvar_ps(packPixels, v));
    }
  }
  return i;
}

#undef VORN_LUT_AVX512

#pragma GCC diagnostic pop

/// Pixels a vector kernel of the sampler has done; the scalar loop takes the rest.
std::size_t vectorPart(const CurveSampler&, const PixelRGB<float>*, PixelRGB<float>*, std::size_t,
                       float) {
  return 0;
}

std::size_t vectorPart(const LatticeSampler& sampler, const PixelRGB<float>* in,
                       PixelRGB<float>* out, std::size_t count, float amount) {
  static const bool kAvx512 =
      __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl");
  static const bool kAvx2 = __builtin_cpu_supports("avx2");
  if (kAvx512 && sampler.padded_) return latticeAvx512(sampler, in, out, count, amount);
  if (!kAvx2) return 0;
  return sampler.padded_ ? latticeAvx2<true>(sampler, in, out, count, amount)
                         : latticeAvx2<false>(sampler, in, out, count, amount);
}

/// The scalar loop over the pixels from `done` on, which the vector kernel left.
template <typename Sampler>
void scalarPart(const Sampler& sampler, const PixelRGB<float>* in, PixelRGB<float>* out,
                std::size_t done, std::size_t count, float amount) {
  if (amount == 1.0f) {
    for (std::size_t i = done; i < count; ++i) out[i] = sampler(in[i]);
    return;
  }
  const float keep = 1.0f - amount;
  for (std::size_t i = done; i < count; ++i) {
    const PixelRGB<float> mapped = sampler(in[i]);
    out[i] = detail::perChannel(mapped, in[i],
                                [amount, keep](float m, float x) { return m * amount + x * keep; });
  }
}

template <typename Sampler>
std::unique_ptr<detail::RowKernel> lutKernel(std::shared_ptr<const CubeLut> lut, float amount) {
  const Sampler sampler(*lut);
  // The lambda owns the table the sampler points into.
  return detail::rowKernel([lut = std::move(lut), sampler, amount](
                               const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
    scalarPart(sampler, in, out, vectorPart(sampler, in, out, count, amount), count, amount);
  });
}

}  // namespace

// An identity table is detected when parsed and skipped, so the picture comes back bit for bit
// (values outside the unit domain included, which the table itself would clamp).
PointEffect::Kernel LUTMappingEffect::prepare(const Setup&) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  const std::string name = lutName(*this);
  if (amount == 0.0f || name.empty()) return nullptr;
  std::shared_ptr<const CubeLut> lut = detail::cachedCube(name);
  if (!lut || lut->identity) return nullptr;
  if (lut->is3D) return lutKernel<LatticeSampler>(std::move(lut), amount);
  return lutKernel<CurveSampler>(std::move(lut), amount);
}

namespace detail {

bool sampleLatticeWith(LutIsa isa, const CubeLut& lut, bool padded, const PixelRGB<float>* in,
                       PixelRGB<float>* out, std::size_t count, float amount) {
  if (!lut.is3D) return false;
  const LatticeSampler sampler(lut, padded);
  std::size_t done = 0;
  __builtin_cpu_init();
  switch (isa) {
    case LutIsa::Scalar:
      break;
    case LutIsa::Avx2:
      if (!__builtin_cpu_supports("avx2")) return false;
      done = padded ? latticeAvx2<true>(sampler, in, out, count, amount)
                    : latticeAvx2<false>(sampler, in, out, count, amount);
      break;
    case LutIsa::Avx512:
      if (!padded || !sampler.padded_ || !__builtin_cpu_supports("avx512f") ||
          !__builtin_cpu_supports("avx512vl"))
        return false;
      done = latticeAvx512(sampler, in, out, count, amount);
      break;
  }
  scalarPart(sampler, in, out, done, count, amount);
  return true;
}

}  // namespace detail

}  // namespace vorn
