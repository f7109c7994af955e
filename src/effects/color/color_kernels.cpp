#include "effects/color/color_kernels.h"

#include <algorithm>
#include <cmath>

namespace vorn::detail {

std::unique_ptr<RowKernel> linearMatrixKernel(const Matrix3& matrix) {
  return linearKernel([matrix](float& r, float& g, float& b) { matrix.apply(r, g, b); });
}

std::unique_ptr<RowKernel> oklabMatrixKernel(const Matrix3& onOklab) {
  const Matrix3 onRoots = kOklabToLmsRoot * onOklab * kLmsRootToOklab;
  return lmsRootKernel([onRoots](LmsRoot& p) { onRoots.apply(p.l, p.m, p.s); });
}

std::array<float, 3> glassTransmission(float degrees, float density) {
  const std::array<float, 3> glass = wheelColor(degrees);
  std::array<float, 3> t{};
  for (std::size_t c = 0; c < 3; ++c) t[c] = 1.0f - density * (1.0f - srgbToLinearExact(glass[c]));
  return t;
}

namespace {

/// CIE daylight locus chromaticity at correlated colour temperature kelvin (2500 ... 25000 K).
std::array<double, 2> daylight(double kelvin) {
  // Below 4000 K the polynomial is continued: it stays within 0.005 of the Planckian locus.
  const double t = std::clamp(kelvin, 2500.0, 25000.0);
  const double t2 = t * t;
  const double x = t <= 7000.0 ? -4.6070e9 / (t2 * t) + 2.9678e6 / t2 + 0.09911e3 / t + 0.244063
                               : -2.0064e9 / (t2 * t) + 1.9018e6 / t2 + 0.24748e3 / t + 0.237040;
  return {x, -3.0 * x * x + 2.87 * x - 0.275};
}

/// CIE 1960 (u, v) of xy and back.
std::array<double, 2> toUv(std::array<double, 2> xy) {
  const double d = -2.0 * xy[0] + 12.0 * xy[1] + 3.0;
  return {4.0 * xy[0] / d, 6.0 * xy[1] / d};
}
std::array<double, 2> fromUv(std::array<double, 2> uv) {
  const double d = 2.0 * uv[0] - 8.0 * uv[1] + 4.0;
  return {3.0 * uv[0] / d, 2.0 * uv[1] / d};
}

constexpr double kD65Kelvin = 6504.0;
constexpr std::array<double, 2> kD65{0.3127, 0.3290};

}  // namespace

std::array<float, 2> shiftedWhite(float miredShift, float duv) {
  return shiftedWhite(kD65, kD65Kelvin, miredShift, duv, 250.0);
}

std::array<float, 2> shiftedWhite(std::array<double, 2> base, double baseKelvin, float miredShift,
                                  float duv, double maxMired) {
  // Mired (1e6 / K) steps are even steps of perceived warmth; the shift is limited to the
  // locus' valid span. The offset along the locus is taken relative to the base's own point on it.
  const double mired =
      std::clamp(1.0e6 / baseKelvin + static_cast<double>(miredShift), 40.0, maxMired);
  const auto along = toUv(daylight(1.0e6 / mired));
  const auto atBase = toUv(daylight(baseKelvin));
  const auto origin = toUv(base);
  const auto xy =
      fromUv({origin[0] + along[0] - atBase[0], origin[1] + along[1] - atBase[1] + duv});
  return {static_cast<float>(xy[0]), static_cast<float>(xy[1])};
}

Matrix3 adaptationToD65(std::array<float, 2> white) {
  return bradfordAdaptation(linearSrgbToXyz(), white,
                            {static_cast<float>(kD65[0]), static_cast<float>(kD65[1])});
}

Matrix3 bradfordAdaptation(const Matrix3& toXyz, std::array<float, 2> white,
                           std::array<float, 2> target) {
  static const Matrix3 bradford{
      {0.8951f, 0.2664f, -0.1614f, -0.7502f, 1.7135f, 0.0367f, 0.0389f, -0.0685f, 1.0296f}};
  const auto lms = [](std::array<float, 2> xy) {
    float X = xy[0] / xy[1];
    float Y = 1.0f;
    float Z = (1.0f - xy[0] - xy[1]) / xy[1];
    bradford.apply(X, Y, Z);
    return std::array<float, 3>{X, Y, Z};
  };
  const auto source = lms(white);
  const auto goal = lms(target);
  const Matrix3 scale =
      Matrix3::diagonal(goal[0] / source[0], goal[1] / source[1], goal[2] / source[2]);
  return inverse(toXyz) * inverse(bradford) * scale * bradford * toXyz;
}

}  // namespace vorn::detail
