#pragma once

#include <algorithm>

#include "effects/kernels/luminance.h"
#include "vorn/core/pixel.h"

// The layer mixes the creative effects combine a picture and its blur with, per channel. Values
// above 1 (scene-referred highlights) are taken as white where a mix is defined on [0, 1].
namespace vorn::detail {

inline float unitClamp(float v) {
  return std::clamp(v, 0.0f, 1.0f);
}

/// a + b - a b: lightens, never past white; a brighter than white stays as it is.
inline float screen(float a, float b) {
  return a + std::max(b, 0.0f) * (1.0f - unitClamp(a));
}

/// Pegtop's soft light of blend b over base a: contrast towards b, continuous everywhere.
inline float softLight(float a, float b) {
  const float ua = unitClamp(a);
  const float ub = unitClamp(b);
  return a + (1.0f - 2.0f * ub) * ua * ua + 2.0f * ub * ua - ua;
}

inline float mix(float a, float b, float t) {
  return a + (b - a) * t;
}

template <typename Op>
PixelRGB<float> perChannel(const PixelRGB<float>& a, const PixelRGB<float>& b, Op op) {
  return PixelRGB<float>(op(a.r, b.r), op(a.g, b.g), op(a.b, b.b));
}

inline PixelRGB<float> mix(const PixelRGB<float>& a, const PixelRGB<float>& b, float t) {
  return perChannel(a, b, [t](float x, float y) { return mix(x, y, t); });
}

inline PixelRGB<float> scaled(const PixelRGB<float>& p, float k) {
  return PixelRGB<float>(p.r * k, p.g * k, p.b * k);
}

/// Saturation scaled by k around the pixel's luminance.
inline PixelRGB<float> saturated(const PixelRGB<float>& p, float k) {
  const float y = luminance(p);
  return PixelRGB<float>(y + (p.r - y) * k, y + (p.g - y) * k, y + (p.b - y) * k);
}

/// 0 below edge0, 1 above edge1, the cubic Hermite step between.
inline float smoothStep(float edge0, float edge1, float x) {
  // A reciprocal, so that with constant edges the pixel loop multiplies instead of dividing.
  const float t = unitClamp((x - edge0) * (1.0f / (edge1 - edge0)));
  return t * t * (3.0f - 2.0f * t);
}

}  // namespace vorn::detail
