#include <algorithm>

#include "effects/tone/guided_filter.h"
#include "effects/tone/tone_render.h"
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

/// Finite luminance per pixel (NaN as 0) in the domain the curve works in.
Plane luminancePlane(const detail::ImageRGBf& image, GainDomain domain) {
  Plane plane(image.width, image.height);
  detail::parallelRows(image.height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const PixelRGB<float>* in = image.row(y);
      float* out = plane.row(y);
      for (int x = 0; x < image.width; ++x) {
        float luma = 0.2126f * in[x].r + 0.7152f * in[x].g + 0.0722f * in[x].b;
        luma = luma > 0.0f ? luma : 0.0f;
        luma = luma < kFilterCeiling ? luma : kFilterCeiling;
        out[x] = domain == GainDomain::Hdr ? luma / (1.0f + luma) : luma;
      }
    }
  });
  return plane;
}

/// The edge-preserving base luminance, returned as plain luminance in either domain.
Plane baseLuminance(const detail::ImageRGBf& image, GainDomain domain, int radius) {
  const Plane luma = luminancePlane(image, domain);
  Plane base;
  detail::guidedFilter(luma, luma, radius, kBaseEps, base);
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

/// A tone curve applied as a gain keyed by the base luminance.
template <typename Curve>
bool renderLocalTone(EffectCallContext& call, bool identity, const Curve& curve, GainDomain domain,
                     float scale) {
  if (identity) return detail::copySourceToDestination(call);
  if (!detail::prepareDestination(call)) return false;
  return detail::failOnExhaustion([&] {
    const auto lookup = detail::makeToneCurve(curve, 1.0f);
    const Plane base =
        baseLuminance(*call.source, domain, detail::scaledRadius(kBaseRadius, scale));
    detail::applyKeyedGain(*lookup, domain, *call.source, base.data(), *call.destination);
    return true;
  });
}

/// The shadows slider to its curve strength: up to 1.5 lifting, -1 deepening.
float shadowsStrength(float normalized) {
  return normalized >= 0.0f ? 1.5f * normalized : normalized;
}

/// The highlights slider to its curve strength: up to 1 brightening, -1.2 recovering.
float highlightsStrength(float normalized) {
  return normalized >= 0.0f ? normalized : 1.2f * normalized;
}

// Two filter passes of the base radius each.
int baseReach(float scale) {
  return 2 * detail::scaledRadius(kBaseRadius, scale);
}

}  // namespace

int DynBrightnessEffect::reach(float scale) {
  return baseReach(scale);
}
int DynBrightnessEffectHDR::reach(float scale) {
  return baseReach(scale);
}
int HighlightsEffect::reach(float scale) {
  return baseReach(scale);
}
int HighlightsEffectHDR::reach(float scale) {
  return baseReach(scale);
}
int ShadowsEffect::reach(float scale) {
  return baseReach(scale);
}
int Accent20Effect::reach(float scale) {
  return 2 * detail::scaledRadius(kDetailRadius, scale);
}

bool DynBrightnessEffect::processImage(EffectCallContext& call) {
  const float a = amount();
  return renderLocalTone(
      call, a == 0.0f, [a](float x) { return detail::smartToneShape(x, a); }, GainDomain::Display,
      renderScale());
}

bool DynBrightnessEffectHDR::processImage(EffectCallContext& call) {
  const float a = mappedValue(0, -1.0f, 0.0f, 1.0f);
  return renderLocalTone(
      call, a == 0.0f, [a](float r) { return detail::smartToneShape(r, a); }, GainDomain::Hdr,
      renderScale());
}

namespace {

bool renderHighlightsShadows(EffectCallContext& call, float highlights, float shadows,
                             GainDomain domain, float scale) {
  const float ch = highlightsStrength(highlights);
  const float cs = shadowsStrength(shadows);
  return renderLocalTone(
      call, ch == 0.0f && cs == 0.0f,
      [ch, cs](float x) {
        return detail::highlightsShape(x, ch) + detail::shadowsShape(x, cs) - x;
      },
      domain, scale);
}

}  // namespace

bool HighlightsEffect::processImage(EffectCallContext& call) {
  return renderHighlightsShadows(call, mappedValue(0, -1.0f, 0.0f, 1.0f),
                                 mappedValue(1, -1.0f, 0.0f, 1.0f), GainDomain::Display,
                                 renderScale());
}

bool HighlightsEffectHDR::processImage(EffectCallContext& call) {
  return renderHighlightsShadows(call, mappedValue(0, -1.0f, 0.0f, 1.0f),
                                 mappedValue(1, -1.0f, 0.0f, 1.0f), GainDomain::Hdr, renderScale());
}

bool ShadowsEffect::processImage(EffectCallContext& call) {
  return renderHighlightsShadows(call, 0.0f, mappedValue(0, -1.0f, 0.0f, 1.0f), GainDomain::Display,
                                 renderScale());
}

namespace {

/// Amplifies luminance detail around an edge-preserving base by 1 + boost (less in deep
/// shadows, whose detail is mostly noise), as a gain on all channels.
bool boostDetail(const detail::ImageRGBf& source, detail::ImageRGBf& destination, float boost,
                 float scale) {
  const Plane luma = luminancePlane(source, GainDomain::Display);
  Plane base;
  detail::guidedFilter(luma, luma, detail::scaledRadius(kDetailRadius, scale), kDetailEps, base);
  constexpr float kShadowKnee = 0.05f;
  detail::parallelRows(source.height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const PixelRGB<float>* in = source.row(y);
      PixelRGB<float>* out = destination.row(y);
      const float* l = luma.row(y);
      const float* b = base.row(y);
      for (int x = 0; x < source.width; ++x) {
        const float weight = b[x] / (b[x] + kShadowKnee);
        const float boosted = b[x] + (l[x] - b[x]) * (1.0f + boost * weight);
        const float key = l[x] > detail::kMinKey ? l[x] : detail::kMinKey;
        const float gain = (boosted > 0.0f ? boosted : 0.0f) / key;
        out[x] = PixelRGB<float>(in[x].r * gain, in[x].g * gain, in[x].b * gain);
      }
    }
  });
  return true;
}

}  // namespace

bool Accent20Effect::processImage(EffectCallContext& call) {
  const float boost = mappedValue(0, 0.0f, 0.75f, 1.5f);
  if (boost == 0.0f) return detail::copySourceToDestination(call);
  if (!detail::prepareDestination(call)) return false;
  return detail::failOnExhaustion(
      [&] { return boostDetail(*call.source, *call.destination, boost, renderScale()); });
}

}  // namespace vorn
