#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <memory>
#include <string>

#include "vorn/core/image_data.h"
#include "vorn/effects/effect.h"
#include "vorn/effects/effect_factory.h"

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

/// The same scene at any size: blocks, a ramp and waves whose sizes are fractions of the frame,
/// so that two sizes differ only in resolution.
inline std::shared_ptr<ImageRGBf> makeSceneImage(int width, int height) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(width, height));
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const float u = (static_cast<float>(x) + 0.5f) / static_cast<float>(width);
      const float v = (static_cast<float>(y) + 0.5f) / static_cast<float>(height);
      const bool block = (static_cast<int>(u * 6.0f) + static_cast<int>(v * 4.0f)) % 2 == 0;
      const float wave = 0.1f * std::sin(40.0f * u) * std::sin(27.0f * v);
      const float base = (block ? 0.55f : 0.2f) + 0.25f * u + wave;
      image->at(x, y) = PixelRGB<float>(std::clamp(base, 0.0f, 1.0f),
                                        std::clamp(0.8f * base + 0.1f * v, 0.0f, 1.0f),
                                        std::clamp(0.6f * base + 0.2f, 0.0f, 1.0f));
    }
  }
  return image;
}

/// The effect of the factory with the given leading values, spatial sizes at `scale` of the
/// reference frame.
inline std::shared_ptr<Effect> makeEffect(const std::string& id,
                                          std::initializer_list<float> values, float scale = 0.1f) {
  auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
  std::size_t i = 0;
  for (const float value : values) effect->parameters().at(i++).setValue(value);
  auto context = std::make_shared<EffectContext>();
  context->scale = scale;
  effect->setContext(context);
  return effect;
}

/// Renders the whole source through processImage into a new buffer; null on failure.
inline std::shared_ptr<ImageRGBf> render(Effect& effect, std::shared_ptr<const ImageRGBf> source,
                                         std::shared_ptr<const ImageRGBf> reference = {}) {
  auto destination = std::make_shared<ImageRGBf>(source->size());
  EffectCallContext call(source, destination, std::move(reference), source->rect(), nullptr,
                         nullptr);
  return effect.processImage(call) ? destination : nullptr;
}

/// render(), with a failed render reported and replaced by a NaN picture of the source's size,
/// so that a fault fails the test instead of crashing the run.
inline std::shared_ptr<ImageRGBf> renderOrFail(Effect& effect,
                                               std::shared_ptr<const ImageRGBf> source,
                                               std::shared_ptr<const ImageRGBf> reference = {}) {
  auto output = render(effect, source, std::move(reference));
  if (output) return output;
  ADD_FAILURE() << effect.id() << " failed to render";
  return std::make_shared<ImageRGBf>(source->size(), PixelRGB<float>(std::nanf("")));
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

/// Mean absolute channel difference of two same-sized images, inside rect (all-zero: all).
inline float meanDifference(const ImageRGBf& a, const ImageRGBf& b, _Rect<int> rect = {}) {
  if (rect.isZero()) rect = a.rect();
  double sum = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y) {
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      const PixelRGB<float>& p = a.at(x, y);
      const PixelRGB<float>& q = b.at(x, y);
      sum += std::fabs(p.r - q.r) + std::fabs(p.g - q.g) + std::fabs(p.b - q.b);
    }
  }
  return static_cast<float>(sum / (3.0 * static_cast<double>(rect.width) * rect.height));
}

/// Every parameter set to the value `at` of its range (0 = min, 1 = max).
inline void setAllParameters(Effect& effect, float at) {
  for (Parameter& parameter : effect.parameters()) {
    parameter.setValue(parameter.minValue() + at * (parameter.maxValue() - parameter.minValue()));
  }
}

}  // namespace vorn::test
