#include <algorithm>
#include <memory>
#include <string>

#include "effects/color/color_kernels.h"
#include "effects/kernels/mix.h"
#include "effects/raw/as_shot_white.h"
#include "effects/raw/dcp_rendering.h"
#include "effects/raw/working_space.h"
#include "vorn/effects/color_effects.h"

// Develop steps on the frame's linear light: black point, highlight recovery, camera profile.
namespace vorn {

namespace {

/// Black Level at +-100 moves the black point by 2 % of linear white, about the spread of a
/// sensor's black level between cameras.
constexpr float kBlackPerStep = 0.0002f;
/// Highlight recovery starts where the second brightest channel reaches this share of clipping.
constexpr float kRecoveryKnee = 0.8f;
constexpr float kClip = 1.0f;

/// The camera profile named in Profile Strength's optional data, when it is usable.
std::shared_ptr<const detail::DcpProfile> profileOf(const Effect& effect) {
  const ParameterOptionalData data = effect.parameters()[2].optionalData();
  const auto* path = boost::get<std::string>(&data);
  if (!path || path->empty()) return nullptr;
  return detail::cachedDcp(*path);
}

}  // namespace

// Raw develop: linear black point shift; desaturate-to-white of blown highlights (once two
// channels near the clip point their ratios are no longer the scene's, so all are blended into
// the brightest with a smooth step on the second brightest: a saturated colour with one channel
// at the clip keeps its hue); then the camera profile's rendering mixed in by Profile
// Strength. With no profile given there is nothing to mix, so Profile Strength changes nothing.
PointEffect::Kernel RawDevelopEffect::prepare(const Setup& setup) const {
  const float recovery = mappedValue(0, 0.0f, 0.5f, 1.0f);
  const float black = kBlackPerStep * mappedValue(1, -100.0f, 0.0f, 100.0f);
  const float strength = mappedValue(2, 0.0f, 0.5f, 1.0f);
  std::shared_ptr<const detail::DcpRendering> profile;
  if (strength > 0.0f) {
    if (const auto dcp = profileOf(*this)) {
      // The profile's two calibrations are mixed for the light the photo was taken under.
      const auto asShot =
          setup.metadata ? detail::asShotWhite(setup.metadata->cameraColor) : std::nullopt;
      auto rendering = std::make_shared<detail::DcpRendering>(
          *dcp, asShot ? asShot->kelvin : detail::kD50Kelvin);
      if (!rendering->isIdentity()) profile = std::move(rendering);
    }
  }
  if (recovery == 0.0f && black == 0.0f && !profile) return nullptr;
  const float gain = 1.0f / (1.0f - black);
  const auto develop = [recovery, black, gain](float& r, float& g, float& b) {
    // Light below the new black point is black, not negative light.
    r = std::max((r - black) * gain, 0.0f);
    g = std::max((g - black) * gain, 0.0f);
    b = std::max((b - black) * gain, 0.0f);
    const float high = std::max(r, std::max(g, b));
    const float middle = std::max(std::min(r, g), std::min(std::max(r, g), b));
    const float w = recovery * detail::smoothStep(kRecoveryKnee, kClip, middle);
    r += (high - r) * w;
    g += (high - g) * w;
    b += (high - b) * w;
  };
  if (!profile) return detail::linearKernel(develop);
  // Table lookups per pixel: the wide-vector clones would only gather.
  return detail::linearKernel<false>([develop, strength, profile](float& r, float& g, float& b) {
    develop(r, g, b);
    float pr = r, pg = g, pb = b;
    profile->apply(pr, pg, pb);
    r += (pr - r) * strength;
    g += (pg - g) * strength;
    b += (pb - b) * strength;
  });
}

}  // namespace vorn
