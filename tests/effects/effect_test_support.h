#pragma once

#include <algorithm>
#include <cmath>
#include <memory>

#include "vorn/core/image_data.h"
#include "vorn/effects/effect.h"

namespace vorn::test {

using ImageRGBf = _ImageData<PixelRGB<float>>;

/// A small picture with smooth ramps, texture and one sharp edge, values in [0, 1].
inline std::shared_ptr<ImageRGBf> makeTestImage(int width = 96, int height = 64) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(width, height));
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const float u = static_cast<float>(x) / static_cast<float>(width - 1);
      const float v = static_cast<float>(y) / static_cast<float>(height - 1);
      const float texture =
          0.08f * std::sin(0.9f * static_cast<float>(x)) * std::cos(0.7f * static_cast<float>(y));
      const float edge = x > width / 2 ? 0.25f : 0.0f;
      image->at(x, y) = PixelRGB<float>(std::clamp(0.7f * u + 0.05f + texture, 0.0f, 1.0f),
                                        std::clamp(0.6f * v + edge + texture, 0.0f, 1.0f),
                                        std::clamp(0.3f + 0.4f * u * v - texture, 0.0f, 1.0f));
    }
  }
  return image;
}

/// Renders the whole source through processImage into a new buffer; null on failure.
inline std::shared_ptr<ImageRGBf> render(Effect& effect, std::shared_ptr<const ImageRGBf> source,
                                         std::shared_ptr<const ImageRGBf> reference = {}) {
  auto destination = std::make_shared<ImageRGBf>(source->size());
  EffectCallContext call(source, destination, std::move(reference), source->rect(), nullptr,
                         nullptr);
  return effect.processImage(call) ? destination : nullptr;
}

/// Largest channel difference inside rect of a and the same-sized rect of b at (bx, by).
inline float maxDifference(const ImageRGBf& a, const ImageRGBf& b, _Rect<int> rect = {},
                           int bx = -1, int by = -1) {
  if (rect.isZero()) rect = a.rect();
  if (bx < 0) bx = rect.x;
  if (by < 0) by = rect.y;
  float worst = 0.0f;
  for (int y = 0; y < rect.height; ++y) {
    for (int x = 0; x < rect.width; ++x) {
      const PixelRGB<float>& p = a.at(rect.x + x, rect.y + y);
      const PixelRGB<float>& q = b.at(bx + x, by + y);
      for (const float d : {p.r - q.r, p.g - q.g, p.b - q.b}) {
        worst = std::max(worst, std::isnan(d) ? INFINITY : std::fabs(d));
      }
    }
  }
  return worst;
}

/// Every parameter set to the value `at` of its range (0 = min, 1 = max).
inline void setAllParameters(Effect& effect, float at) {
  for (Parameter& parameter : effect.parameters()) {
    parameter.setValue(parameter.minValue() + at * (parameter.maxValue() - parameter.minValue()));
  }
}

}  // namespace vorn::test
