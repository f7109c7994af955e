#include "effects/kernels/tone_curve.h"

#include <immintrin.h>

#include <algorithm>
#include <cfloat>

#include "core/dispatch.h"
#include "effects/kernels/luminance.h"
#include "effects/render.h"

namespace vorn::detail {

namespace {

constexpr float kLast = static_cast<float>(kToneCurveLast);

// The line above the threshold, kept finite: an infinite input or an overflowing product ends
// at the largest float of its sign, so no lookup hands on a non-finite value.
float finiteLine(float slope, float x, float threshold, float atThreshold) {
  const float y = slope * (std::min(x, FLT_MAX) - threshold) + atThreshold;
  return std::max(std::min(y, FLT_MAX), -FLT_MAX);
}

void toneCurveScalar(const ToneCurveLookup& lookup, const float* in, float* out,
                     std::size_t count) {
  const float* pairs = lookup.pairs.data();
  for (std::size_t i = 0; i < count; ++i) {
    const float x = in[i];
    if (x > lookup.threshold) {
      out[i] = finiteLine(lookup.slope, x, lookup.threshold, lookup.valueAtThreshold);
      continue;
    }
    const float scaled = (x > 0.0f ? x : 0.0f) * kLast;
    const int n = static_cast<int>(scaled);
    const float t = scaled - static_cast<float>(n);
    out[i] = (1.0f - t) * pairs[2 * n] + t * pairs[2 * n + 1];
  }
}

// GCC 12's intrinsic headers seed results with self-initialised "undefined" vectors, which
// -Wmaybe-uninitialized reports in every caller; the values are always overwritten.
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// The table branch is computed for every lane with x limited to [0, threshold], which keeps
// the index inside the table, and the line replaces it where x is above the threshold.
__attribute__((target("avx2,fma"))) void toneCurveAvx2(const ToneCurveLookup& lookup,
                                                       const float* in, float* out,
                                                       std::size_t count) {
  const __m256 threshold = _mm256_set1_ps(lookup.threshold);
  const __m256 slope = _mm256_set1_ps(lookup.slope);
  const __m256 atThreshold = _mm256_set1_ps(lookup.valueAtThreshold);
  const __m256 last = _mm256_set1_ps(kLast);
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 highest = _mm256_set1_ps(FLT_MAX);
  const __m256 lowest = _mm256_set1_ps(-FLT_MAX);
  const __m256i evenFirst = _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7);
  const double* pairs = reinterpret_cast<const double*>(lookup.pairs.data());
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 x = _mm256_loadu_ps(in + i);
    // max(x, 0) with x first returns 0 for NaN.
    const __m256 limited = _mm256_min_ps(_mm256_max_ps(x, _mm256_setzero_ps()), threshold);
    const __m256 scaled = _mm256_mul_ps(limited, last);
    const __m256i n = _mm256_cvttps_epi32(scaled);
    const __m256 t = _mm256_sub_ps(scaled, _mm256_cvtepi32_ps(n));
    const __m256d low = _mm256_i32gather_pd(pairs, _mm256_castsi256_si128(n), 8);
    const __m256d high = _mm256_i32gather_pd(pairs, _mm256_extracti128_si256(n, 1), 8);
    const __m256 lowSorted = _mm256_permutevar8x32_ps(_mm256_castpd_ps(low), evenFirst);
    const __m256 highSorted = _mm256_permutevar8x32_ps(_mm256_castpd_ps(high), evenFirst);
    const __m256 a = _mm256_permute2f128_ps(lowSorted, highSorted, 0x20);
    const __m256 b = _mm256_permute2f128_ps(lowSorted, highSorted, 0x31);
    const __m256 table = _mm256_fmadd_ps(t, b, _mm256_mul_ps(_mm256_sub_ps(one, t), a));
    const __m256 line = _mm256_max_ps(
        _mm256_min_ps(_mm256_fmadd_ps(slope, _mm256_sub_ps(_mm256_min_ps(x, highest), threshold),
                                      atThreshold),
                      highest),
        lowest);
    const __m256 above = _mm256_cmp_ps(x, threshold, _CMP_GT_OQ);
    _mm256_storeu_ps(out + i, _mm256_blendv_ps(table, line, above));
  }
  toneCurveScalar(lookup, in + i, out + i, count - i);
}

