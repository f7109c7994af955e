#include "effects/kernels/color_space.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vorn::detail {

Matrix3 operator*(const Matrix3& a, const Matrix3& b) {
  Matrix3 product;
  for (int row = 0; row < 3; ++row) {
    for (int column = 0; column < 3; ++column) {
      float sum = 0.0f;
      for (int k = 0; k < 3; ++k) sum += a(row, k) * b(k, column);
      product.m[static_cast<std::size_t>(3 * row + column)] = sum;
    }
  }
  return product;
}

Matrix3 inverse(const Matrix3& a) {
  const double m[9] = {a.m[0], a.m[1], a.m[2], a.m[3], a.m[4], a.m[5], a.m[6], a.m[7], a.m[8]};
  const double c0 = m[4] * m[8] - m[5] * m[7];
  const double c1 = m[5] * m[6] - m[3] * m[8];
  const double c2 = m[3] * m[7] - m[4] * m[6];
  const double det = m[0] * c0 + m[1] * c1 + m[2] * c2;
  if (!(std::fabs(det) > 1e-12)) return {};
  const double adjugate[9] = {c0, m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
                              c1, m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
                              c2, m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
  Matrix3 result;
  for (std::size_t i = 0; i < 9; ++i) result.m[i] = static_cast<float>(adjugate[i] / det);
  return result;
}

const Matrix3& linearSrgbToXyz() {
  static const Matrix3 matrix{{0.4124564f, 0.3575761f, 0.1804375f, 0.2126729f, 0.7151522f,
                               0.0721750f, 0.0193339f, 0.1191920f, 0.9503041f}};
  return matrix;
}

float srgbToLinearExact(float encoded) {
  return encoded <= 0.04045f ? encoded / 12.92f : std::pow((encoded + 0.055f) / 1.055f, 2.4f);
}

float linearToSrgbExact(float linear) {
  return linear <= 0.0031308f ? 12.92f * linear : 1.055f * std::pow(linear, 1.0f / 2.4f) - 0.055f;
}

namespace {

// Linear interpolation error stays below 5e-6 with these step counts (the encoding bends most).
constexpr std::size_t kDecodeSteps = 4096;
constexpr std::size_t kEncodeSteps = 16384;
// The decoding's slope at 1: 2.4 / 1.055.
constexpr float kDecodeSlopeAtOne = 2.4f / 1.055f;

void applyScalar(const TransferTable& table, const float* in, float* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) out[i] = table(in[i]);
}

// GCC 12's intrinsic headers seed results with self-initialised "undefined" vectors, which
// -Wmaybe-uninitialized reports in every caller; the values are always overwritten.
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// The scalar operator() lane by lane, the two ends of a segment fetched by gathers.
__attribute__((target("avx2"))) void applyAvx2(const TransferTable& table, const float* in,
                                               float* out, std::size_t count) {
  const __m256 signBit = _mm256_set1_ps(-0.0f);
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 scale = _mm256_set1_ps(table.scale);
  const __m256 above = _mm256_set1_ps(table.above);
  const __m256i last = _mm256_set1_epi32(table.last);
  const float* values = table.values.data();
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 x = _mm256_loadu_ps(in + i);
    const __m256 magnitude = _mm256_andnot_ps(signBit, x);
    // max returns its second operand for NaN, so NaN reads the table at 0.
    __m256 s = _mm256_max_ps(_mm256_mul_ps(magnitude, scale), _mm256_setzero_ps());
    s = _mm256_min_ps(s, scale);
    const __m256i n = _mm256_min_epi32(_mm256_cvttps_epi32(s), last);
    const __m256 a = _mm256_i32gather_ps(values, n, 4);
    const __m256 b = _mm256_i32gather_ps(values + 1, n, 4);
    // Multiply and add apart, as the scalar tail computes them: a pixel's value must not depend
    // on where a region starts.
    const __m256 inside = _mm256_add_ps(
        a, _mm256_mul_ps(_mm256_sub_ps(b, a), _mm256_sub_ps(s, _mm256_cvtepi32_ps(n))));
    const __m256 line = _mm256_add_ps(one, _mm256_mul_ps(_mm256_sub_ps(magnitude, one), above));
    const __m256 y = _mm256_blendv_ps(inside, line, _mm256_cmp_ps(magnitude, one, _CMP_GT_OQ));
    _mm256_storeu_ps(out + i, _mm256_or_ps(y, _mm256_and_ps(x, signBit)));
  }
  applyScalar(table, in + i, out + i, count - i);
}

#pragma GCC diagnostic pop

using ApplyFn = void (*)(const TransferTable&, const float*, float*, std::size_t);

ApplyFn selectApply() {
  if (__builtin_cpu_supports("avx2")) return applyAvx2;
  return applyScalar;
}

}  // namespace

void TransferTable::apply(const float* in, float* out, std::size_t count) const {
  static const ApplyFn kernel = selectApply();
  kernel(*this, in, out, count);
}

SrgbTransfer::SrgbTransfer()
    : decode(kDecodeSteps, kDecodeSlopeAtOne, srgbToLinearExact),
      encode(kEncodeSteps, 1.0f / kDecodeSlopeAtOne, linearToSrgbExact) {}

const SrgbTransfer& srgbTransfer() {
  static const SrgbTransfer transfer;
  return transfer;
}

HueDirection HueDirection::ofAngle(float degrees) {
  const float radians = degrees * std::numbers::pi_v<float> / 180.0f;
  return {std::cos(radians), std::sin(radians)};
}

std::array<float, 3> wheelColor(float degrees) {
  // HSV with S = V = 1.
  if (!std::isfinite(degrees)) degrees = 0.0f;
  const float h = std::fmod(std::fmod(degrees, 360.0f) + 360.0f, 360.0f) / 60.0f;
  const float x = 1.0f - std::fabs(std::fmod(h, 2.0f) - 1.0f);
  const std::array<float, 3> sectors[6] = {{1, x, 0}, {x, 1, 0}, {0, 1, x},
                                           {0, x, 1}, {x, 0, 1}, {1, 0, x}};
  return sectors[static_cast<int>(h) % 6];
}

float wheelHueAngle(float degrees) {
  const std::array<float, 3> rgb = wheelColor(degrees);
  const Oklab lab = linearToOklab(srgbToLinearExact(rgb[0]), srgbToLinearExact(rgb[1]),
                                  srgbToLinearExact(rgb[2]));
  return std::atan2(lab.b, lab.a);
}

HueDirection wheelHue(float degrees) {
  const float angle = wheelHueAngle(degrees);
  return {std::cos(angle), std::sin(angle)};
}

HueWindow::HueWindow(HueDirection centre, float halfWidthDegrees)
    : centre_(centre),
      edge_(std::cos(std::clamp(halfWidthDegrees, 1.0f, 179.0f) * std::numbers::pi_v<float> /
                     180.0f)),
      scale_(1.0f / (1.0f - edge_)) {}

}  // namespace vorn::detail
