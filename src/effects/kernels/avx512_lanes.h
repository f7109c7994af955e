#pragma once

#include <immintrin.h>

#include <cstddef>
#include <type_traits>

// Hand-written AVX-512 passes: the target attributes, the CPU check, and the loads, stores and
// loop that handle a count of values not a multiple of 16.
namespace vorn::detail {

#define VORN_AVX512 __attribute__((target("avx512f")))
// For the bodies of loops given as closures: a closure does not inherit its function's target.
#define VORN_AVX512_INLINE __attribute__((always_inline, target("avx512f")))

/// Whether the running CPU has AVX-512, asked once.
inline bool hasAvx512() {
  static const bool supported = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512f") != 0;
  }();
  return supported;
}

/// The first `values` of 16 lanes.
inline __mmask16 firstLanes(std::size_t values) {
  return static_cast<__mmask16>((1u << (values < 16 ? values : 16)) - 1u);
}

/// The first n of 16 lanes of v stored at out.
VORN_AVX512 inline void storeLanesAvx512(float* out, __m512 v, std::size_t n) {
  if (n == 16) {
    _mm512_storeu_ps(out, v);
  } else {
    _mm512_mask_storeu_ps(out, firstLanes(n), v);
  }
}

/// The first n of 16 values at in, the rest zero.
VORN_AVX512 inline __m512 loadLanesAvx512(const float* in, std::size_t n) {
  return n == 16 ? _mm512_loadu_ps(in) : _mm512_maskz_loadu_ps(firstLanes(n), in);
}

/// body(i, n) for the vectors of count values or pixels, n of them in the vector: the constant
/// 16 in the main loop, so that it compiles without masks or tail branches, and once more for
/// the rest, below 16.
template <typename Body>
VORN_AVX512 inline void forVectors(std::size_t count, const Body& body) {
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) body(i, std::integral_constant<std::size_t, 16>{});
  if (i < count) body(i, count - i);
}

}  // namespace vorn::detail
