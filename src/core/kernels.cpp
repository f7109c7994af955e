#include "core/kernels.h"

#include <emmintrin.h>

#include "core/dispatch.h"

namespace vorn::detail {

VORN_DISPATCH void clampFloats(float* values, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    float v = values[i];
    v = v > 0.0f ? v : 0.0f;
    values[i] = v > 1.0f ? 1.0f : v;
  }
}

VORN_DISPATCH void clampCopyFloats(float* __restrict dst, const float* __restrict src,
                                   std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    float v = src[i];
    v = v > 0.0f ? v : 0.0f;
    dst[i] = v > 1.0f ? 1.0f : v;
  }
}

namespace {

// max(v, 0) with 0 as the second operand also turns NaN into 0; then min(v, 1), scaled, and
// rounded by truncating v * scale + 0.5 (never negative).
inline __m128i scaledCodes(const float* values, __m128 scale) {
  const __m128 half = _mm_set1_ps(0.5f);
  __m128 v = _mm_max_ps(_mm_loadu_ps(values), _mm_setzero_ps());
  v = _mm_min_ps(v, _mm_set1_ps(1.0f));
  return _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(v, scale), half));
}

template <typename Code>
void quantizeTail(const float* values, std::size_t count, float scale, Code* out) {
  for (std::size_t i = 0; i < count; ++i) {
    float v = values[i] > 0.0f ? values[i] : 0.0f;
    v = v < 1.0f ? v : 1.0f;
    out[i] = static_cast<Code>(v * scale + 0.5f);
  }
}

}  // namespace

// SSE2 is in every x86-64: sixteen samples a step, packed with saturation.
void quantizeToBytes(const float* values, std::size_t count, std::uint8_t* out) {
  const __m128 scale = _mm_set1_ps(255.0f);
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m128i low =
        _mm_packs_epi32(scaledCodes(values + i, scale), scaledCodes(values + i + 4, scale));
    const __m128i high =
        _mm_packs_epi32(scaledCodes(values + i + 8, scale), scaledCodes(values + i + 12, scale));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm_packus_epi16(low, high));
  }
  quantizeTail(values + i, count - i, 255.0f, out + i);
}

// Codes above 32767 do not survive the signed pack: they are moved down by 32768 before it and
// back up (by flipping the top bit) after.
void quantizeToWords(const float* values, std::size_t count, std::uint16_t* out) {
  const __m128 scale = _mm_set1_ps(65535.0f);
  const __m128i bias = _mm_set1_epi32(32768);
  const __m128i flip = _mm_set1_epi16(static_cast<short>(0x8000));
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m128i a = _mm_sub_epi32(scaledCodes(values + i, scale), bias);
    const __m128i b = _mm_sub_epi32(scaledCodes(values + i + 4, scale), bias);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i),
                     _mm_xor_si128(_mm_packs_epi32(a, b), flip));
  }
  quantizeTail(values + i, count - i, 65535.0f, out + i);
}

VORN_DISPATCH void accumulateScaledFloats(float* __restrict acc, const float* __restrict row,
                                          float weight, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) acc[i] += weight * row[i];
}

}  // namespace vorn::detail
