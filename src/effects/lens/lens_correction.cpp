// Lens correction from the lens database's profile: the geometry (distortion and transverse
// chromatic aberration) as a per-channel warp read bilinearly, the shading as a gain on light.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "effects/creative/slider.h"
#include "effects/kernels/cloned_loop.h"
#include "effects/kernels/frame_geometry.h"
#include "effects/kernels/linear_gain.h"
#include "effects/lens/lens_database.h"
#include "effects/lens/lens_field.h"
#include "vorn/effects/lens_effects.h"

namespace vorn {
namespace {

using detail::fraction;
using detail::signedFraction;

/// The three sliders as scales of the profile's corrections.
detail::LensAmounts amountsOf(const Effect& effect) {
  return {signedFraction(effect, 0), fraction(effect, 1), fraction(effect, 2)};
}

detail::LensCorrections correctionsOf(const detail::LensAmounts& amounts) {
  return {amounts.distortion != 0.0f, amounts.aberration != 0.0f, amounts.vignetting != 0.0f};
}

/// The frame a reach is computed for: the owner's whole image, else a 24 MP 3:2 frame at the
/// render's spatial scale (a larger frame without a context may read past the margin, clamped).
_Size<int> assumedFrame(const std::shared_ptr<EffectContext>& context, float spatialScale) {
  if (context && context->imageSize.width > 0 && context->imageSize.height > 0)
    return context->imageSize;
  const auto side = [spatialScale](float reference) {
    return std::max(2, static_cast<int>(std::lround(reference * spatialScale)));
  };
  return _Size<int>(side(6000.0f), side(4000.0f));
}

/// The largest distance any channel moves over a grid of the frame (its edges included).
float largestDisplacement(const detail::LensModifier& modifier, _Size<int> frame,
                          const detail::LensAmounts& amounts) {
  constexpr int kSteps = 24;
  std::vector<float> profile(6 * (kSteps + 1));
  float largest = 0.0f;
  for (int j = 0; j <= kSteps; ++j) {
    const int y = (frame.height - 1) * j / kSteps;
    for (int i = 0; i <= kSteps; ++i) {
      const int x = (frame.width - 1) * i / kSteps;
      float* p = profile.data() + 6 * i;
      if (!modifier.sourceAt(x, y, p)) return 0.0f;
      detail::scaleSource(p, static_cast<float>(x), static_cast<float>(y), amounts);
      for (int c = 0; c < 6; c += 2)
        largest = std::max(
            largest, std::hypot(p[c] - static_cast<float>(x), p[c + 1] - static_cast<float>(y)));
    }
  }
  return largest;
}

}  // namespace

void LensCorrectionEffect::setShot(const LensShot& shot) {
  parameters_.at(0).setOptionalData(shot.toText());
  setNeedRecompute(true);
}

std::optional<LensShot> LensCorrectionEffect::shot() const {
  const ParameterOptionalData data = parameters_.at(0).optionalData();
  const std::string* text = boost::get<std::string>(&data);
  if (!text || text->empty()) return std::nullopt;
  return LensShot::fromText(*text);
}

bool LensCorrectionEffect::hasProfile() const {
  const std::optional<LensShot> named = shot();
  return named && detail::findLensProfile(*named) != nullptr;
}

int LensCorrectionEffect::reach(float spatialScale) const {
  if (isIdentity()) return 0;
  const auto profile = detail::findLensProfile(*shot());
  const detail::LensAmounts amounts = amountsOf(*this);
  const _Size<int> frame = assumedFrame(context_, spatialScale);
  const detail::LensModifier modifier(*profile, frame, correctionsOf(amounts));
  // The grid may miss the peak between its points, and the bilinear read takes one pixel more;
  // a profile gone wild (NaN, huge) reads the whole frame at most.
  const float largest = largestDisplacement(modifier, frame, amounts);
  const float whole = static_cast<float>(frame.width + frame.height);
  return static_cast<int>(std::ceil(largest < whole ? 1.1f * largest : whole)) + 2;
}

bool LensCorrectionEffect::isIdentity() const {
  const detail::LensAmounts amounts = amountsOf(*this);
  if (amounts.distortion == 0.0f && amounts.aberration == 0.0f && amounts.vignetting == 0.0f)
    return true;
  return !hasProfile();
}

// Profile correction: lensfun's inverse distortion and TCA models (on a node grid, bilinear
// between) give each output pixel's source per channel, read bilinearly; its vignetting model's
// gain multiplies linear light. Rows go in pieces whose planes stay in the first-level cache.
void LensCorrectionEffect::render(const Window& window) const {
  const auto profile = detail::findLensProfile(*shot());
  const detail::LensAmounts amounts = amountsOf(*this);
  const _Size<int> frame(window.frame.width, window.frame.height);
  const detail::LensModifier modifier(*profile, frame, correctionsOf(amounts));
  const bool warp = modifier.movesPixels();
  const bool shade = modifier.shadesPixels();
  const int frameX = window.output.x - window.frame.x;
  const int frameY = window.output.y - window.frame.y;
  const detail::LensField field(
      modifier, frame, _Rect<int>(frameX, frameY, window.output.width, window.output.height),
      amounts);
  const detail::WarpSource source(window.source, window.input, static_cast<float>(window.frame.x),
                                  static_cast<float>(window.frame.y));
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int, int y) {
    constexpr std::size_t kPiece = 512;
    alignas(64) float buffer[detail::kLensPlanes + 3][kPiece];
    float* planes[detail::kLensPlanes];
    for (int k = 0; k < detail::kLensPlanes; ++k)
      planes[k] = (k < detail::kGain ? warp : shade) ? buffer[k] : nullptr;
    float* const channels[3] = {buffer[detail::kLensPlanes], buffer[detail::kLensPlanes + 1],
                                buffer[detail::kLensPlanes + 2]};
    PixelRGB<float> warped[kPiece];
    for (std::size_t first = 0; first < count; first += kPiece) {
      const std::size_t n = std::min(kPiece, count - first);
      field.row(frameX + static_cast<int>(first), y - window.frame.y, static_cast<int>(n), planes);
      PixelRGB<float>* piece = out + first;
      // The shading reads the warped pixels from a buffer apart from the row: in place, it
      // would copy them aside itself.
      const PixelRGB<float>* shaded = in + first;
      if (warp) {
        for (int c = 0; c < 3; ++c)
          source.read(c, planes[2 * c], planes[2 * c + 1], channels[c], n);
        PixelRGB<float>* interleaved = shade ? warped : piece;
        detail::clonedLoop(
            [r = channels[0], g = channels[1], b = channels[2],
             o = &interleaved->r](std::size_t i) {
              o[3 * i] = r[i];
              o[3 * i + 1] = g[i];
              o[3 * i + 2] = b[i];
            },
            n);
        shaded = warped;
      } else if (!shade) {
        std::copy(in + first, in + first + n, piece);
      }
      if (shade)
        detail::applyEncodedGains(shaded, piece, planes[detail::kGain], planes[detail::kGainRoot],
                                  n);
    }
  });
}

}  // namespace vorn
