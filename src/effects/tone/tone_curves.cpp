#include <array>
#include <cstdint>
#include <vector>

#include "effects/tone/tone_render.h"
#include "effects/tone/tone_shapes.h"
#include "vorn/effects/tone_effects.h"

namespace vorn {

namespace {

using detail::GainDomain;

/// Display value of scene middle grey; the HDR contrast pivots there.
constexpr float kMiddleGrey = 0.46f;

}  // namespace

bool BlackWhiteEffect::processImage(EffectCallContext& call) {
  const float whites = mappedValue(0, -1.0f, 0.0f, 1.0f);
  const float blacks = mappedValue(1, -1.0f, 0.0f, 1.0f);
  return detail::renderChannelCurve(
      call, whites == 0.0f && blacks == 0.0f,
      [blacks, whites](float x) { return detail::blackWhiteShape(x, blacks, whites); });
}

bool PhotoshopBrightnessEffect::processImage(EffectCallContext& call) {
  // -0.6 is the inverse of +1.5, so the two ends of the slider undo each other.
  const float a = mappedValue(0, -0.6f, 0.0f, 1.5f);
  return detail::renderChannelCurve(call, a == 0.0f,
                                    [a](float x) { return detail::brightnessShape(x, a); });
}

bool SmartContrastEffect::processImage(EffectCallContext& call) {
  const float midtones = mappedValue(0, -1.0f, 0.0f, 1.0f);
  const float midPivot = mappedValue(1, 0.3f, 0.5f, 0.7f);
  const float shadows = mappedValue(2, -1.0f, 0.0f, 1.0f);
  const float shadowPivot = mappedValue(3, 0.1f, 0.2f, 0.3f);
  const bool identity = midtones == 0.0f && shadows == 0.0f;
  return detail::renderLumaCurve(
      call, identity,
      [=](float x) {
        const float y = detail::shadowContrast(x, shadows, 2.0f * shadowPivot);
        return detail::pivotedContrast(y, midtones, midPivot);
      },
      GainDomain::Display);
}

namespace {

/// Curve points from the optional data: an even count of at least four finite floats with x
/// strictly increasing in [0, 1]; anything else is ignored (the curve is then the identity).
bool curvePoints(const ParameterOptionalData& data, std::vector<float>& xs,
                 std::vector<float>& ys) {
  const auto* flat = boost::get<std::vector<float>>(&data);
  if (!flat || flat->size() < 4 || flat->size() % 2 != 0) return false;
  for (std::size_t i = 0; i < flat->size(); i += 2) {
    const float x = (*flat)[i];
    const float y = (*flat)[i + 1];
    if (!std::isfinite(x) || !std::isfinite(y) || x < 0.0f || x > 1.0f) return false;
    if (!xs.empty() && x <= xs.back()) return false;
    xs.push_back(x);
    ys.push_back(std::clamp(y, 0.0f, 1.0f));
  }
  return true;
}

}  // namespace

bool CurveEffect::processImage(EffectCallContext& call) {
  const float middle = mappedValue(0, 0.1f, 0.5f, 0.9f);
  std::vector<float> xs, ys;
  const bool hasPoints = !parameters_.empty() && curvePoints(parameters_[0].optionalData(), xs, ys);
  if (!hasPoints) {
    xs.assign({0.0f, 1.0f});
    ys.assign({0.0f, 1.0f});
  }
  const detail::MonotoneCurve points(xs, ys);
  const detail::MonotoneCurve midtone({0.0f, 0.5f, 1.0f}, {0.0f, middle, 1.0f});
  return detail::renderChannelCurve(call, !hasPoints && middle == 0.5f,
                                    [&](float x) { return midtone(points(x)); });
}

bool ContrastEffect::processImage(EffectCallContext& call) {
  const float c = mappedValue(0, -1.0f, 0.0f, 1.0f);
  return detail::renderChannelCurve(call, c == 0.0f, [c](float x) { return detail::sCurve(x, c); });
}

bool ContrastLumaEffect::processImage(EffectCallContext& call) {
  const float c = mappedValue(0, -1.0f, 0.0f, 1.0f);
  return detail::renderLumaCurve(
      call, c == 0.0f, [c](float x) { return detail::sCurve(x, c); }, GainDomain::Display);
}

bool ContrastEffectHDR::processImage(EffectCallContext& call) {
  const float c = mappedValue(0, -1.0f, 0.0f, 1.0f);
  constexpr float kPivot = kMiddleGrey / (1.0f + kMiddleGrey);
  return detail::renderLumaCurve(
      call, c == 0.0f, [c](float r) { return detail::pivotedContrast(r, c, kPivot); },
      GainDomain::Hdr);
}

namespace {

constexpr std::size_t kHistogramBins = 4096;
using Histogram = std::vector<std::uint64_t>;

/// The value below which `fraction` of the counted pixels lie.
float histogramPoint(const Histogram& counts, std::uint64_t total, double fraction) {
  const auto wanted = static_cast<std::uint64_t>(fraction * static_cast<double>(total));
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    seen += counts[i];
    if (seen > wanted) return static_cast<float>(i) / static_cast<float>(kHistogramBins - 1);
  }
  return 1.0f;
}

}  // namespace

bool ContrastAutoEffect::processImage(EffectCallContext& call) {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (amount == 0.0f) return detail::copySourceToDestination(call);
  if (!detail::prepareDestination(call)) return false;
  const auto& statistics =
      call.reference && !call.reference->empty() ? *call.reference : *call.source;
  const Histogram counts = detail::histogram(
      statistics, kHistogramBins,
      [](const PixelRGB<float>& p) { return 0.2126f * p.r + 0.7152f * p.g + 0.0722f * p.b; });
  std::uint64_t total = 0;
  for (std::uint64_t count : counts) total += count;
  const float low = histogramPoint(counts, total, 0.001);
  const float high = histogramPoint(counts, total, 0.999);
  // A nearly flat picture has no range worth stretching.
  constexpr float kMinimumSpread = 0.05f;
  const bool flat = total == 0 || high - low < kMinimumSpread;
  return detail::renderChannelCurve(call, flat, [=](float x) {
    const float stretched = (x - low) / (high - low);
    const float y = x + amount * (stretched - x);
    return y > 0.0f ? y : 0.0f;
  });
}

bool FadeEffect::processImage(EffectCallContext& call) {
  const float a = mappedValue(0, 0.0f, 0.5f, 1.0f);
  return detail::renderChannelCurve(call, a == 0.0f,
                                    [a](float x) { return detail::fadeShape(x, a); });
}

}  // namespace vorn
