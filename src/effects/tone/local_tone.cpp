#include <algorithm>

#include "effects/kernels/guided_filter.h"
#include "effects/kernels/luminance.h"
#include "effects/tone/tone_kernels.h"
#include "effects/tone/tone_shapes.h"
#include "vorn/effects/tone_effects.h"

namespace vorn {

namespace {

using detail::GainDomain;
using detail::Plane;

// The base luminance is edge-preserving (a self-guided filter): flat areas follow their
// surroundings so local contrast survives, edges brighter than eps stay sharp (no halos).
constexpr float kBaseRadius = 40.0f;
constexpr float kBaseEps = 0.01f;
constexpr float kDetailRadius = 24.0f;
constexpr float kDetailEps = 0.01f;
/// Luminance is limited to this before filtering so that one extreme value stays local.
constexpr float kFilterCeiling = 256.0f;

/// Finite luminance of every window pixel (NaN as 0), in the domain the curve works in.
Plane luminancePlane(const detail::StencilWindow& window, GainDomain domain) {
  return detail::planeOf(window.source, window.input, [domain](const PixelRGB<float>& p) {
    float luma = detail::luminance(p);
    luma = luma > 0.0f ? luma : 0.0f;
    luma = luma < kFilterCeiling ? luma : kFilterCeiling;
    return domain == GainDomain::Hdr ? luma / (1.0f + luma) : luma;
  });
}

/// The edge-preserving base luminance of the window, returned as plain luminance.
Plane baseLuminance(const detail::StencilWindow& window, GainDomain domain, int radius) {
  const Plane luma = luminancePlane(window, domain);
  Plane base;
  detail::guidedFilter(luma, luma, radius, kBaseEps, base, &window.control);
  if (domain == GainDomain::Hdr) {
    constexpr float kBelowOne = 1.0f - 1.0f / 1048576.0f;
    detail::parallelChunks(base.size(), 1 << 16, [&](std::size_t first, std::size_t end) {
      for (std::size_t i = first; i < end; ++i) {
        const float limited = std::clamp(base.data()[i], 0.0f, kBelowOne);
        base.data()[i] = limited / (1.0f - limited);
      }
    });
  }
  return base;
}

/// The shadows slider to its curve strength: up to 1.5 lifting, -1 deepening.
float shadowsStrength(float normalized) {
  return normalized >= 0.0f ? 1.5f * normalized : normalized;
}

/// The highlights slider to its curve strength: up to 1 brightening, -1.2 recovering.
float highlightsStrength(float normalized) {
  return normalized >= 0.0f ? normalized : 1.2f * normalized;
}

/// One local curve for both sliders; empty when both are 0.
std::function<float(float)> highlightsShadowsCurve(float highlights, float shadows) {
  const float ch = highlightsStrength(highlights);
  const float cs = shadowsStrength(shadows);
  if (ch == 0.0f && cs == 0.0f) return {};
  return [ch, cs](float x) {
    return detail::highlightsShape(x, ch) + detail::shadowsShape(x, cs) - x;
  };
}

}  // namespace

// Two filter passes of the base radius each.
int LocalToneEffect::reach(float spatialScale) const {
  return 2 * detail::pixelsAt(kBaseRadius, spatialScale);
}

void LocalToneEffect::render(const Window& window) const {
  const GainDomain domain = sceneReferred() ? GainDomain::Hdr : GainDomain::Display;
  const auto lookup = detail::makeToneCurve(toneCurve(), 1.0f);
  const Plane base = baseLuminance(window, domain, window.pixels(kBaseRadius));
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        detail::applyKeyedGain(*lookup, domain, in, base.data() + index, out, count);
      });
}

std::function<float(float)> DynBrightnessEffect::toneCurve() const {
  const float a = amount();
  if (a == 0.0f) return {};
  return [a](float x) { return detail::smartToneShape(x, a); };
}

std::function<float(float)> DynBrightnessEffectHDR::toneCurve() const {
  const float a = mappedValue(0, -1.0f, 0.0f, 1.0f);
  if (a == 0.0f) return {};
  return [a](float r) { return detail::smartToneShape(r, a); };
}

std::function<float(float)> HighlightsEffect::toneCurve() const {
  return highlightsShadowsCurve(mappedValue(0, -1.0f, 0.0f, 1.0f),
                                mappedValue(1, -1.0f, 0.0f, 1.0f));
}

std::function<float(float)> HighlightsEffectHDR::toneCurve() const {
  return highlightsShadowsCurve(mappedValue(0, -1.0f, 0.0f, 1.0f),
                                mappedValue(1, -1.0f, 0.0f, 1.0f));
}

std::function<float(float)> ShadowsEffect::toneCurve() const {
  return highlightsShadowsCurve(0.0f, mappedValue(0, -1.0f, 0.0f, 1.0f));
}

namespace {

/// The dynamic-contrast boost of the current value: 0 ... 0.75 ... 1.5.
float accentBoost(const Effect& effect) {
  return effect.mappedValue(0, 0.0f, 0.75f, 1.5f);
}

}  // namespace

int Accent20Effect::reach(float spatialScale) const {
  return 2 * detail::pixelsAt(kDetailRadius, spatialScale);
}

bool Accent20Effect::isIdentity() const {
  return accentBoost(*this) == 0.0f;
}

// Luminance detail around an edge-preserving base is amplified by 1 + boost (less in deep
// shadows, whose detail is mostly noise), as a gain on all channels.
void Accent20Effect::render(const Window& window) const {
  const float boost = accentBoost(*this);
  const Plane luma = luminancePlane(window, GainDomain::Display);
  Plane base;
  detail::guidedFilter(luma, luma, window.pixels(kDetailRadius), kDetailEps, base, &window.control);
  constexpr float kShadowKnee = 0.05f;
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        const float* l = luma.data() + index;
        const float* b = base.data() + index;
        for (std::size_t x = 0; x < count; ++x) {
          const float weight = b[x] / (b[x] + kShadowKnee);
          const float boosted = b[x] + (l[x] - b[x]) * (1.0f + boost * weight);
          const float key = l[x] > detail::kMinKey ? l[x] : detail::kMinKey;
          const float gain = (boosted > 0.0f ? boosted : 0.0f) / key;
          out[x] = PixelRGB<float>(in[x].r * gain, in[x].g * gain, in[x].b * gain);
        }
      });
}

}  // namespace vorn
