#include <algorithm>
#include <array>
#include <cmath>

#include "effects/color/color_kernels.h"
#include "effects/kernels/mix.h"
#include "vorn/effects/color_effects.h"

// Toning: colour added by tonal range (Oklab offsets weighted over lightness) and the film looks
// made of per-channel curves.
namespace vorn {

using detail::LmsRoot;
using detail::Oklab;

namespace {

/// Oklab chroma a toning slider at 100 adds: a clear but not garish tint.
constexpr float kToneChroma = 0.07f;

/// An Oklab (a, b) offset of `chroma` towards the wheel hue `degrees`, as the change it makes
/// to the cone roots (the map between them is linear).
LmsRoot toneOffset(float degrees, float chroma) {
  const detail::HueDirection d = detail::wheelHue(degrees);
  return LmsRoot::of(Oklab{0.0f, chroma * d.cosine, chroma * d.sine});
}

/// Split toning: highlights and shadows each shifted by their own offset; black and white stay.
/// Only the weights depend on the pixel, through its lightness.
std::unique_ptr<detail::RowKernel> splitToneKernel(LmsRoot highlights, LmsRoot shadows,
                                                   float balance) {
  return detail::lmsRootKernel([=, ranges = detail::ToneRanges(balance)](LmsRoot& roots) {
    const float L = roots.lightness();
    roots.add(ranges.highlights(L), highlights);
    roots.add(ranges.shadows(L), shadows);
  });
}

/// The wheel hue of warm light; cool is its opposite.
constexpr float kWarmHue = 35.0f;

}  // namespace

// Split toning: Oklab chroma offsets towards each range's hue, weighted over lightness.
PointEffect::Kernel SplitToningEffect::prepare(const Setup&) const {
  const float highlights = mappedValue(1, 0.0f, 0.5f, 1.0f);
  const float shadows = mappedValue(3, 0.0f, 0.5f, 1.0f);
  if (highlights == 0.0f && shadows == 0.0f) return nullptr;
  return splitToneKernel(toneOffset(mappedValue(0, 0.0f, 180.0f, 360.0f), kToneChroma * highlights),
                         toneOffset(mappedValue(2, 0.0f, 180.0f, 360.0f), kToneChroma * shadows),
                         mappedValue(4, -1.0f, 0.0f, 1.0f));
}

// Split warmth: split toning along the warm-cool axis, negative values cooling.
PointEffect::Kernel SplitWarmthEffect::prepare(const Setup&) const {
  const float highlights = mappedValue(0, -1.0f, 0.0f, 1.0f);
  const float shadows = mappedValue(1, -1.0f, 0.0f, 1.0f);
  if (highlights == 0.0f && shadows == 0.0f) return nullptr;
  // Warmth reads as a smaller shift than a free tint.
  constexpr float kWarmChroma = 0.6f * kToneChroma;
  return splitToneKernel(toneOffset(kWarmHue, kWarmChroma * highlights),
                         toneOffset(kWarmHue, kWarmChroma * shadows), 0.0f);
}

// Colour tint: every hue pulled towards the tint hue with its chroma kept, and near-greys given
// a little of it, weighted to the midtones; a duotone at 100.
PointEffect::Kernel ColorsTintEffect::prepare(const Setup&) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (amount == 0.0f) return nullptr;
  // The unit chroma step towards the tint hue, as a change of the cone roots.
  const LmsRoot tint = toneOffset(mappedValue(1, 0.0f, 180.0f, 360.0f), 1.0f);
  const float keep = 1.0f - amount;
  return detail::lmsRootKernel([amount, keep, tint](LmsRoot& roots) {
    const Oklab lab = roots.oklab();
    const float L = detail::unitClampBits(lab.L);
    // The near-grey floor 0.14 L (1 - L), as 0.14 L - 0.14 L L in one fused step.
    const float scaled = 0.5f * kToneChroma * 4.0f * L;
    const float c = std::max(detail::chroma(lab), std::fma(-scaled, L, scaled));
    roots.reshape(lab.L, keep, lab.L);
    roots.add(amount * c, tint);
  });
}

