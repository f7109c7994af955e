#pragma once

#include <cmath>
#include <memory>
#include <string>

#include "pipeline/layer_test_support.h"
#include "vorn/effects/effect_chain.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/pipeline/blend.h"
#include "vorn/pipeline/image_processor.h"

namespace vorn::test {

inline std::shared_ptr<Effect> makeEffect(const std::string& id, float value) {
  std::shared_ptr<Effect> effect = EffectFactory::instance().makeEffectWithID(id);
  if (effect && !effect->parameters().empty()) effect->parameters()[0].setValue(value);
  return effect;
}

/// An image layer of `size` under an adjustment layer with exposure and contrast.
struct Document {
  explicit Document(_Size<int> size)
      : image(makePlainImage(size)),
        imageLayer(std::make_shared<ImageLayer>(image)),
        adjustment(std::make_shared<AdjustmentLayer>(0)) {
    adjustment->pushBackEffect(makeEffect("VORNExposureEffect", 40.0f));
    adjustment->pushBackEffect(makeEffect("VORNContrastEffect", 30.0f));
    processor.addLayer(imageLayer, 0);
    processor.addLayer(adjustment, 1);
  }
  /// A whole-canvas render at `size` ((0, 0): full size).
  std::shared_ptr<const ImageDataRGBf> render(_Size<int> size = {}, bool useCache = true) {
    ImageProcessorSettings settings;
    settings.processingSize = size;
    settings.useCache = useCache;
    processor.startProcessing(settings);
    return processor.getLastResult();
  }

  std::shared_ptr<Image> image;
  std::shared_ptr<ImageLayer> imageLayer;
  std::shared_ptr<AdjustmentLayer> adjustment;
  ImageProcessor processor;
};

/// The effects of the adjustment layer run directly on the frame, then one blend by hand with
/// the layer's mask, opacity and mode.
inline std::shared_ptr<ImageDataRGBf> byHand(Document& doc) {
  const auto frame = doc.imageLayer->getWorkingImage();
  std::shared_ptr<ImageDataRGBf> effected;
  EffectCallContext call(frame, effected, {}, {}, {}, nullptr);
  if (runEffectChain(doc.adjustment->effects(), call).status != EffectChainStatus::Done)
    return nullptr;
  std::shared_ptr<ImageDataRGBf> out;
  std::shared_ptr<const _ImageData<float>> mask;
  if (doc.adjustment->hasMask() && doc.adjustment->isUseMask()) mask = doc.adjustment->mask();
  blendImages(call.destination, frame, out, mask, doc.adjustment->opacity(),
              doc.adjustment->blendMode(), {});
  return out;
}

/// Same size and every channel equal to the last bit.
inline bool sameRGB(const ImageDataRGBf& a, const ImageDataRGBf& b) {
  if (a.size() != b.size()) return false;
  for (int y = 0; y < a.height; ++y)
    for (int x = 0; x < a.width; ++x)
      if (!(a.at(x, y) == b.at(x, y))) return false;
  return true;
}

/// The largest channel difference; infinity for different sizes.
inline float maxDifference(const ImageDataRGBf& a, const ImageDataRGBf& b) {
  if (a.size() != b.size()) return INFINITY;
  float worst = 0.0f;
  for (int y = 0; y < a.height; ++y)
    for (int x = 0; x < a.width; ++x) {
      const PixelRGB<float> p = a.at(x, y), q = b.at(x, y);
      worst = std::max({worst, std::fabs(p.r - q.r), std::fabs(p.g - q.g), std::fabs(p.b - q.b)});
    }
  return worst;
}

}  // namespace vorn::test
