#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "effects/tone/tone_tables.h"

// The tone curves themselves: pure functions of one value, so that tests can check them
// directly and the effects only tabulate them.
namespace vorn::detail {

/// The exposure curve: the value pulled toward the middle by 0.9, multiplied by k in the
/// space of table A, brought back through table B; the part above white passes unchanged.
inline float exposureCurve(float x, float k, const ToneTables& tables) {
  const float over = x > 1.0f ? x - 1.0f : 0.0f;
  const float u = ((x - over) - 0.5f) * 0.9f + 0.5f;
  const auto index = [](float scaled) {
    return static_cast<std::size_t>(std::clamp(scaled, 0.0f, kToneTableScale - 1.0f));
  };
  const std::size_t i = index(u * kToneTableScale);
  const std::size_t j = index(k * tables.forward[i] * kToneTableScale);
  const float y = (tables.backward[j] - 0.5f) / 0.9f + 0.5f + over;
  return y > 0.0f ? y : 0.0f;
}

/// Exposure by `stops` of scene light: decode, multiply, encode; nothing is clipped.
inline float stopsExposureCurve(float x, float stops) {
  return linearToPerceptual(std::exp2(stops) * perceptualToLinear(x));
}

/// An S around 0.5 whose slope change is c * (1 at the middle, -0.8 at worst) and which meets
/// the identity with equal slope at 0 and 1; monotone for c in [-1, 1.25].
inline float sCurve(float t, float c) {
  const float u = t * (1.0f - t);
  return t + 8.0f * c * u * u * (2.0f * t - 1.0f);
}

/// sCurve moved so that it turns around `pivot` instead of 0.5 (a power warp of the axis).
inline float pivotedContrast(float x, float c, float pivot) {
  if (x <= 0.0f) return x;
  const float gamma = std::log(0.5f) / std::log(pivot);
  const float t = std::pow(std::min(x, 1.0f), gamma);
  const float y = std::pow(std::clamp(sCurve(t, c), 0.0f, 1.0f), 1.0f / gamma);
  return x > 1.0f ? y + (x - 1.0f) : y;
}

/// sCurve confined to [0, width]; identity above, with matching value and slope at width.
inline float shadowContrast(float x, float c, float width) {
  if (x <= 0.0f || x >= width) return x;
  return width * sCurve(x / width, c);
}

/// Lifts (c > 0) or deepens (c < 0) the shadows with 0 and 1 fixed; monotone for c in [-1, 3].
inline float shadowsShape(float x, float c) {
  const float rest = 1.0f - x;
  return x + c * x * rest * rest;
}

/// Brightens (c > 0) or recovers (c < 0) the highlights with 0 and 1 fixed; monotone for c in
/// [-3, 1].
inline float highlightsShape(float x, float c) {
  return x + c * x * x * (1.0f - x);
}

/// Midtone brightness with 0 and 1 fixed; monotone for a in [-1, 1].
inline float smartToneShape(float x, float a) {
  return x + a * x * (1.0f - x);
}

/// Whites and blacks: bumps confined near each end; monotone for both in [-1, 1].
inline float blackWhiteShape(float x, float blacks, float whites) {
  const float rest = 1.0f - x;
  const float x2 = x * x;
  const float rest2 = rest * rest;
  return x + blacks * x * rest2 * rest2 + whites * x2 * x2 * rest;
}

/// A rational brightness curve x (1 + a) / (1 + a x); a and -a / (1 + a) are inverses.
inline float brightnessShape(float x, float a) {
  return x * (1.0f + a) / (1.0f + a * x);
}

/// A matte: blacks lifted by 0.2 a, whites lowered by 0.05 a; slope stays at least 1 - 0.4 a.
inline float fadeShape(float x, float a) {
  const float rest = 1.0f - x;
  return x + a * (0.2f * rest * rest - 0.05f * x * x);
}

/// Monotone piecewise-cubic interpolation (Fritsch-Carlson): no overshoot between points, so
/// non-decreasing points give a non-decreasing curve. Straight lines beyond the end points.
class MonotoneCurve {
 public:
  /// xs strictly increasing, same length as ys, at least two points.
  MonotoneCurve(std::vector<float> xs, std::vector<float> ys);
  float operator()(float x) const;

 private:
  std::vector<float> xs_;
  std::vector<float> ys_;
  std::vector<float> tangents_;
};

}  // namespace vorn::detail