__attribute__((target("avx512f"))) void toneCurveAvx512(const ToneCurveLookup& lookup,
                                                        const float* in, float* out,
                                                        std::size_t count) {
  const __m512 threshold = _mm512_set1_ps(lookup.threshold);
  const __m512 slope = _mm512_set1_ps(lookup.slope);
  const __m512 atThreshold = _mm512_set1_ps(lookup.valueAtThreshold);
  const __m512 last = _mm512_set1_ps(kLast);
  const __m512 one = _mm512_set1_ps(1.0f);
  const __m512 highest = _mm512_set1_ps(FLT_MAX);
  const __m512 lowest = _mm512_set1_ps(-FLT_MAX);
  const __m512i evens =
      _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
  const __m512i odds = _mm512_setr_epi32(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
  const double* pairs = reinterpret_cast<const double*>(lookup.pairs.data());
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m512 x = _mm512_loadu_ps(in + i);
    const __m512 limited = _mm512_min_ps(_mm512_max_ps(x, _mm512_setzero_ps()), threshold);
    const __m512 scaled = _mm512_mul_ps(limited, last);
    const __m512i n = _mm512_cvttps_epi32(scaled);
    const __m512 t = _mm512_sub_ps(scaled, _mm512_cvtepi32_ps(n));
    const __m512 low = _mm512_castpd_ps(_mm512_i32gather_pd(_mm512_castsi512_si256(n), pairs, 8));
    const __m512 high =
        _mm512_castpd_ps(_mm512_i32gather_pd(_mm512_extracti64x4_epi64(n, 1), pairs, 8));
    const __m512 a = _mm512_permutex2var_ps(low, evens, high);
    const __m512 b = _mm512_permutex2var_ps(low, odds, high);
    const __m512 table = _mm512_fmadd_ps(t, b, _mm512_mul_ps(_mm512_sub_ps(one, t), a));
    const __m512 line = _mm512_max_ps(
        _mm512_min_ps(_mm512_fmadd_ps(slope, _mm512_sub_ps(_mm512_min_ps(x, highest), threshold),
                                      atThreshold),
                      highest),
        lowest);
    const __mmask16 above = _mm512_cmp_ps_mask(x, threshold, _CMP_GT_OQ);
    _mm512_storeu_ps(out + i, _mm512_mask_blend_ps(above, table, line));
  }
  toneCurveScalar(lookup, in + i, out + i, count - i);
}

#pragma GCC diagnostic pop

using ToneCurveKernel = void (*)(const ToneCurveLookup&, const float*, float*, std::size_t);

// Gathers of whole (entry, successor) pairs beat both scalar loads and 32-bit gathers on the
// machines measured; the choice is made once per process.
ToneCurveKernel selectToneCurveKernel() {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) return toneCurveAvx512;
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return toneCurveAvx2;
  return toneCurveScalar;
}

// Luminance keys of one block, limited to [kMinKey, kMaxKey] (NaN becomes kMinKey), and the
// argument of the curve in the chosen domain.
VORN_DISPATCH void prepareKeys(const float* __restrict pixels, const float* __restrict keys,
                               float* __restrict limited, float* __restrict argument,
                               std::size_t count, bool hdr) {
  for (std::size_t i = 0; i < count; ++i) {
    float key = keys ? keys[i] : luminance(pixels[3 * i], pixels[3 * i + 1], pixels[3 * i + 2]);
    key = key > kMinKey ? key : kMinKey;
    key = key < kMaxKey ? key : kMaxKey;
    limited[i] = key;
    argument[i] = hdr ? key / (1.0f + key) : key;
  }
}

