#include "effects/color/color_kernels.h"
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

}  // namespace

// Raw white balance: Bradford adaptation in linear ProPhoto from a light shifted along the
// daylight locus (mired) and across it (Duv) back to the frame's white.
PointEffect::Kernel RawWhiteBalanceEffect::prepare(const Setup&) const {
  const float temperature = mappedValue(0, -100.0f, 0.0f, 100.0f);
  const float tint = mappedValue(1, -100.0f, 0.0f, 100.0f);
  if (temperature == 0.0f && tint == 0.0f) return nullptr;
  // The decoder already mapped the as-shot white to D50 and effects cannot reach the camera's
  // multipliers, so the shift starts from D50: the same light in the frame's own terms.
  const std::array<float, 2> white =
      detail::shiftedWhite(detail::kD50, detail::kD50Kelvin, -kMiredPerStep * temperature,
                           kDuvPerStep * tint, kMaxMired);
  const std::array<float, 2> d50{static_cast<float>(detail::kD50[0]),
                                 static_cast<float>(detail::kD50[1])};
  return detail::linearMatrixKernel(
      detail::bradfordAdaptation(detail::linearProPhotoToXyz(), white, d50));
}

}  // namespace vorn