namespace {

/// A curve on [0, 1] in closed form, continued as the tabulated channel curves are: its value at
/// 0 below 0 (NaN too) and its end slope above 1.
template <typename Shape>
struct ExtendedCurve {
  explicit ExtendedCurve(Shape f)
      : shape(f),
        atOne(f(1.0f)),
        // The slope of the last of 1024 steps, as the tables had it.
        slope((f(1.0f) - f(1.0f - 1.0f / 1024.0f)) * 1024.0f) {}
  float operator()(float x) const {
    // Both sides computed, so that the loop around has no branch.
    const float inside = shape(detail::intoUnitInterval(x));
    return x > 1.0f ? atOne + (x - 1.0f) * slope : inside;
  }
  Shape shape;
  float atOne;
  float slope;
};

// The curves come by value: read through a closure, they could change with every float stored,
// and the loop would stay scalar.
template <typename Curve>
VORN_DISPATCH_TEMPLATE void applyCurves(const float* in, float* out, std::size_t count, Curve red,
                                        Curve green, Curve blue) {
  // Each pixel reads only itself, in place too.
  VORN_IVDEP
  for (std::size_t i = 0; i < count; ++i) {
    out[3 * i] = red(in[3 * i]);
    out[3 * i + 1] = green(in[3 * i + 1]);
    out[3 * i + 2] = blue(in[3 * i + 2]);
  }
}

/// One curve per channel on the encoded values, worked out per value rather than read from a
/// table: the vector units have no cheap gather.
template <typename Shape>
std::unique_ptr<detail::RowKernel> channelFormulasKernel(std::array<Shape, 3> shapes) {
  return detail::rowKernel([red = ExtendedCurve<Shape>(shapes[0]),
                            green = ExtendedCurve<Shape>(shapes[1]),
                            blue = ExtendedCurve<Shape>(shapes[2])](
                               const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
    applyCurves(&in->r, &out->r, count, red, green, blue);
  });
}

/// c[0] + c[1] u + c[2] u^2 + c[3] u^3.
struct Cubic {
  std::array<float, 4> c;
  float operator()(float u) const { return ((c[3] * u + c[2]) * u + c[1]) * u + c[0]; }
};

/// The identity mixed with a cubic step by `strength`, and that with the identity by amount:
/// u + amount strength (3 u^2 - 2 u^3 - u).
Cubic blendedSCurve(float amount, float strength) {
  const float k = amount * strength;
  return {{0.0f, 1.0f - k, 3.0f * k, -2.0f * k}};
}

}  // namespace

// Cross processing (slide film in negative chemistry): hard red and green contrast, blue
// flattened with lifted blacks, so shadows go blue and highlights yellow; each curve blended
// with the identity by amount.
PointEffect::Kernel CrossProcessingEffect::prepare(const Setup&) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (amount == 0.0f) return nullptr;
  // Blue: 0.14 + 0.72 u blended by amount.
  const Cubic blue{{0.14f * amount, 1.0f - 0.28f * amount, 0.0f, 0.0f}};
  return channelFormulasKernel<Cubic>(
      {blendedSCurve(amount, 0.8f), blendedSCurve(amount, 0.4f), blue});
}

namespace {

/// gain (u + lift (1 - u))^exponent, 0 where the lifted value is not positive.
struct LiftGammaGain {
  LiftGammaGain(float shadows, float power, float highlights)
      : lift(shadows), rest(1.0f - shadows), exponent(power), gain(highlights) {}
  float lift;
  float rest;
  float exponent;
  float gain;
  float operator()(float u) const {
    const float lifted = lift + rest * u;
    // Computed for every value, so the select needs no branch; kept only for positive normals.
    const float power = gain * detail::fastPow(lifted > 1e-30f ? lifted : 1.0f, exponent);
    return lifted > 1e-30f ? power : 0.0f;
  }
};

}  // namespace

// Colour balance: lift (shadows), gamma (midtones) and gain (highlights) per channel; each
// slider raises its colour's channel and lowers the two others by half as much.
PointEffect::Kernel ColorBalanceEffect::prepare(const Setup&) const {
  // [range][channel]: midtones, shadows, highlights.
  std::array<std::array<float, 3>, 3> shift{};
  bool any = false;
  for (std::size_t range = 0; range < 3; ++range) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
      const float v = mappedValue(3 * range + axis, -1.0f, 0.0f, 1.0f);
      any = any || v != 0.0f;
      for (std::size_t channel = 0; channel < 3; ++channel)
        shift[range][channel] += channel == axis ? v : -0.5f * v;
    }
  }
  if (!any) return nullptr;
  const auto curve = [&](std::size_t c) {
    return LiftGammaGain(0.12f * shift[1][c], std::exp2(-0.6f * shift[0][c]),
                         1.0f + 0.3f * shift[2][c]);
  };
  return channelFormulasKernel<LiftGammaGain>({curve(0), curve(1), curve(2)});
}

// Bleach bypass: the silver left in the print as an overlay of luminance on the colour (the
// multiply or screen half chosen by the pixel's luminance, so hues hold), blended by amount;
// then saturation around luminance.
PointEffect::Kernel ComplexBleachEffect::prepare(const Setup&) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  const float saturation = 1.0f + mappedValue(1, -1.0f, 0.0f, 1.0f);
  if (amount == 0.0f && saturation == 1.0f) return nullptr;
  return detail::encodedKernel([amount, saturation](float& r, float& g, float& b) {
    const float y = detail::unitClamp(detail::luminance(r, g, b));
    const float screenWeight = detail::smoothStep(0.45f, 0.55f, y);
    const auto overlay = [y, screenWeight](float c) {
      const float u = detail::unitClamp(c);
      const float multiplied = 2.0f * u * y;
      const float screened = 1.0f - 2.0f * (1.0f - u) * (1.0f - y);
      return c + (detail::mix(multiplied, screened, screenWeight) - u);
    };
    r = detail::mix(r, overlay(r), amount);
    g = detail::mix(g, overlay(g), amount);
    b = detail::mix(b, overlay(b), amount);
    const float grey = detail::luminance(r, g, b);
    r = grey + (r - grey) * saturation;
    g = grey + (g - grey) * saturation;
    b = grey + (b - grey) * saturation;
  });
}

}  // namespace vorn