VORN_DISPATCH void gainsOf(const float* __restrict limited, const float* __restrict mapped,
                           float* __restrict gains, std::size_t count, bool hdr) {
  constexpr float kBelowOne = 1.0f - 1.0f / 1048576.0f;
  for (std::size_t i = 0; i < count; ++i) {
    float target = mapped[i];
    if (hdr) {
      target = target < kBelowOne ? target : kBelowOne;
      target = target / (1.0f - target);
    }
    gains[i] = target / limited[i];
  }
}

// out = pixel * gain per channel, made finite in the register before it is stored (NaN to 0,
// overflow to the largest float): the keyed gain needs no separate tail pass.
void applyGainsScalar(const float* pixels, const float* gains, float* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    for (std::size_t c = 0; c < 3; ++c) out[3 * i + c] = finiteValue(pixels[3 * i + c] * gains[i]);
  }
}

#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

__attribute__((target("avx2"))) void applyGainsAvx2(const float* pixels, const float* gains,
                                                    float* out, std::size_t count) {
  // Each gain repeated for the three channels of its pixel, eight pixels at a time.
  const __m256i spread[3] = {_mm256_setr_epi32(0, 0, 0, 1, 1, 1, 2, 2),
                             _mm256_setr_epi32(2, 3, 3, 3, 4, 4, 4, 5),
                             _mm256_setr_epi32(5, 5, 6, 6, 6, 7, 7, 7)};
  const __m256 high = _mm256_set1_ps(FLT_MAX);
  const __m256 low = _mm256_set1_ps(-FLT_MAX);
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 gain = _mm256_loadu_ps(gains + i);
    for (int part = 0; part < 3; ++part) {
      const __m256 v = _mm256_mul_ps(_mm256_loadu_ps(pixels + 3 * i + 8 * part),
                                     _mm256_permutevar8x32_ps(gain, spread[part]));
      const __m256 ordered = _mm256_and_ps(v, _mm256_cmp_ps(v, v, _CMP_ORD_Q));
      _mm256_storeu_ps(out + 3 * i + 8 * part, _mm256_max_ps(_mm256_min_ps(ordered, high), low));
    }
  }
  applyGainsScalar(pixels + 3 * i, gains + i, out + 3 * i, count - i);
}

__attribute__((target("avx512f"))) void applyGainsAvx512(const float* pixels, const float* gains,
                                                         float* out, std::size_t count) {
  const __m512i spread[3] = {
      _mm512_setr_epi32(0, 0, 0, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 5),
      _mm512_setr_epi32(5, 5, 6, 6, 6, 7, 7, 7, 8, 8, 8, 9, 9, 9, 10, 10),
      _mm512_setr_epi32(10, 11, 11, 11, 12, 12, 12, 13, 13, 13, 14, 14, 14, 15, 15, 15)};
  // The classes of makeFinite's table: NaN to +0, infinities to the largest float of their sign.
  const __m512i table = _mm512_set1_epi32(0x11EF1188);
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m512 gain = _mm512_loadu_ps(gains + i);
    for (int part = 0; part < 3; ++part) {
      const __m512 v = _mm512_mul_ps(_mm512_loadu_ps(pixels + 3 * i + 16 * part),
                                     _mm512_permutexvar_ps(spread[part], gain));
      _mm512_storeu_ps(out + 3 * i + 16 * part, _mm512_fixupimm_ps(v, v, table, 0));
    }
  }
  applyGainsScalar(pixels + 3 * i, gains + i, out + 3 * i, count - i);
}

#pragma GCC diagnostic pop

using GainsKernel = void (*)(const float*, const float*, float*, std::size_t);

GainsKernel selectGainsKernel() {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) return applyGainsAvx512;
  if (__builtin_cpu_supports("avx2")) return applyGainsAvx2;
  return applyGainsScalar;
}

}  // namespace

float interpolateToneCurve(const ToneCurveTable& table, float x) {
  const float limited = std::min(x > 0.0f ? x : 0.0f, 1.0f);
  const float scaled = kLast * limited;
  const auto n = std::min(static_cast<std::size_t>(scaled), kToneCurveLast);
  const float t = scaled - static_cast<float>(n);
  return (1.0f - t) * table.values[n] + t * table.values[n + 1];
}

