#include "vorn/pipeline/base_layer.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <string>

#include "core/log_failure.h"

namespace vorn {
namespace {

// BlendModeType: values 0..13, see blend.h
constexpr std::int32_t kLastBlendMode = 13;

/// v clamped to [0, 1]; NaN gives `old`, with a log line naming `what`.
float unitValue(float v, float old, const char* what, const char* function) {
  if (std::isnan(v)) {
    LogError("%s %s is NaN; the value is kept", function, what);
    return old;
  }
  return std::clamp(v, 0.0f, 1.0f);
}

}  // namespace

BaseLayer::~BaseLayer() = default;

void BaseLayer::setTransform(const ImageTransformSettings& settings) {
  if (settings == transform_) return;
  transform_ = settings;
  setNeedProcessing(true);
}

bool BaseLayer::isNeedBlend() const {
  return opacity_ != 1.0f || blendMode_ != kBlendNormal || isNeedReblend() ||
         (hasMask() && useMask_);
}

bool BaseLayer::isNeedProcessing() {
  return needProcessing_.get();
}

void BaseLayer::clearCache() {
  resetMaskCache();
}

void BaseLayer::setBlendMode(BlendModeType mode) {
  if (mode < kBlendNormal || mode > kLastBlendMode) {
    VORN_LOG_FAILURE(("Unknown blend mode " + std::to_string(mode)).c_str());
    return;
  }
  if (mode == blendMode_) return;
  blendMode_ = mode;
  setNeedReblend(true);
}

void BaseLayer::setOpacity(float opacity) {
  const float value = unitValue(opacity, opacity_, "opacity", __PRETTY_FUNCTION__);
  if (value == opacity_) return;
  opacity_ = value;
  setNeedReblend(true);
}

void BaseLayer::setEffectAmount(float amount) {
  const float value = unitValue(amount, effectAmount_, "effect amount", __PRETTY_FUNCTION__);
  if (value == effectAmount_) return;
  effectAmount_ = value;
  amountChanged_.set(true);
}

void BaseLayer::setNeedReblend(bool need) {
  if (need)
    needReblend_.set(true);
  else
    mask_.clearUpdateRects(needReblend_);
}

void BaseLayer::setNeedProcessAmount(bool need) {
  needProcessAmount_.set(need);
  if (!need) amountChanged_.set(false);
}

void BaseLayer::setMask(std::shared_ptr<MaskImage> mask) {
  mask_.set(std::move(mask));
  setNeedReblend(true);
}

void BaseLayer::setMask(std::shared_ptr<const MaskImage> mask) {
  try {
    setMask(mask ? std::make_shared<MaskImage>(*mask) : std::shared_ptr<MaskImage>());
  } catch (const std::bad_alloc&) {
    VORN_LOG_FAILURE("Not enough memory to copy the mask; the old mask is kept");
  }
}

bool BaseLayer::createMaskWithSize(_Size<int> size, float initialValue) {
  if (size.width < 1 || size.height < 1) {
    VORN_LOG_FAILURE("The mask size must be positive");
    return false;
  }
  const float fill = std::isnan(initialValue) ? 0.0f : std::clamp(initialValue, 0.0f, 1.0f);
  try {
    setMask(std::make_shared<MaskImage>(size, fill));
    return true;
  } catch (const std::bad_alloc&) {
    VORN_LOG_FAILURE("Not enough memory for the mask");
    return false;
  }
}

void BaseLayer::removeMask() {
  if (!hasMask()) return;
  mask_.set(nullptr);
  setNeedReblend(true);
}

void BaseLayer::setUseMask(bool use) {
  if (use == useMask_) return;
  useMask_ = use;
  if (hasMask()) setNeedReblend(true);
}

void BaseLayer::setTag(const std::string& tag) {
  if (tag.empty()) {
    VORN_LOG_FAILURE("Empty tag");
    return;
  }
  if (!isTagPresent(tag)) tags_.push_back(tag);
}

bool BaseLayer::isTagPresent(const std::string& tag) const {
  return std::find(tags_.begin(), tags_.end(), tag) != tags_.end();
}

bool BaseLayer::updateMask(std::shared_ptr<const MaskImage> content, _Rect<int> rect) {
  if (!content) {
    VORN_LOG_FAILURE("No mask content");
    return false;
  }
  return mask_.update(*content, rect, needReblend_);
}

bool LayerMaskWriter::write(BaseLayer* layer, std::shared_ptr<const MaskImage> content,
                            _Rect<int> rect) {
  if (!layer) {
    VORN_LOG_FAILURE("No layer");
    return false;
  }
  return layer->updateMask(std::move(content), rect);
}

}  // namespace vorn
