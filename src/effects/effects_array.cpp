#include "vorn/effects/effects_array.h"

#include "vorn/core/processing_status.h"
#include "vorn/effects/effect_chain.h"
#include "vorn/effects/effect_factory.h"

namespace vorn {

EffectsArrayBase::EffectsArrayBase(const std::string& id, const std::vector<std::string>& innerIds,
                                   std::vector<Parameter> ownParameters, std::vector<Route> routes)
    : ownParameters_(std::move(ownParameters)), routes_(std::move(routes)) {
  const EffectFactory& factory = EffectFactory::instance();
  for (const std::string& innerId : innerIds) {
    if (auto effect = factory.makeEffectWithID(innerId)) inner_.push_back(std::move(effect));
  }
  setParametersDefault();
  setId(id);
}

std::vector<Parameter> EffectsArrayBase::declaredParameters() const {
  if (!ownParameters_.empty()) return ownParameters_;
  std::vector<Parameter> all;
  for (const auto& effect : inner_) {
    const std::vector<Parameter> own = effect->declaredParameters();
    all.insert(all.end(), own.begin(), own.end());
  }
  return all;
}

std::vector<std::string> EffectsArrayBase::innerEffectIds() const {
  std::vector<std::string> ids;
  for (const auto& effect : inner_) ids.push_back(effect->id());
  return ids;
}

// Fresh inner effects per call keep a render free of shared mutable state.
std::vector<std::shared_ptr<Effect>> EffectsArrayBase::configuredInnerEffects() const {
  const EffectFactory& factory = EffectFactory::instance();
  std::vector<std::shared_ptr<Effect>> configured;
  std::size_t offset = 0;
  for (std::size_t i = 0; i < inner_.size(); ++i) {
    std::shared_ptr<Effect> effect = factory.makeEffectWithID(inner_[i]->id(), parametersContext_);
    effect->setContext(context_);
    effect->setAdditionalSettings(additionalSettings_);
    const std::size_t count = effect->parameters().size();
    if (routes_.empty()) {
      if (offset + count <= parameters_.size()) {
        const auto first = parameters_.begin() + static_cast<std::ptrdiff_t>(offset);
        effect->setParameters(
            std::vector<Parameter>(first, first + static_cast<std::ptrdiff_t>(count)));
      }
    } else {
      for (const Route& route : routes_) {
        if (route.inner != i || route.parameter >= parameters_.size() ||
            route.innerParameter >= count) {
          continue;
        }
        effect->parameters()[route.innerParameter].setValue(parameters_[route.parameter].value() *
                                                            route.scale);
      }
    }
    offset += count;
    configured.push_back(std::move(effect));
  }
  return configured;
}

bool EffectsArrayBase::processImage(EffectCallContext& call) {
  const EffectChainResult result = runEffectChain(configuredInnerEffects(), call);
  // A cancelled group unwinds its owner's render too.
  if (result.status == EffectChainStatus::Cancelled) throw ImageProcessingStatus::cancelException();
  return result.status == EffectChainStatus::Done;
}

void EffectsArrayBase::clearCache() {
  for (const auto& effect : inner_) effect->clearCache();
}

_Rect<int> EffectsArrayBase::getInRectForOutRect(_Rect<int> outRect) {
  for (auto it = inner_.rbegin(); it != inner_.rend(); ++it)
    outRect = (*it)->getInRectForOutRect(outRect);
  return outRect;
}

_Rect<int> EffectsArrayBase::getOutRectForInRect(_Rect<int> inRect) {
  for (const auto& effect : inner_) inRect = effect->getOutRectForInRect(inRect);
  return inRect;
}

void EffectsArrayBase::setContext(std::shared_ptr<EffectContext> context) {
  Effect::setContext(context);
  for (const auto& effect : inner_) effect->setContext(context);
}

bool EffectsArrayBase::needFaces() {
  for (const auto& effect : inner_) {
    if (effect->needFaces()) return true;
  }
  return false;
}

}  // namespace vorn
