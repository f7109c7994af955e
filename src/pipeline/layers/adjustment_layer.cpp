#include "vorn/pipeline/adjustment_layer.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "core/log_failure.h"
#include "effects/face/face_detection.h"
#include "vorn/effects/face_effects.h"
#include "vorn/effects/lens_effects.h"
#include "vorn/pipeline/image_layer.h"

namespace vorn {
namespace {

std::string pastTheEnd(std::size_t index, std::size_t count) {
  return "Index " + std::to_string(index) + " is past the end of " + std::to_string(count) +
         " effects";
}

}  // namespace

AdjustmentLayer::AdjustmentLayer(std::size_t level) {
  setLevel(level);
}

AdjustmentLayer::AdjustmentLayer(const AdjustmentLayer& other)
    : BaseLayer(other), baseImageLayer_(other.baseImageLayer_), context_(other.context_) {
  effects_.reserve(other.effects_.size());
  for (const std::shared_ptr<Effect>& effect : other.effects_) {
    std::shared_ptr<Effect> copy = effect->clone();
    if (!copy) {
      VORN_LOG_FAILURE(
          ("Can't clone effect " + effect->id() + "; the copy goes without it").c_str());
      continue;
    }
    copy->setNeedRecompute(effect->isNeedRecompute());
    adopt(*copy);
    effects_.push_back(std::move(copy));
  }
}

AdjustmentLayer::~AdjustmentLayer() = default;

void AdjustmentLayer::adopt(Effect& effect) const {
  if (context_) effect.setContext(context_);
  auto* face = dynamic_cast<detail::FaceRetouchEffect*>(&effect);
  if (!face) return;
  // Faces are found once on the photo under the layer, so that every region and preview size of
  // the document retouches the same faces; without that photo each render finds its own.
  const std::shared_ptr<ImageLayer> base = baseImageLayer_.lock();
  const ImageLayer::Frame working = context_ && base ? base->getWorkingImage() : nullptr;
  if (!working || working->empty() || context_->imageSize.width <= 0 ||
      context_->imageSize.height <= 0) {
    face->forgetKnownFaces();
    return;
  }
  const double sx = static_cast<double>(context_->imageSize.width) / working->width;
  const double sy = static_cast<double>(context_->imageSize.height) / working->height;
  const auto scaled = [sx, sy](const _Rect<float>& box) {
    return _Rect<int>(static_cast<int>(std::lround(box.x * sx)),
                      static_cast<int>(std::lround(box.y * sy)),
                      static_cast<int>(std::lround(box.width * sx)),
                      static_cast<int>(std::lround(box.height * sy)));
  };
  std::vector<detail::FaceRetouchEffect::KnownFace> faces;
  for (const detail::DetectedFace& found : detail::facesOfFrame(working)) {
    detail::FaceRetouchEffect::KnownFace& known = faces.emplace_back();
    known.box = scaled(found.box);
    for (const _Rect<float>& eye : found.eyes) known.eyes.push_back(scaled(eye));
  }
  face->setKnownFaces(std::move(faces));
}

void AdjustmentLayer::setBaseImageLayer(std::shared_ptr<ImageLayer> layer) {
  baseImageLayer_ = layer;
  // Face effects take their faces from this photo.
  for (const std::shared_ptr<Effect>& effect : effects_) adopt(*effect);
}

void AdjustmentLayer::setTransform(const ImageTransformSettings& settings) {
  BaseLayer::setTransform(settings);
  if (!settings.hasRender()) return;
  auto context = std::make_shared<EffectContext>();
  context->scale = static_cast<float>(settings.outputSize.width) / settings.roi.width;
  const auto scaled = [&](int length) {
    return static_cast<int>(std::lround(static_cast<double>(length) * context->scale));
  };
  context->imageSize =
      _Size<int>(scaled(settings.canvasSize.width), scaled(settings.canvasSize.height));
  context->origin = _Point<int>(static_cast<int>(std::lround(settings.roi.x * context->scale)),
                                static_cast<int>(std::lround(settings.roi.y * context->scale)));
  context_ = std::move(context);
  for (const std::shared_ptr<Effect>& effect : effects_) adopt(*effect);
}

bool AdjustmentLayer::isNeedProcessing() {
  return BaseLayer::isNeedProcessing() ||
         std::any_of(effects_.begin(), effects_.end(),
                     [](const std::shared_ptr<Effect>& e) { return e->isNeedRecompute(); });
}

std::shared_ptr<BaseLayer> AdjustmentLayer::copy() const {
  return std::make_shared<AdjustmentLayer>(*this);
}

void AdjustmentLayer::clearCache() {
  BaseLayer::clearCache();
  for (const std::shared_ptr<Effect>& effect : effects_) effect->clearCache();
}

bool AdjustmentLayer::pushBackEffect(std::shared_ptr<Effect> effect) {
  return insertEffectAtIndex(std::move(effect), effects_.size());
}

bool AdjustmentLayer::insertEffectAtIndex(std::shared_ptr<Effect> effect, std::size_t index) {
  if (!effect) {
    VORN_LOG_FAILURE("Null effect");
    return false;
  }
  if (index > effects_.size()) {
    VORN_LOG_FAILURE(pastTheEnd(index, effects_.size()).c_str());
    return false;
  }
  adopt(*effect);
  effects_.insert(effects_.begin() + static_cast<std::ptrdiff_t>(index), std::move(effect));
  setNeedProcessing(true);
  return true;
}

bool AdjustmentLayer::removeEffectAtIndex(std::size_t index) {
  if (index >= effects_.size()) {
    VORN_LOG_FAILURE(pastTheEnd(index, effects_.size()).c_str());
    return false;
  }
  effects_.erase(effects_.begin() + static_cast<std::ptrdiff_t>(index));
  setNeedProcessing(true);
  return true;
}

bool AdjustmentLayer::removeEffect(std::shared_ptr<Effect> effect) {
  const int index = effectIndex(effect);
  if (index < 0) {
    VORN_LOG_FAILURE("The effect is not in the chain");
    return false;
  }
  return removeEffectAtIndex(static_cast<std::size_t>(index));
}

std::shared_ptr<Effect> AdjustmentLayer::effectAtIndex(std::size_t index) const {
  if (index >= effects_.size()) {
    VORN_LOG_FAILURE(pastTheEnd(index, effects_.size()).c_str());
    return {};
  }
  return effects_[index];
}

int AdjustmentLayer::effectIndex(std::shared_ptr<const Effect> effect) const {
  if (!effect) return -1;
  const auto found = std::find(effects_.begin(), effects_.end(), effect);
  return found == effects_.end() ? -1 : static_cast<int>(found - effects_.begin());
}

std::vector<Parameter> AdjustmentLayer::getEffectParameters(std::size_t index) const {
  const std::shared_ptr<Effect> effect = effectAtIndex(index);
  return effect ? effect->getCurrentParameters() : std::vector<Parameter>();
}

std::vector<std::vector<Parameter>> AdjustmentLayer::getEffectsParameters() const {
  std::vector<std::vector<Parameter>> all;
  all.reserve(effects_.size());
  for (const std::shared_ptr<Effect>& effect : effects_)
    all.push_back(effect->getCurrentParameters());
  return all;
}

bool AdjustmentLayer::isLensCorrectionLayer() const {
  return !effects_.empty() && effects_.front()->id() == LensCorrectionEffect::kId;
}

}  // namespace vorn
