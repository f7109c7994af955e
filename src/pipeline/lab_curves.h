#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

namespace vorn::detail {

// The curves between sRGB-encoded values and CIE L*a*b*, written as straight-line arithmetic
// without division (inverse roots by Newton steps) so that they vectorise without table gathers
// and stay off the divider; relative error below 1.2e-5 on the ranges used.

/// r^N by repeated squaring.
template <int N>
[[gnu::always_inline]] inline float powInt(float r) {
  if constexpr (N == 1) {
    return r;
  } else if constexpr (N % 2 == 0) {
    const float half = powInt<N / 2>(r);
    return half * half;
  } else {
    return powInt<N - 1>(r) * r;
  }
}

/// x^(-1/N) for x in [1e-3, 1] (N = 3 or 5): an estimate from the exponent bits, then two
/// Newton steps r * ((N + 1) - x r^N) / N, each of which squares the relative error. A plain
/// step always lands low; scaling it by a factor just above 1 centres its error, which leaves
/// 1.6e-6 (N = 3) and 3.6e-6 (N = 5) after the second step where a third would cost 15% more.
template <int N>
[[gnu::always_inline]] inline float inverseRoot(float x) {
  static_assert(N == 3 || N == 5);
  // Near (N + 1) / N times the bits of 1.0; it and the factors were fitted for the smallest
  // worst error on [1e-3, 1].
  constexpr std::int32_t kMagic = N == 3 ? 0x54a21aaa : 0x4c2b899a;
  constexpr float kCentre[2] = {N == 3 ? 1.0012002f : 1.0015002f,
                                N == 3 ? 1.00000143f : 1.00000334f};
  // bits / N through float: exact enough for an estimate, and it vectorises where an integer
  // division does not.
  const float bits = static_cast<float>(std::bit_cast<std::int32_t>(x));
  float r = std::bit_cast<float>(kMagic - static_cast<std::int32_t>(bits * (1.0f / N)));
  const float xOverN = x * (1.0f / N);
  for (const float centre : kCentre)
    r = r * (centre * ((N + 1.0f) / N) - (centre * xOverN) * powInt<N>(r));
  return r;
}

/// Cube root of x in [1e-3, 1].
[[gnu::always_inline]] inline float fastCbrt(float x) {
  const float r = inverseRoot<3>(x);
  return x * r * r;
}

/// x^2.4 for x in [1e-3, 1], as x^3 * (x^(-1/5))^3.
[[gnu::always_inline]] inline float pow2point4(float x) {
  const float r = inverseRoot<5>(x);
  return (x * x * x) * (r * r * r);
}

[[gnu::always_inline]] inline float clampUnit(float v) {
  v = v > 0.0f ? v : 0.0f;
  return v < 1.0f ? v : 1.0f;
}

/// sRGB-encoded to linear, v limited to [0, 1] first (NaN reads as 0).
[[gnu::always_inline]] inline float srgbToLinear(float v) {
  v = clampUnit(v);
  const float curve = pow2point4((v + 0.055f) * (1.0f / 1.055f));
  return v <= 0.04045f ? v * (1.0f / 12.92f) : curve;
}

/// Linear in [0, 1] to sRGB-encoded; v^(1/2.4) is c * c^(1/4) with c = cbrt(v).
[[gnu::always_inline]] inline float linearToSrgb(float v) {
  const float c = fastCbrt(v > 1e-3f ? v : 1e-3f);
  const float curve = 1.055f * c * std::sqrt(std::sqrt(c)) - 0.055f;
  return v <= 0.0031308f ? 12.92f * v : curve;
}

/// f(t) of L*a*b* for t in [0, 1]: a cube root above (6/29)^3, a line below.
[[gnu::always_inline]] inline float labF(float t) {
  constexpr float kEdge = 6.0f / 29.0f;
  const float root = fastCbrt(t > 1e-3f ? t : 1e-3f);
  const float line = t * (1.0f / (3.0f * kEdge * kEdge)) + 4.0f / 29.0f;
  return t > kEdge * kEdge * kEdge ? root : line;
}

/// The inverse of f(t): a cube above 6/29, a line below.
[[gnu::always_inline]] inline float labFInverse(float u) {
  constexpr float kEdge = 6.0f / 29.0f;
  const float line = 3.0f * kEdge * kEdge * (u - 4.0f / 29.0f);
  return u > kEdge ? u * u * u : line;
}

/// Linear sRGB to XYZ divided by the D65 white (so that white is (1, 1, 1) on both sides) and
/// its inverse, row-major.
struct LabMatrices {
  std::array<float, 9> toXyz;
  std::array<float, 9> fromXyz;
};

/// The matrices, computed on first use.
const LabMatrices& labMatrices();

}  // namespace vorn::detail
