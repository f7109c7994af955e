#include "effects/kernels/color_space.h"

#include "core/dispatch.h"

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

// One plain loop each, cloned for the wider vector units.
VORN_DISPATCH void decodeValues(const float* in, float* out, std::size_t count) {
  const SrgbDecode decode;
  for (std::size_t i = 0; i < count; ++i) out[i] = decode(in[i]);
}

VORN_DISPATCH void encodeValues(const float* in, float* out, std::size_t count) {
  const SrgbEncode encode;
  for (std::size_t i = 0; i < count; ++i) out[i] = encode(in[i]);
}

}  // namespace

namespace {

/// True when every one of count values lies in [0, 1]; NaN does not.
inline bool allInUnitRange(const float* values, std::size_t count) {
  unsigned outside = 0;
  for (std::size_t i = 0; i < count; ++i)
    outside |= values[i] >= 0.0f && values[i] <= 1.0f ? 0u : 1u;
  return outside == 0;
}

}  // namespace

// Pixels in [0, 1], the usual case, skip the steps that carry the curves beyond it; the result
// is the same bit for bit.
VORN_DISPATCH void decodeToPlanes(const float* __restrict in, float* __restrict r,
                                  float* __restrict g, float* __restrict b, std::size_t count) {
  if (allInUnitRange(in, 3 * count)) {
    for (std::size_t i = 0; i < count; ++i) {
      r[i] = srgbDecodeUnit(in[3 * i]);
      g[i] = srgbDecodeUnit(in[3 * i + 1]);
      b[i] = srgbDecodeUnit(in[3 * i + 2]);
    }
    return;
  }
  const SrgbDecode decode;
  for (std::size_t i = 0; i < count; ++i) {
    r[i] = decode(in[3 * i]);
    g[i] = decode(in[3 * i + 1]);
    b[i] = decode(in[3 * i + 2]);
  }
}

VORN_DISPATCH void encodeFromPlanes(const float* __restrict r, const float* __restrict g,
                                    const float* __restrict b, float* __restrict out,
                                    std::size_t count) {
  if (allInUnitRange(r, count) && allInUnitRange(g, count) && allInUnitRange(b, count)) {
    for (std::size_t i = 0; i < count; ++i) {
      out[3 * i] = srgbEncodeUnit(r[i]);
      out[3 * i + 1] = srgbEncodeUnit(g[i]);
      out[3 * i + 2] = srgbEncodeUnit(b[i]);
    }
    return;
  }
  const SrgbEncode encode;
  for (std::size_t i = 0; i < count; ++i) {
    out[3 * i] = encode(r[i]);
    out[3 * i + 1] = encode(g[i]);
    out[3 * i + 2] = encode(b[i]);
  }
}

VORN_DISPATCH void splitToPlanes(const float* __restrict in, float* __restrict r,
                                 float* __restrict g, float* __restrict b, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    r[i] = in[3 * i];
    g[i] = in[3 * i + 1];
    b[i] = in[3 * i + 2];
  }
}

VORN_DISPATCH void joinPlanes(const float* __restrict r, const float* __restrict g,
                              const float* __restrict b, float* __restrict out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    out[3 * i] = r[i];
    out[3 * i + 1] = g[i];
    out[3 * i + 2] = b[i];
  }
}

void SrgbDecode::apply(const float* in, float* out, std::size_t count) const {
  decodeValues(in, out, count);
}

void SrgbEncode::apply(const float* in, float* out, std::size_t count) const {
  encodeValues(in, out, count);
}

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