float lookupToneCurve(const ToneCurveTable& table, float x) {
  if (x > table.threshold) {
    if (table.threshold < 1.0f) {
      const float y = (table.valueAtOne - table.valueAtThreshold) *
                          (std::min(x, FLT_MAX) - table.threshold) / (1.0f - table.threshold) +
                      table.valueAtThreshold;
      return std::max(std::min(y, FLT_MAX), -FLT_MAX);
    }
    const float tangent = (table.values[kToneCurveLast] - table.values[kToneCurveLast - 1]) * kLast;
    return finiteLine(tangent, x, table.threshold, table.valueAtThreshold);
  }
  return interpolateToneCurve(table, x);
}

ToneCurveLookup::ToneCurveLookup(const ToneCurveTable& table)
    : threshold(table.threshold), valueAtThreshold(table.valueAtThreshold) {
  for (std::size_t n = 0; n <= kToneCurveLast; ++n) {
    pairs[2 * n] = table.values[n];
    pairs[2 * n + 1] = table.values[n + 1];
  }
  slope = table.threshold < 1.0f
              ? (table.valueAtOne - table.valueAtThreshold) / (1.0f - table.threshold)
              : (table.values[kToneCurveLast] - table.values[kToneCurveLast - 1]) * kLast;
}

void applyToneCurve(const ToneCurveLookup& lookup, const float* in, float* out, std::size_t count) {
  static const ToneCurveKernel kernel = selectToneCurveKernel();
  kernel(lookup, in, out, count);
}

bool applyToneCurveWith(ToneCurveIsa isa, const ToneCurveLookup& lookup, const float* in,
                        float* out, std::size_t count) {
  __builtin_cpu_init();
  switch (isa) {
    case ToneCurveIsa::Scalar:
      toneCurveScalar(lookup, in, out, count);
      return true;
    case ToneCurveIsa::Avx2:
      if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma")) return false;
      toneCurveAvx2(lookup, in, out, count);
      return true;
    case ToneCurveIsa::Avx512:
      if (!__builtin_cpu_supports("avx512f")) return false;
      toneCurveAvx512(lookup, in, out, count);
      return true;
  }
  return false;
}

bool applyGainsWith(ToneCurveIsa isa, const float* pixels, const float* gains, float* out,
                    std::size_t count) {
  __builtin_cpu_init();
  switch (isa) {
    case ToneCurveIsa::Scalar:
      applyGainsScalar(pixels, gains, out, count);
      return true;
    case ToneCurveIsa::Avx2:
      if (!__builtin_cpu_supports("avx2")) return false;
      applyGainsAvx2(pixels, gains, out, count);
      return true;
    case ToneCurveIsa::Avx512:
      if (!__builtin_cpu_supports("avx512f")) return false;
      applyGainsAvx512(pixels, gains, out, count);
      return true;
  }
  return false;
}

void applyKeyedGain(const ToneCurveLookup& curve, GainDomain domain, const PixelRGB<float>* in,
                    const float* keys, PixelRGB<float>* out, std::size_t count) {
  constexpr std::size_t kBlock = 512;
  static const GainsKernel applyGains = selectGainsKernel();
  const bool hdr = domain == GainDomain::Hdr;
  alignas(64) float limited[kBlock];
  alignas(64) float argument[kBlock];
  alignas(64) float mapped[kBlock];
  for (std::size_t start = 0; start < count; start += kBlock) {
    const std::size_t block = std::min(kBlock, count - start);
    const float* pixels = &in[start].r;
    prepareKeys(pixels, keys ? keys + start : nullptr, limited, argument, block, hdr);
    applyToneCurve(curve, argument, mapped, block);
    // The curve's argument is spent: its array takes the gains.
    gainsOf(limited, mapped, argument, block, hdr);
    applyGains(pixels, argument, &out[start].r, block);
  }
}

}  // namespace vorn::detail
