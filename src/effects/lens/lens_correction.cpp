// Lens correction from the lens database's profile: the geometry (distortion and transverse
// chromatic aberration) as a per-channel warp read bilinearly, the shading as a gain on light.
#include <algorithm>
#include <cmath>
#include <vector>

#include "effects/creative/slider.h"
#include "effects/kernels/bilinear.h"
#include "effects/kernels/frame_geometry.h"
#include "effects/kernels/linear_gain.h"
#include "effects/kernels/sampled_curve.h"
#include "effects/lens/lens_database.h"
#include "effects/lens/lens_field.h"
#include "vorn/effects/lens_effects.h"

namespace vorn {
namespace {

using detail::fraction;
using detail::signedFraction;

/// The three sliders as scales of the profile's corrections.
struct CorrectionAmounts {
  explicit CorrectionAmounts(const Effect& effect)
      : distortion(signedFraction(effect, 0)),
        aberration(fraction(effect, 1)),
        vignetting(fraction(effect, 2)) {}
  detail::LensCorrections corrections() const {
    return {distortion != 0.0f, aberration != 0.0f, vignetting != 0.0f};
  }
  // The warp's displacement scales with Distortion; its negative side pushes the other way,
  // adding the lens's own distortion instead of removing it.
  float distortion;
  float aberration;
  float vignetting;
};

/// Where channel c of output pixel (x, y) reads from, in frame coordinates, given the profile's
/// coordinates of the pixel (six floats): green follows the scaled distortion, red and blue keep
/// their scaled offsets from green.
struct WarpedPixel {
  float x[3];
  float y[3];
  WarpedPixel(const float* profile, float px, float py, const CorrectionAmounts& amounts) {
    const float gx = px + amounts.distortion * (profile[2] - px);
    const float gy = py + amounts.distortion * (profile[3] - py);
    for (int c = 0; c < 3; c += 2) {
      x[c] = gx + amounts.aberration * (profile[2 * c] - profile[2]);
      y[c] = gy + amounts.aberration * (profile[2 * c + 1] - profile[3]);
    }
    x[1] = gx;
    y[1] = gy;
  }
};

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
                          const CorrectionAmounts& amounts) {
  constexpr int kSteps = 24;
  std::vector<float> profile(6 * (kSteps + 1));
  float largest = 0.0f;
  for (int j = 0; j <= kSteps; ++j) {
    const int y = (frame.height - 1) * j / kSteps;
    for (int i = 0; i <= kSteps; ++i) {
      const int x = (frame.width - 1) * i / kSteps;
      float* p = profile.data() + 6 * i;
      if (!modifier.sourceAt(x, y, p)) return 0.0f;
      const WarpedPixel warped(p, static_cast<float>(x), static_cast<float>(y), amounts);
      for (int c = 0; c < 3; ++c)
        largest = std::max(largest, std::hypot(warped.x[c] - static_cast<float>(x),
                                               warped.y[c] - static_cast<float>(y)));
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
  const CorrectionAmounts amounts(*this);
  const _Size<int> frame = assumedFrame(context_, spatialScale);
  const detail::LensModifier modifier(*profile, frame, amounts.corrections());
  // The grid may miss the peak between its points, and the bilinear read takes one pixel more;
  // a profile gone wild (NaN, huge) reads the whole frame at most.
  const float largest = largestDisplacement(modifier, frame, amounts);
  const float whole = static_cast<float>(frame.width + frame.height);
  return static_cast<int>(std::ceil(largest < whole ? 1.1f * largest : whole)) + 2;
}

bool LensCorrectionEffect::isIdentity() const {
  const CorrectionAmounts amounts(*this);
  if (amounts.distortion == 0.0f && amounts.aberration == 0.0f && amounts.vignetting == 0.0f)
    return true;
  return !hasProfile();
}

// Profile correction: lensfun's inverse distortion and TCA models (on a node grid, bilinear
// between) give each output pixel's source per channel, read bilinearly; its vignetting model's
// gain multiplies linear light.
void LensCorrectionEffect::render(const Window& window) const {
  const auto profile = detail::findLensProfile(*shot());
  const CorrectionAmounts amounts(*this);
  const detail::LensModifier modifier(*profile, _Size<int>(window.frame.width, window.frame.height),
                                      amounts.corrections());
  const bool warp = modifier.movesPixels();
  const bool shade = modifier.shadesPixels();
  const int frameX = window.output.x - window.frame.x;
  const int frameY = window.output.y - window.frame.y;
  const detail::LensField field(
      modifier, _Size<int>(window.frame.width, window.frame.height),
      _Rect<int>(frameX, frameY, window.output.width, window.output.height));
  // The encoded-value gain needs g^(1/2.4): tabulated once over the gains a lens can ask for.
  const detail::SampledCurve root(0.25f, 8.0f, 4096,
                                  [](float g) { return std::pow(g, 1.0f / 2.4f); });
  const detail::ChannelSampler sampler(window.source, window.input);
  const auto fx = static_cast<float>(window.frame.x);
  const auto fy = static_cast<float>(window.frame.y);
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int, int y) {
    thread_local std::vector<float> coordinates;
    thread_local std::vector<float> gains;
    thread_local std::vector<float> roots;
    coordinates.resize(warp ? 6 * count : 0);
    gains.resize(shade ? count : 0);
    const int rowY = y - window.frame.y;
    field.row(frameX, rowY, static_cast<int>(count), warp ? coordinates.data() : nullptr,
              shade ? gains.data() : nullptr);
    if (warp) {
      for (std::size_t i = 0; i < count; ++i) {
        const WarpedPixel warped(coordinates.data() + 6 * i,
                                 static_cast<float>(frameX + static_cast<int>(i)),
                                 static_cast<float>(rowY), amounts);
        out[i] = PixelRGB<float>(sampler.at(warped.x[0] + fx, warped.y[0] + fy, 0),
                                 sampler.at(warped.x[1] + fx, warped.y[1] + fy, 1),
                                 sampler.at(warped.x[2] + fx, warped.y[2] + fy, 2));
      }
    } else {
      std::copy(in, in + count, out);
    }
    if (shade) {
      roots.resize(count);
      for (std::size_t i = 0; i < count; ++i) {
        // Clamped to the table's span; a sane profile never leaves it.
        float gain = 1.0f + amounts.vignetting * (gains[i] - 1.0f);
        gain = gain > 0.25f ? gain : 0.25f;
        gain = gain < 8.0f ? gain : 8.0f;
        gains[i] = gain;
        roots[i] = root.at(gain);
      }
      detail::applyEncodedGains(out, out, gains.data(), roots.data(), count);
    }
  });
}

}  // namespace vorn
