#include "vorn/effects/effect.h"

#include <algorithm>
#include <iostream>

#include "effects/kernels/spatial.h"
#include "vorn/core/log.h"
#include "vorn/effects/effect_factory.h"

namespace vorn {

Effect::Effect() : id_("VORNEffect") {}

Effect::Effect(const std::string& id) : id_(id) {}

Effect::~Effect() = default;

void Effect::clearCache() {}

std::shared_ptr<Effect> Effect::clone() const {
  std::shared_ptr<Effect> copy =
      EffectFactory::instance().makeEffectWithID(id_, parametersContext_);
  if (copy) copy->setParameters(getCurrentParameters());
  return copy;
}

void Effect::setParametersDefault() {
  parameters_ = declaredParameters();
  needRecompute_ = true;
}

void Effect::setParametersContext(const std::shared_ptr<const EffectParametersContext>& context) {
  parametersContext_ = context;
}

bool Effect::isNeedProcessing() const {
  for (const Parameter& parameter : parameters_) {
    if (parameter.isNonDefault()) return true;
  }
  return false;
}

void Effect::setAdditionalSettings(std::shared_ptr<const EffectAdditionalSettings> settings) {
  additionalSettings_ = std::move(settings);
}

_Rect<int> Effect::getInRectForOutRect(_Rect<int> outRect) {
  return outRect;
}

_Rect<int> Effect::getOutRectForInRect(_Rect<int> inRect) {
  return inRect;
}

void Effect::setContext(std::shared_ptr<EffectContext> context) {
  context_ = std::move(context);
}

bool Effect::needFaces() {
  return false;
}

bool Effect::checkParameters(const std::vector<Parameter>& parameters) const {
  if (parameters.size() != declaredParameters().size()) return false;
  for (std::size_t i = 0; i < parameters_.size(); ++i) {
    if (i >= parameters.size() || !parameters_[i].isSameType(parameters[i])) return false;
  }
  return true;
}

void Effect::setParameters(const std::vector<Parameter>& parameters) {
  if (parameters.empty()) {
    setParametersDefault();
  } else if (!checkParameters(parameters)) {
    std::cerr << __PRETTY_FUNCTION__
              << " Parameters is invalid! Effect will be processed with default parameters"
              << std::endl;
    setParametersDefault();
  } else {
    parameters_ = parameters;
  }
  needRecompute_ = true;
}

bool Effect::processImageWrapper(EffectCallContext& call) {
  if (processImage(call)) return true;
  const _Size<int> size = call.source ? call.source->size() : _Size<int>();
  LOG(logstream(LogMessageType::CriticalError, ModuleName::Memory)
      << id_ << " processing " << size.width << " x " << size.height << " image failed!");
  return false;
}

float Effect::mappedValue(std::size_t index, float atMin, float atMid, float atMax) const {
  if (index >= parameters_.size()) return atMid;
  const Parameter& parameter = parameters_[index];
  const float min = parameter.minValue();
  const float max = parameter.maxValue();
  const float mid = (min + max) * 0.5f;
  const float value = parameter.value();
  if (value < mid) return atMin + (atMid - atMin) * (value - min) / (mid - min);
  if (max > mid) return atMid + (atMax - atMid) * (value - mid) / (max - mid);
  return atMid;
}

float Effect::renderScale() const {
  return context_ && context_->scale > 0.0f ? context_->scale : 1.0f;
}

float Effect::spatialScale() const {
  if (context_ && context_->imageSize.width > 0 && context_->imageSize.height > 0) {
    return static_cast<float>(std::min(context_->imageSize.width, context_->imageSize.height)) /
           detail::kReferenceShortSide;
  }
  return renderScale();
}

}  // namespace vorn
