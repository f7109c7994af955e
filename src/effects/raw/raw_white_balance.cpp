#include "effects/color/color_kernels.h"
#include "effects/raw/as_shot_white.h"
#include "effects/raw/working_space.h"
#include "vorn/effects/color_effects.h"

// White balance of a developed raw frame, relative to the balance the decoder applied.
namespace vorn {

namespace {

/// Temperature at +-100 moves the assumed light by 100 mired around the as-shot white (from D50:
/// about 3300 K ... 10000 K); tint at +-100 moves it 0.02 in Duv.
constexpr float kMiredPerStep = 1.0f;
constexpr float kDuvPerStep = 0.0002f;
/// The warm end of the locus the shift may reach (2500 K).
constexpr double kMaxMired = 400.0;

std::array<float, 2> toFloat(std::array<double, 2> xy) {
  return {static_cast<float>(xy[0]), static_cast<float>(xy[1])};
}

/// Where light of chromaticity `xy` lands in the frame, whose decoder adapted `asShot` to D50.
std::array<float, 2> seenInFrame(std::array<float, 2> xy, std::array<float, 2> asShot) {
  const detail::Matrix3 adaptation =
      detail::bradfordAdaptation(detail::Matrix3{}, asShot, toFloat(detail::kD50));
  float X = xy[0] / xy[1], Y = 1.0f, Z = (1.0f - xy[0] - xy[1]) / xy[1];
  adaptation.apply(X, Y, Z);
  const float sum = X + Y + Z;
  return {X / sum, Y / sum};
}

}  // namespace

// Raw white balance: Bradford adaptation in linear ProPhoto from a light shifted along the
// daylight locus (mired) and across it (Duv) back to the frame's white. The shift starts at the
// camera's as-shot white when the photo's calibration gives it (mired steps are not the same
// kelvin under tungsten as in daylight), else at D50, the white the decoder balanced to.
PointEffect::Kernel RawWhiteBalanceEffect::prepare(const Setup& setup) const {
  const float temperature = mappedValue(0, -100.0f, 0.0f, 100.0f);
  const float tint = mappedValue(1, -100.0f, 0.0f, 100.0f);
  if (temperature == 0.0f && tint == 0.0f) return nullptr;
  const auto asShot =
      setup.metadata ? detail::asShotWhite(setup.metadata->cameraColor) : std::nullopt;
  const std::array<double, 2> base = asShot ? asShot->xy : detail::kD50;
  const double baseKelvin = asShot ? asShot->kelvin : detail::kD50Kelvin;
  std::array<float, 2> white = detail::shiftedWhite(base, baseKelvin, -kMiredPerStep * temperature,
                                                    kDuvPerStep * tint, kMaxMired);
  if (asShot) white = seenInFrame(white, toFloat(asShot->xy));
  return detail::linearMatrixKernel(
      detail::bradfordAdaptation(detail::linearProPhotoToXyz(), white, toFloat(detail::kD50)));
}

}  // namespace vorn
