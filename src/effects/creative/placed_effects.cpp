// Effects placed on the frame: a vignette around its centre, graduated filters across a line and
// a depth-of-field falloff from a focus band. Positions are measured on the whole picture.
#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <vector>

#include "effects/creative/slider.h"
#include "effects/kernels/cloned_loop.h"
#include "effects/kernels/color_space.h"
#include "effects/kernels/frame_geometry.h"
#include "effects/kernels/mix.h"
#include "effects/kernels/tone_curve.h"
#include "effects/kernels/window_blur.h"
#include "vorn/effects/creative_effects.h"

namespace vorn {

namespace {

using detail::fraction;
using detail::signedFraction;

using detail::FrameCentre;
using detail::FrameGradient;
using detail::smoothStep;

/// The gradient of a graduated filter from its rotation, offset and transition parameters.
FrameGradient gradientOf(const Effect& effect, _Rect<int> frame, std::size_t rotation) {
  constexpr float kNarrowest = 0.02f;
  return FrameGradient(frame, effect.mappedValue(rotation, -180.0f, 0.0f, 180.0f),
                       signedFraction(effect, rotation + 1),
                       kNarrowest + (2.0f - kNarrowest) * fraction(effect, rotation + 2));
}

/// The cubic Hermite step of t clamped to 0 ... 1, by selects so NaN lands on 0 and loops
/// vectorise.
inline float unitStep(float t) {
  t = t > 0.0f ? t : 0.0f;
  t = t < 1.0f ? t : 1.0f;
  return t * t * (3.0f - 2.0f * t);
}

/// The shape of a vignette: where it is half-strength, how wide its falloff and how round.
struct VignetteShape {
  float start;
  float end;
  float exponent;  // 2 an ellipse, larger a rounded rectangle
  float axisX;
  float axisY;

  VignetteShape(const Effect& effect, const FrameCentre& centre) {
    const float half = 0.35f + 0.9f * fraction(effect, 1);
    const float width = 0.05f + 1.15f * fraction(effect, 3);
    start = std::max(0.0f, half - 0.5f * width);
    end = half + 0.5f * width;
    const float roundness = signedFraction(effect, 2);
    const float shortHalf = std::min(centre.halfWidth, centre.halfHeight);
    const float circle = std::max(roundness, 0.0f);
    axisX = detail::mix(centre.halfWidth, shortHalf, circle);
    axisY = detail::mix(centre.halfHeight, shortHalf, circle);
    exponent = 2.0f + 6.0f * std::max(-roundness, 0.0f);
    inverseWidth = 1.0f / (end - start);
  }
  /// The superellipse's term of one axis, |offset / axis|^exponent: the falloff is a function of
  /// the sum of a column's and a row's term.
  float term(float offset, float axis) const {
    const float u = std::fabs(offset) / axis;
    return exponent == 2.0f ? u * u : std::pow(u, exponent);
  }
  /// The vignette's strength from the sum of a column's and a row's term, 0 at the centre and 1
  /// far out.
  float mask(float terms) const {
    const float d = exponent == 2.0f ? std::sqrt(terms) : std::pow(terms, 1.0f / exponent);
    // A product rather than smoothStep's division, which would not pipeline in the pixel loop.
    return unitStep((d - start) * inverseWidth);
  }
  float inverseWidth;
};

}  // namespace

int VignetteEffect::reach(float) const {
  return 0;
}

bool VignetteEffect::isIdentity() const {
  return signedFraction(*this, 0) == 0.0f;
}

// Vignette: a superellipse falloff around the frame's centre, applied as an exposure gain when
// darkening (highlights protected) and as a screen towards white when lightening.
void VignetteEffect::render(const Window& window) const {
  const float amount = signedFraction(*this, 0);
  const FrameCentre centre(window.frame);
  const VignetteShape shape(*this, centre);
  constexpr float kProtection = 0.8f;
  constexpr float kDeepestStops = 2.5f;
  // Full darkening takes the corners down by this many stops. The columns' terms are computed
  // once; the falloff of a row is worked out in a loop of its own.
  const float stops = kDeepestStops * amount;
  std::vector<float> columns(static_cast<std::size_t>(window.output.width));
  for (std::size_t i = 0; i < columns.size(); ++i)
    columns[i] = shape.term(centre.dx(window.output.x + static_cast<int>(i)), shape.axisX);
  // Shades one block given strength(i), the falloff of its pixel i.
  const auto shade = [&](const PixelRGB<float>* source, PixelRGB<float>* target, auto strength,
                         std::size_t block) {
    if (amount < 0.0f) {
      detail::clonedLoop(
          [=](std::size_t i) {
            const PixelRGB<float> p = source[i];
            // Highlights keep up to kProtection of their level: a step from 0.7 to 1 of
            // luminance.
            const float keep =
                kProtection * unitStep((detail::luminance(p) - 0.7f) * (1.0f / 0.3f));
            target[i] = detail::scaled(p, detail::fastExp2(stops * strength(i) * (1.0f - keep)));
          },
          block);
    } else {
      detail::clonedLoop(
          [=](std::size_t i) {
            const float light = amount * strength(i);
            target[i] = detail::perChannel(
                source[i], source[i], [light](float a, float) { return detail::screen(a, light); });
          },
          block);
    }
  };
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int, int y) {
    const float row = shape.term(centre.dy(y), shape.axisY);
    if (shape.exponent == 2.0f) {
      // An ellipse's falloff is a square root and a step, cheap enough to fuse into the pixel
      // loop, which then vectorises whole.
      const float* column = columns.data();
      const float start = shape.start;
      const float inverseWidth = shape.inverseWidth;
      shade(
          in, out,
          [=](std::size_t i) {
            return unitStep((std::sqrt(column[i] + row) - start) * inverseWidth);
          },
          count);
      return;
    }
    // Blocks of a row: the powers of a rounded rectangle's mask are taken in a loop of their own
    // and stay in the first-level cache until the pixel loop reads them.
    constexpr std::size_t kBlock = 256;
    std::array<float, kBlock> mask;
    for (std::size_t start = 0; start < count; start += kBlock) {
      const std::size_t block = std::min(kBlock, count - start);
      const float* column = columns.data() + start;
      for (std::size_t i = 0; i < block; ++i) mask[i] = shape.mask(column[i] + row);
      shade(
          in + start, out + start, [m = mask.data()](std::size_t i) { return m[i]; }, block);
    }
  });
}

