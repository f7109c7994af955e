#pragma once

#include <array>

#include "effects/kernels/color_space.h"

// The colour space of developed raw frames: ProPhoto primaries with a D50 white, stored with the
// sRGB transfer curve. The raw effects work on its linear light.
namespace vorn::detail {

/// Linear ProPhoto RGB (D50) to CIE XYZ.
inline const Matrix3& linearProPhotoToXyz() {
  static const Matrix3 matrix{{0.7976749f, 0.1351917f, 0.0313534f, 0.2880402f, 0.7118741f,
                               0.0000857f, 0.0f, 0.0f, 0.8252100f}};
  return matrix;
}

/// The working white, CIE xy of D50, and its correlated colour temperature in kelvin.
inline constexpr std::array<double, 2> kD50{0.3457, 0.3585};
inline constexpr double kD50Kelvin = 5003.0;

}  // namespace vorn::detail
