#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

namespace vorn::detail {

// The curves between sRGB-encoded values and CIE L*a*b*, written as straight-line arithmetic
// (a log2 / exp2 pair and a cube root by Halley steps) so that they vectorise without table
// gathers; relative error below 1e-6 on the ranges used.

/// log2 of a positive normal float.
[[gnu::always_inline]] inline float fastLog2(float x) {
  constexpr std::int32_t kSqrtHalfBits = 0x3f3504f3;
  const std::int32_t bits = std::bit_cast<std::int32_t>(x);
  // The exponent that brings the mantissa into [sqrt(1/2), sqrt(2)).
  const std::int32_t exponent = (bits - kSqrtHalfBits) >> 23;
  const float m = std::bit_cast<float>(bits - exponent * (std::int32_t(1) << 23));
  const float s = (m - 1.0f) / (m + 1.0f);
  const float s2 = s * s;
  constexpr float kTwoOverLn2 = 2.88539008f;
  const float series =
      1.0f + s2 * (1.0f / 3.0f + s2 * (1.0f / 5.0f + s2 * (1.0f / 7.0f + s2 * (1.0f / 9.0f))));
  return static_cast<float>(exponent) + kTwoOverLn2 * s * series;
}

inline constexpr float kInverse3Factorial = 1.0f / 6.0f;
inline constexpr float kInverse4Factorial = 1.0f / 24.0f;
inline constexpr float kInverse5Factorial = 1.0f / 120.0f;
inline constexpr float kInverse6Factorial = 1.0f / 720.0f;

/// 2^y for y in [-126, 126].
[[gnu::always_inline]] inline float fastExp2(float y) {
  const std::int32_t n = static_cast<std::int32_t>(y + 128.5f) - 128;
  const float f = (y - static_cast<float>(n)) * 0.693147181f;
  // Taylor terms of e^(f ln 2) to the sixth power; |f| <= 0.5 keeps the error near 1e-7.
  const float p =
      1.0f +
      f * (1.0f + f * (0.5f + f * (kInverse3Factorial +
                                   f * (kInverse4Factorial +
                                        f * (kInverse5Factorial + f * kInverse6Factorial)))));
  return p * std::bit_cast<float>((n + 127) * (std::int32_t(1) << 23));
}

/// Cube root of x in [1e-3, 1]: a bit-level first guess and two Halley steps.
[[gnu::always_inline]] inline float fastCbrt(float x) {
  float y = std::bit_cast<float>(std::bit_cast<std::uint32_t>(x) / 3u + 709921077u);
  for (int step = 0; step < 2; ++step) {
    const float y3 = y * y * y;
    y = y * (y3 + 2.0f * x) / (2.0f * y3 + x);
  }
  return y;
}

[[gnu::always_inline]] inline float clampUnit(float v) {
  v = v > 0.0f ? v : 0.0f;
  return v < 1.0f ? v : 1.0f;
}

/// sRGB-encoded to linear, v limited to [0, 1] first (NaN reads as 0).
[[gnu::always_inline]] inline float srgbToLinear(float v) {
  v = clampUnit(v);
  const float curve = fastExp2(2.4f * fastLog2((v + 0.055f) * (1.0f / 1.055f)));
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
