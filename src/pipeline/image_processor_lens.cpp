// The small render of the stack beneath a lens-correction layer that its preview works from.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "vorn/effects/lens_effects.h"
#include "vorn/io/image_metadata.h"
#include "vorn/pipeline/image_processor.h"

namespace vorn {
namespace {

/// At most 1000 pixels on either side, never enlarged.
_Size<int> lensPreviewSize(_Size<int> source) {
  const float w = static_cast<float>(source.width);
  const float h = static_cast<float>(source.height);
  const float s = std::min({1000.0f / h, 1000.0f / w, 1.0f});
  return _Size<int>(static_cast<int>(std::roundf(w * s)), static_cast<int>(std::roundf(h * s)));
}

bool samePixels(const ImageDataRGBf& a, const ImageDataRGBf& b) {
  return a.size() == b.size() &&
         std::memcmp(a.data, b.data, static_cast<std::size_t>(a.sizeInBytes())) == 0;
}

std::shared_ptr<LensCorrectionEffect> lensEffectOf(const AdjustmentLayer& layer) {
  return layer.effects().empty()
             ? nullptr
             : std::dynamic_pointer_cast<LensCorrectionEffect>(layer.effects().front());
}

/// A lens layer corrects for the camera and lens its base photo names, unless a shot was set
/// (a document's own, or a host's choice).
void nameShotFromPhoto(AdjustmentLayer& lens, ImageLayer& base) {
  const auto effect = lensEffectOf(lens);
  const auto image = base.getSourceImage();
  const auto metadata = image ? image->metadata() : nullptr;
  if (!effect || !metadata || effect->shot()) return;
  effect->setShot(LensShot::fromMetadata(*metadata));
  lens.setNeedProcessing(true);
}

/// The small render corrected by the layer's own lens effect, at the small render's size; the
/// render itself when the effect leaves it unchanged or fails.
std::shared_ptr<const ImageDataRGBf> correctedPreview(
    const LensCorrectionEffect& effect, const std::shared_ptr<const ImageDataRGBf>& small) {
  const std::shared_ptr<Effect> copy = effect.clone();
  if (!copy || !copy->isNeedProcessing()) return small;
  auto context = std::make_shared<EffectContext>();
  context->imageSize = small->size();
  context->preview = true;
  copy->setContext(context);
  auto corrected = std::make_shared<ImageDataRGBf>(small->size());
  EffectCallContext call(small, corrected, nullptr, small->rect(), nullptr, nullptr);
  return copy->processImage(call) ? corrected : small;
}

}  // namespace

bool ImageProcessor::prepareLensCorrectionPreviews(const ImageProcessorSettings& settings) {
  (void)settings;
  bool all = true;
  for (auto it = pool_.begin(); it != pool_.end(); ++it) {
    const auto lens = std::dynamic_pointer_cast<AdjustmentLayer>(*it);
    if (!lens || !lens->isLensCorrectionLayer()) continue;
    const std::shared_ptr<ImageLayer> base = lens->getBaseImageLayer();
    const auto basePosition = std::find(pool_.begin(), it, base);
    if (!base || basePosition == it) continue;
    nameShotFromPhoto(*lens, *base);
    // The lens corrects the canvas as shot, so its source is neither cropped nor turned.
    ImageProcessor side;
    auto baseCopy = std::static_pointer_cast<ImageLayer>(base->copy());
    baseCopy->setUseMask(false);
    baseCopy->setBlendMode(kBlendNormal);
    side.addLayer(baseCopy, 0);
    // The layers of the base's group between it and the lens layer.
    for (auto between = std::next(basePosition); between != it; ++between) {
      if ((*between)->level() < lens->level()) continue;
      const bool needed = (*between)->isNeedProcessing();
      std::shared_ptr<BaseLayer> copy = (*between)->copy();
      if (auto adjustment = std::dynamic_pointer_cast<AdjustmentLayer>(copy); adjustment && needed)
        for (const std::shared_ptr<Effect>& effect : adjustment->effects())
          effect->setNeedRecompute(true);
      side.addLayer(copy, side.getLayersCount());
    }
    const _Size<int> source = base->getSourceImage()->size();
    ImageProcessorSettings sideSettings;
    sideSettings.processingROI = _Rect<float>(0.0f, 0.0f, static_cast<float>(source.width),
                                              static_cast<float>(source.height));
    sideSettings.processingSize = lensPreviewSize(source);
    sideSettings.useCache = false;
    side.startProcessing(sideSettings);
    if (!side.getLastResult()) {
      all = false;
      continue;
    }
    // The lens effect takes no preview input yet, so the processor keeps the source per layer;
    // the layer is marked only when the source changed, so the steps above it stay cached.
    std::shared_ptr<const ImageDataRGBf>& kept = lensPreviews_[lens.get()];
    if (!kept || !samePixels(*kept, *side.getLastResult())) lens->setNeedProcessing(true);
    kept = side.getLastResult();
    // The small render through the layer's lens effect, redone when either changed.
    if (const auto effect = lensEffectOf(*lens)) {
      CorrectedPreview& corrected = lensCorrected_[lens.get()];
      if (corrected.from != kept || corrected.key != effect->cacheKey()) {
        corrected = {effect->cacheKey(), kept, correctedPreview(*effect, kept)};
      }
    }
  }
  return all;
}

std::shared_ptr<const ImageDataRGBf> ImageProcessor::lensCorrectionPreviewSource(
    const std::shared_ptr<const BaseLayer>& layer) const {
  const auto found = lensPreviews_.find(layer.get());
  return found == lensPreviews_.end() ? nullptr : found->second;
}

std::shared_ptr<const ImageDataRGBf> ImageProcessor::lensCorrectionPreview(
    const std::shared_ptr<const BaseLayer>& layer) const {
  const auto found = lensCorrected_.find(layer.get());
  return found == lensCorrected_.end() ? nullptr : found->second.image;
}

}  // namespace vorn