int ToolGraduatedNaturalDensityEffect::reach(float) const {
  return 0;
}

bool ToolGraduatedNaturalDensityEffect::isIdentity() const {
  return signedFraction(*this, 0) == 0.0f;
}

// Graduated neutral density: an exposure gain of up to ±2 stops faded in across a smooth step.
void ToolGraduatedNaturalDensityEffect::render(const Window& window) const {
  const float stops = 2.0f * signedFraction(*this, 0);
  const FrameGradient gradient = gradientOf(*this, window.frame, 1);
  // Where the transition has not begun the gain is exactly 2^0 = 1 and pixels are kept.
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int x0, int y) {
    detail::clonedLoop(
        [&](std::size_t i) {
          const float t = unitStep(gradient.across(x0 + static_cast<int>(i), y));
          out[i] = detail::scaled(in[i], detail::fastExp2(stops * t));
        },
        count);
  });
}

namespace {

/// The seven adjustments a graduated filter carries, each -1 ... 1.
struct GraduatedAdjustments {
  float exposure;
  float contrast;
  float highlights;
  float shadows;
  float saturation;
  float temperature;
  float tint;
  /// Exposure and white balance as one gain per channel.
  PixelRGB<float> balance;

  explicit GraduatedAdjustments(const Effect& effect)
      : exposure(signedFraction(effect, 0)),
        contrast(signedFraction(effect, 1)),
        highlights(signedFraction(effect, 2)),
        shadows(signedFraction(effect, 3)),
        saturation(signedFraction(effect, 4)),
        temperature(signedFraction(effect, 5)),
        tint(signedFraction(effect, 6)) {
    constexpr float kWarmStops = 0.3f;
    const float gain = std::exp2(2.0f * exposure);
    balance = PixelRGB<float>(gain * std::exp2(kWarmStops * temperature),
                              gain * std::exp2(-kWarmStops * tint),
                              gain * std::exp2(-kWarmStops * temperature));
  }

  bool none() const {
    return exposure == 0.0f && contrast == 0.0f && highlights == 0.0f && shadows == 0.0f &&
           saturation == 0.0f && temperature == 0.0f && tint == 0.0f;
  }

