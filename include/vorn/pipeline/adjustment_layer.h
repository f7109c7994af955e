#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "vorn/effects/effect.h"
#include "vorn/effects/parameter.h"
#include "vorn/pipeline/base_layer.h"

namespace vorn {

class ImageLayer;

/// A layer that changes what lies below it through a chain of effects, applied first to last.
class AdjustmentLayer : public BaseLayer {
 public:
  /// `level` is the layer's nesting level, as level() reports it.
  explicit AdjustmentLayer(std::size_t level);
  /// Deep: every effect is cloned; the base image layer link is kept, not copied.
  AdjustmentLayer(const AdjustmentLayer& other);
  AdjustmentLayer& operator=(const AdjustmentLayer&) = delete;

  /// Also hands every effect the render scale and canvas size of the settings.
  void setTransform(const ImageTransformSettings& settings) override;
  /// Also true when any effect needs recomputing.
  bool isNeedProcessing() override;
  LayerType type() const override { return kAdjustmentLayer; }
  std::shared_ptr<BaseLayer> copy() const override;
  /// Also clears every effect's cache.
  void clearCache() override;
  ~AdjustmentLayer() override;

  /// False and a log line for a null effect.
  bool pushBackEffect(std::shared_ptr<Effect> effect);
  /// index == effectsCount() appends; false and a log line past that or for a null effect.
  bool insertEffectAtIndex(std::shared_ptr<Effect> effect, std::size_t index);
  bool removeEffectAtIndex(std::size_t index);
  bool removeEffect(std::shared_ptr<Effect> effect);
  /// Empty past the end.
  std::shared_ptr<Effect> effectAtIndex(std::size_t index) const;
  /// -1 when absent.
  int effectIndex(std::shared_ptr<const Effect> effect) const;
  bool hasEffects() const { return !effects_.empty(); }
  std::size_t effectsCount() const { return effects_.size(); }
  const std::vector<std::shared_ptr<Effect>>& effects() const { return effects_; }
  /// Empty past the end.
  std::vector<Parameter> getEffectParameters(std::size_t index) const;
  /// Every effect's parameters, in chain order.
  std::vector<std::vector<Parameter>> getEffectsParameters() const;

  /// The image layer this one adjusts; held weakly, so that an image layer may own its
  /// lens-correction layer without a cycle.
  std::shared_ptr<ImageLayer> getBaseImageLayer() const { return baseImageLayer_.lock(); }
  void setBaseImageLayer(std::shared_ptr<ImageLayer> layer);
  /// Whether the first effect is the lens correction.
  bool isLensCorrectionLayer() const;

 private:
  /// Gives the effect the context of the current transform.
  void adopt(Effect& effect) const;

  std::vector<std::shared_ptr<Effect>> effects_;
  std::weak_ptr<ImageLayer> baseImageLayer_;
  std::shared_ptr<EffectContext> context_;
};

}  // namespace vorn
