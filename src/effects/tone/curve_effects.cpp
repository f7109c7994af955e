#include <array>
#include <cstdint>
#include <vector>

#include "effects/kernels/histogram.h"
#include "effects/kernels/luminance.h"
#include "effects/tone/tone_kernels.h"
#include "effects/tone/tone_shapes.h"
#include "vorn/effects/tone_effects.h"

namespace vorn {

namespace {

using detail::GainDomain;

/// Display value of scene middle grey; the HDR contrast pivots there.
constexpr float kMiddleGrey = 0.46f;

}  // namespace

PointEffect::Kernel BlackWhiteEffect::prepare(const Setup&) const {
  const float whites = mappedValue(0, -1.0f, 0.0f, 1.0f);
  const float blacks = mappedValue(1, -1.0f, 0.0f, 1.0f);
  if (whites == 0.0f && blacks == 0.0f) return nullptr;
  return detail::channelCurveKernel(
      [blacks, whites](float x) { return detail::blackWhiteShape(x, blacks, whites); });
}

PointEffect::Kernel PhotoshopBrightnessEffect::prepare(const Setup&) const {
  // -0.6 is the inverse of +1.5, so the two ends of the slider undo each other.
  const float a = mappedValue(0, -0.6f, 0.0f, 1.5f);
  if (a == 0.0f) return nullptr;
  return detail::channelCurveKernel([a](float x) { return detail::brightnessShape(x, a); });
}

PointEffect::Kernel SmartContrastEffect::prepare(const Setup&) const {
  const float midtones = mappedValue(0, -1.0f, 0.0f, 1.0f);
  const float midPivot = mappedValue(1, 0.3f, 0.5f, 0.7f);
  const float shadows = mappedValue(2, -1.0f, 0.0f, 1.0f);
  const float shadowPivot = mappedValue(3, 0.1f, 0.2f, 0.3f);
  if (midtones == 0.0f && shadows == 0.0f) return nullptr;
  return detail::lumaCurveKernel(
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

PointEffect::Kernel CurveEffect::prepare(const Setup&) const {
  const float middle = mappedValue(0, 0.1f, 0.5f, 0.9f);
  std::vector<float> xs, ys;
  const bool hasPoints = !parameters_.empty() && curvePoints(parameters_[0].optionalData(), xs, ys);
  if (!hasPoints) {
    xs.assign({0.0f, 1.0f});
    ys.assign({0.0f, 1.0f});
  }
  const detail::MonotoneCurve points(xs, ys);
  const detail::MonotoneCurve midtone({0.0f, 0.5f, 1.0f}, {0.0f, middle, 1.0f});
  if (!hasPoints && middle == 0.5f) return nullptr;
  return detail::channelCurveKernel([&](float x) { return midtone(points(x)); });
}

PointEffect::Kernel ContrastEffect::prepare(const Setup&) const {
  const float c = mappedValue(0, -1.0f, 0.0f, 1.0f);
  if (c == 0.0f) return nullptr;
  return detail::channelCurveKernel([c](float x) { return detail::sCurve(x, c); });
}

PointEffect::Kernel ContrastLumaEffect::prepare(const Setup&) const {
  const float c = mappedValue(0, -1.0f, 0.0f, 1.0f);
  if (c == 0.0f) return nullptr;
  return detail::lumaCurveKernel([c](float x) { return detail::sCurve(x, c); },
                                 GainDomain::Display);
}

PointEffect::Kernel ContrastEffectHDR::prepare(const Setup&) const {
  const float c = mappedValue(0, -1.0f, 0.0f, 1.0f);
  if (c == 0.0f) return nullptr;
  constexpr float kPivot = kMiddleGrey / (1.0f + kMiddleGrey);
  return detail::lumaCurveKernel([c](float r) { return detail::pivotedContrast(r, c, kPivot); },
                                 GainDomain::Hdr);
}

namespace {

constexpr std::size_t kHistogramBins = 4096;

}  // namespace

PointEffect::Kernel ContrastAutoEffect::prepare(const Setup& setup) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (amount == 0.0f) return nullptr;
  const std::vector<std::uint64_t> counts =
      detail::histogram(setup.statistics, setup.statisticsRect, kHistogramBins,
                        [](const PixelRGB<float>& p) { return detail::luminance(p); });
  const float low = detail::histogramPercentile(counts, 0.001);
  const float high = detail::histogramPercentile(counts, 0.999);
  // A nearly flat (or empty) picture has no range worth stretching.
  constexpr float kMinimumSpread = 0.05f;
  if (high - low < kMinimumSpread) return nullptr;
  return detail::channelCurveKernel([=](float x) {
    const float stretched = (x - low) / (high - low);
    const float y = x + amount * (stretched - x);
    return y > 0.0f ? y : 0.0f;
  });
}

PointEffect::Kernel FadeEffect::prepare(const Setup&) const {
  const float a = mappedValue(0, 0.0f, 0.5f, 1.0f);
  if (a == 0.0f) return nullptr;
  return detail::channelCurveKernel([a](float x) { return detail::fadeShape(x, a); });
}

}  // namespace vorn
