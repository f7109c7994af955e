#include "vorn/effects/effect_chain.h"

#include <array>
#include <new>

#include "core/image_data_internal.h"
#include "effects/render.h"
#include "vorn/effects/point_effect.h"

namespace vorn {

namespace {

using detail::ImageRGBf;

/// The region each effect must render: the last renders the call's region, each one before it
/// what the next reads, clipped to the image.
std::vector<_Rect<int>> stepRegions(const std::vector<std::shared_ptr<Effect>>& active,
                                    _Rect<int> region, _Size<int> size) {
  std::vector<_Rect<int>> regions(active.size(), region);
  for (std::size_t k = active.size() - 1; k > 0; --k) {
    const auto needed = detail::clipToImage(active[k]->getInRectForOutRect(regions[k]), size);
    regions[k - 1] = needed.value_or(regions[k]);
  }
  return regions;
}

bool runsInPlace(const Effect& effect) {
  return dynamic_cast<const PointEffect*>(&effect) != nullptr;
}

/// Chooses where each step writes: in place when the effect allows it and the pixels are the
/// chain's own; the destination only for steps that render exactly the call's region, so no
/// pixel of it outside the region is touched; else one of two scratch buffers.
class StepTargets {
 public:
  StepTargets(EffectCallContext& call, _Rect<int> region) : call_(call), region_(region) {}

  std::shared_ptr<ImageRGBf> choose(const Effect& effect, const ImageRGBf& current,
                                    _Rect<int> stepRegion) {
    const bool ownsCurrent =
        &current != call_.source.get() || sameBuffer(current, *call_.destination);
    if (runsInPlace(effect) && ownsCurrent &&
        (stepRegion == region_ || !sameBuffer(current, *call_.destination))) {
      return std::const_pointer_cast<ImageRGBf>(find(current));
    }
    if (stepRegion == region_ && !sameBuffer(current, *call_.destination)) return call_.destination;
    for (auto& scratch : scratch_) {
      if (!scratch) {
        scratch = std::make_shared<ImageRGBf>(call_.source->size(), call_.source->colorProfile);
      }
      if (!sameBuffer(current, *scratch)) return scratch;
    }
    return nullptr;
  }

 private:
  static bool sameBuffer(const ImageRGBf& a, const ImageRGBf& b) { return a.data == b.data; }
  std::shared_ptr<const ImageRGBf> find(const ImageRGBf& current) const {
    if (sameBuffer(current, *call_.destination)) return call_.destination;
    for (const auto& scratch : scratch_) {
      if (scratch && sameBuffer(current, *scratch)) return scratch;
    }
    return call_.source;
  }

  EffectCallContext& call_;
  _Rect<int> region_;
  std::array<std::shared_ptr<ImageRGBf>, 2> scratch_;
};

EffectChainResult runSteps(const std::vector<std::shared_ptr<Effect>>& active,
                           EffectCallContext& call, _Rect<int> region) {
  const std::vector<_Rect<int>> regions = stepRegions(active, region, call.source->size());
  const detail::RenderControl control(call.cancel);
  StepTargets targets(call, region);
  std::shared_ptr<const ImageRGBf> current = call.source;
  for (std::size_t k = 0; k < active.size(); ++k) {
    control.checkpoint();
    std::shared_ptr<ImageRGBf> target = targets.choose(*active[k], *current, regions[k]);
    EffectCallContext step(current, target, call.reference, regions[k], call.image, call.cancel);
    if (!active[k]->processImageWrapper(step)) {
      return {EffectChainStatus::Failed, active[k]->id()};
    }
    current = std::move(target);
  }
  if (current->data != call.destination->data) {
    detail::copyRegion(*current, *call.destination, region);
  }
  return {};
}

}  // namespace

EffectChainResult runEffectChain(const std::vector<std::shared_ptr<Effect>>& effects,
                                 EffectCallContext& call) {
  const auto region = detail::renderRegion(call);
  if (!region || !detail::prepareDestination(call)) return {EffectChainStatus::Failed, {}};
  std::vector<std::shared_ptr<Effect>> active;
  for (const auto& effect : effects) {
    if (effect && effect->isNeedProcessing()) active.push_back(effect);
  }
  try {
    if (active.empty()) {
      detail::RenderControl(call.cancel).checkpoint();
      detail::copyRegion(*call.source, *call.destination, *region);
      return {};
    }
    return runSteps(active, call, *region);
  } catch (const ImageProcessingStatus::cancelException&) {
    return {EffectChainStatus::Cancelled, {}};
  } catch (const std::bad_alloc&) {
    return {EffectChainStatus::Failed, {}};
  }
}

}  // namespace vorn
