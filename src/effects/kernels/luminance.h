#pragma once

#include "vorn/core/pixel.h"

namespace vorn::detail {

// Rec. 709 luminance weights of linear-light RGB; every effect that needs a luminance uses these.
inline constexpr float kLumaRed = 0.2126f;
inline constexpr float kLumaGreen = 0.7152f;
inline constexpr float kLumaBlue = 0.0722f;

inline float luminance(float r, float g, float b) {
  return kLumaRed * r + kLumaGreen * g + kLumaBlue * b;
}
inline float luminance(const PixelRGB<float>& p) {
  return luminance(p.r, p.g, p.b);
}

}  // namespace vorn::detail
