#include "effects/raw/as_shot_white.h"

#include <algorithm>
#include <cmath>

#include "effects/kernels/color_space.h"
#include "effects/raw/dcp_profile.h"

namespace vorn::detail {

namespace {

bool usable(const std::array<float, 9>& m) {
  return std::any_of(m.begin(), m.end(), [](float v) { return v != 0.0f; }) &&
         std::all_of(m.begin(), m.end(), [](float v) { return std::isfinite(v); });
}

/// The XYZ-to-camera matrix for a white of `kelvin`: linear in inverse temperature between the
/// two calibrations, as the camera makers' calibrations are meant to be mixed.
Matrix3 colorMatrixAt(const ImageMetadata::CameraColor& color, double kelvin) {
  const Matrix3 first{color.colorMatrix1};
  if (!usable(color.colorMatrix2)) return first;
  const Matrix3 second{color.colorMatrix2};
  const double t1 = illuminantKelvin(color.illuminant1);
  const double t2 = illuminantKelvin(color.illuminant2);
  if (t1 <= 0.0 || t2 <= 0.0 || t1 == t2) return first;
  const double w = std::clamp((1.0 / kelvin - 1.0 / t1) / (1.0 / t2 - 1.0 / t1), 0.0, 1.0);
  Matrix3 mixed;
  for (std::size_t i = 0; i < 9; ++i)
    mixed.m[i] = static_cast<float>((1.0 - w) * first.m[i] + w * second.m[i]);
  return mixed;
}

}  // namespace

double correlatedKelvin(std::array<double, 2> xy) {
  const double n = (xy[0] - 0.3320) / (0.1858 - xy[1]);
  return ((449.0 * n + 3525.0) * n + 6823.3) * n + 5520.33;
}

std::optional<AsShotWhite> asShotWhite(const ImageMetadata::CameraColor& color) {
  const auto& mul = color.asShotMultipliers;
  if (!usable(color.colorMatrix1) || !(mul[0] > 0.0f && mul[1] > 0.0f && mul[2] > 0.0f))
    return std::nullopt;
  // The matrix depends on the white it is to find: a few rounds settle it to well under a kelvin.
  double kelvin = 5000.0;
  std::array<double, 2> xy{};
  for (int round = 0; round < 8; ++round) {
    const Matrix3 toXyz = inverse(colorMatrixAt(color, kelvin));
    float X = 1.0f / mul[0], Y = 1.0f / mul[1], Z = 1.0f / mul[2];
    toXyz.apply(X, Y, Z);
    const double sum = static_cast<double>(X) + Y + Z;
    if (!(sum > 0.0) || !std::isfinite(sum) || X < 0.0f || Y <= 0.0f || Z < 0.0f)
      return std::nullopt;
    xy = {X / sum, Y / sum};
    // Outside the span of real light sources the calibration says nothing useful.
    kelvin = std::clamp(correlatedKelvin(xy), 2000.0, 25000.0);
  }
  return AsShotWhite{xy, kelvin};
}

}  // namespace vorn::detail
