#include "mask_gradient.h"

#include <algorithm>
#include <cmath>

#include "core/parallel.h"

namespace vorn::detail {
namespace {

float smoothStep(float low, float high, float v) {
  if (!(high > low)) return v >= high ? 1.0f : 0.0f;
  const float t = std::clamp((v - low) / (high - low), 0.0f, 1.0f);
  return t * t * (3.0f - 2.0f * t);
}

/// Calls value(u, v) for every mask pixel centre, (u, v) its offset from `centre` in units of
/// the canvas's shorter side, and merges the result into the mask.
template <typename Value>
void applyGradient(MaskImage& mask, _Size<int> canvas, _Point<float> centre, GradientBlend blend,
                   const Value& value) {
  if (mask.empty() || canvas.width < 1 || canvas.height < 1) return;
  const float shortSide = static_cast<float>(std::min(canvas.width, canvas.height));
  const float stepX = static_cast<float>(canvas.width) / static_cast<float>(mask.width) / shortSide;
  const float stepY =
      static_cast<float>(canvas.height) / static_cast<float>(mask.height) / shortSide;
  const float originX = centre.x * static_cast<float>(canvas.width) / shortSide;
  const float originY = centre.y * static_cast<float>(canvas.height) / shortSide;
  parallelRows(mask.height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      float* row = mask.row(y);
      const float v = (static_cast<float>(y) + 0.5f) * stepY - originY;
      for (int x = 0; x < mask.width; ++x) {
        float g = value((static_cast<float>(x) + 0.5f) * stepX - originX, v);
        if (blend.invert) g = 1.0f - g;
        row[x] = blend.add ? std::max(row[x], g) : g;
      }
    }
  });
}

}  // namespace

void linearGradient(MaskImage& mask, _Size<int> canvas, float angle, _Point<float> centre,
                    float width, GradientBlend blend) {
  const float dx = std::cos(angle), dy = std::sin(angle);
  const float half = std::max(width, 0.0f) * 0.5f;
  applyGradient(mask, canvas, centre, blend,
                [&](float u, float v) { return smoothStep(-half, half, u * dx + v * dy); });
}

void radialGradient(MaskImage& mask, _Size<int> canvas, _Point<float> centre, float radiusX,
                    float radiusY, float angle, float feather, GradientBlend blend) {
  const float c = std::cos(angle), s = std::sin(angle);
  const float inner = 1.0f - std::clamp(feather, 0.0f, 1.0f);
  applyGradient(mask, canvas, centre, blend, [&](float u, float v) {
    const float along = (u * c + v * s) / radiusX;
    const float across = (v * c - u * s) / radiusY;
    return 1.0f - smoothStep(inner, 1.0f, std::sqrt(along * along + across * across));
  });
}

}  // namespace vorn::detail