  /// Contrast and highlights/shadows as one curve of luminance, applied as a gain so colours
  /// keep their hue. Scene-referred values pivot contrast on middle grey in stops, and the curve
  /// works on y / (1 + y) as the keyed-gain kernel expects.
  std::function<float(float)> toneCurve(bool sceneReferred) const {
    const float c = contrast;
    const float h = highlights;
    const float sh = shadows;
    const auto stops = [h, sh](float level) {
      return h * smoothStep(0.4f, 1.0f, level) + sh * (1.0f - smoothStep(0.0f, 0.6f, level));
    };
    if (sceneReferred) {
      return [c, stops](float r) {
        constexpr float kGrey = 0.18f;
        const float y = r / std::max(1.0f - r, 1e-6f);
        float toned = y > 0.0f ? kGrey * std::pow(y / kGrey, 1.0f + 0.5f * c) : 0.0f;
        toned *= std::exp2(stops(toned / (1.0f + toned)));
        return toned / (1.0f + toned);
      };
    }
    return [c, stops](float x) {
      constexpr float kPivot = 0.5f;
      const float toned = std::max(0.0f, kPivot + (x - kPivot) * (1.0f + 0.6f * c));
      return toned * std::exp2(stops(detail::unitClamp(toned)));
    };
  }
};

/// A graduated filter's adjustments faded in across its line: white balance and exposure as one
/// gain per channel, the tone curve as a luminance gain through the shared lookup, saturation.
void renderGraduated(const Effect& effect, const detail::StencilWindow& window,
                     bool sceneReferred) {
  const GraduatedAdjustments adjustments(effect);
  const FrameGradient gradient = gradientOf(effect, window.frame, 7);
  const auto lookup = detail::makeToneCurve(adjustments.toneCurve(sceneReferred), 1.0f);
  const detail::GainDomain domain =
      sceneReferred ? detail::GainDomain::Hdr : detail::GainDomain::Display;
  const PixelRGB<float> balance = adjustments.balance;
  const float saturation = 1.0f + adjustments.saturation;
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int x0, int y) {
    // The row's coverage in a loop of its own that vectorises; it is linear along the row, so its
    // covered pixels form one run: only they are adjusted, the rest copied.
    thread_local std::vector<float> coverage;
    coverage.resize(count);
    float* covered = coverage.data();
    detail::clonedLoop(
        [=](std::size_t i) { covered[i] = gradient.at(x0 + static_cast<int>(i), y); }, count);
    std::size_t first = 0;
    std::size_t end = count;
    while (first < end && covered[first] == 0.0f) ++first;
    while (end > first && covered[end - 1] == 0.0f) --end;
    std::copy(in, in + first, out);
    std::copy(in + end, in + count, out + end);
    if (first == end) return;
    // Blocks small enough that the adjusted pixels stay in the first-level cache between passes.
    constexpr std::size_t kBlock = 256;
    std::array<PixelRGB<float>, kBlock> adjusted;
    PixelRGB<float>* a = adjusted.data();
    for (std::size_t start = first; start < end; start += kBlock) {
      const std::size_t block = std::min(kBlock, end - start);
      const PixelRGB<float>* source = in + start;
      detail::clonedLoop(
          [=](std::size_t i) {
            const PixelRGB<float> p = detail::spreadable(source[i]);
            a[i] = PixelRGB<float>(p.r * balance.r, p.g * balance.g, p.b * balance.b);
          },
          block);
      detail::applyKeyedGain(*lookup, domain, a, nullptr, a, block);
      const float* weight = covered + start;
      PixelRGB<float>* target = out + start;
      detail::clonedLoop(
          [=](std::size_t i) {
            const PixelRGB<float> s = detail::saturated(a[i], saturation);
            // Selects, not std::max, whose reference return keeps the loop from vectorising.
            const PixelRGB<float> kept(s.r < 0.0f ? 0.0f : s.r, s.g < 0.0f ? 0.0f : s.g,
                                       s.b < 0.0f ? 0.0f : s.b);
            target[i] = detail::mix(source[i], kept, weight[i]);
          },
          block);
    }
  });
}

}  // namespace

int AdjustableGraduatedEffect::reach(float) const {
  return 0;
}

bool AdjustableGraduatedEffect::isIdentity() const {
  return GraduatedAdjustments(*this).none();
}

// Graduated adjustments: the adjusted picture mixed in by a smooth step across the line.
void AdjustableGraduatedEffect::render(const Window& window) const {
  renderGraduated(*this, window, false);
}

int AdjustableGraduatedEffectHDR::reach(float) const {
  return 0;
}

bool AdjustableGraduatedEffectHDR::isIdentity() const {
  return GraduatedAdjustments(*this).none();
}

void AdjustableGraduatedEffectHDR::render(const Window& window) const {
  renderGraduated(*this, window, true);
}

namespace {

float depthSigma(const Effect& effect) {
  return 40.0f * fraction(effect, 0);
}

}  // namespace

int DepthEffect::reach(float spatialScale) const {
  return detail::gaussianReach(depthSigma(*this) * spatialScale);
}

bool DepthEffect::isIdentity() const {
  return depthSigma(*this) * spatialScale() < detail::kNegligibleSigma;
}

// Depth of field: a Gaussian blur mixed in with the distance from the focus band, so the band
// stays sharp and the picture softens smoothly above and below it.
void DepthEffect::render(const Window& window) const {
  const detail::ImageRGBf blurred =
      detail::blurredWindow(window, depthSigma(*this) * window.spatialScale);
  const float focusY = static_cast<float>(window.frame.y) +
                       fraction(*this, 1) * static_cast<float>(window.frame.height);
  const float height = static_cast<float>(std::max(window.frame.height, 1));
  constexpr float kSharpBand = 0.08f;
  constexpr float kFullBlur = 0.45f;
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t index, int, int y) {
    const float distance = std::fabs(static_cast<float>(y) + 0.5f - focusY) / height;
    const float w = smoothStep(kSharpBand, kFullBlur, distance);
    const PixelRGB<float>* b = blurred.data + index;
    for (std::size_t i = 0; i < count; ++i)
      out[i] = w == 0.0f ? in[i] : detail::mix(in[i], b[i], w);
  });
}

}  // namespace vorn
