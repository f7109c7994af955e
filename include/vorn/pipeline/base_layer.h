#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vorn/core/geometry.h"
#include "vorn/core/mask_image.h"
#include "vorn/pipeline/blend_mode.h"
#include "vorn/pipeline/image_transform_settings.h"
#include "vorn/pipeline/layer_mask.h"
#include "vorn/pipeline/shared_flag.h"

namespace vorn {

/// Mask work running elsewhere (a brush queue) that a render must wait for.
class MaskWorkGate {
 public:
  virtual ~MaskWorkGate() = default;
  /// Waits for the pending work and holds further work back until the result is released.
  virtual std::shared_ptr<void> settle() const = 0;
};

/// A layer's link to the mask work in flight on it; a copy of the layer starts unlinked.
class MaskWorkLink {
 public:
  MaskWorkLink() = default;
  MaskWorkLink(const MaskWorkLink&) {}
  MaskWorkLink& operator=(const MaskWorkLink&) { return *this; }

  void set(std::weak_ptr<const MaskWorkGate> gate) {
    std::lock_guard lock(mutex_);
    gate_ = std::move(gate);
  }
  /// Null when nothing is linked or the work is gone.
  std::shared_ptr<void> settle() const {
    std::shared_ptr<const MaskWorkGate> gate;
    {
      std::lock_guard lock(mutex_);
      gate = gate_.lock();
    }
    return gate ? gate->settle() : nullptr;
  }

 private:
  mutable std::mutex mutex_;
  std::weak_ptr<const MaskWorkGate> gate_;
};

/// What a layer is; the values are stored in documents.
enum LayerType : std::int32_t { kImageLayer = 1, kAdjustmentLayer = 2 };

/// State every layer of a document has: visibility, stacking level, how it blends, its mask
/// and the flags the image processor reads to decide what to recompute. Owned through
/// std::shared_ptr; copy() gives an independent deep copy.
class BaseLayer {
 public:
  BaseLayer() = default;
  BaseLayer(const BaseLayer&) = default;

  /// Stores the placement; any change means the layer must be processed again.
  virtual void setTransform(const ImageTransformSettings& settings);
  /// Whether the layer must be blended over the one below rather than replace it.
  virtual bool isNeedBlend() const;
  virtual bool isNeedProcessing();
  virtual LayerType type() const = 0;
  /// An independent copy: mask and caches copied, effects cloned.
  virtual std::shared_ptr<BaseLayer> copy() const = 0;
  /// Drops every cached result.
  virtual void clearCache();
  virtual ~BaseLayer();

  bool isEnabled() const { return enabled_; }
  void setEnabled(bool enabled) { enabled_ = enabled; }
  std::size_t level() const { return level_; }
  void setLevel(std::size_t level) { level_ = level; }

  BlendModeType blendMode() const { return blendMode_; }
  /// Values outside 0..13 are refused with a log line; a change asks for a reblend.
  void setBlendMode(BlendModeType mode);
  float opacity() const { return opacity_; }
  /// Clamped to [0, 1]; NaN keeps the old value with a log line; a change asks for a reblend.
  void setOpacity(float opacity);
  float getEffectAmount() const { return effectAmount_; }
  /// Clamped to [0, 1]; NaN keeps the old value with a log line; a change sets the amount flag.
  void setEffectAmount(float amount);

  void setNeedProcessing(bool need) { needProcessing_.set(need); }
  /// Cleared by the processor once it has reblended; clearing it also clears the mask's
  /// reported update rectangles, which describe the change not yet blended.
  void setNeedReblend(bool need);
  bool isNeedReblend() const { return needReblend_.get(); }
  /// Setting false also clears the flag setEffectAmount raises.
  void setNeedProcessAmount(bool need);
  /// True when set explicitly or when setEffectAmount changed the amount since the last clear.
  bool isNeedProcessAmount() const { return needProcessAmount_.get() || amountChanged_.get(); }
  bool isLensPreviewEffectAmountChanged() const { return lensPreviewAmountChanged_.get(); }
  void setLensPreviewEffectAmountChanged(bool changed) { lensPreviewAmountChanged_.set(changed); }

  const ImageTransformSettings& transformSettings() const { return transform_; }

  /// The full mask in layer pixels; empty when there is none.
  std::shared_ptr<MaskImage> mask() const { return mask_.mask(); }
  /// Shares the mask (null removes it); asks for a reblend.
  void setMask(std::shared_ptr<MaskImage> mask);
  /// Copies the mask (null removes it); asks for a reblend.
  void setMask(std::shared_ptr<const MaskImage> mask);
  /// Removes the mask, so that a bare nullptr picks neither overload above.
  void setMask(std::nullptr_t) { removeMask(); }
  bool hasMask() const { return mask_.hasMask(); }
  /// A new mask of `size` filled with initialValue (clamped to [0, 1], NaN as 0); false and a
  /// log line for a non-positive size or when the memory cannot be had.
  bool createMaskWithSize(_Size<int> size, float initialValue);
  void removeMask();
  /// A change while a mask is present asks for a reblend.
  void setUseMask(bool use);
  bool isUseMask() const { return useMask_; }

  std::shared_ptr<const MaskImage> workingMask() const { return mask_.workingMask(); }
  std::shared_ptr<const MaskImage> maskThumbnail() { return mask_.thumbnail(); }
  std::shared_ptr<const MaskImage> maskPreview() { return mask_.preview(); }
  std::shared_ptr<const MaskImage> maskPreviewForTransform(ImageTransformSettings settings) {
    return mask_.previewForTransform(settings);
  }
  void resetMaskCache() { mask_.resetCache(); }
  /// The mask region changed and not yet blended, in mask pixels; all-zero when none.
  _Rect<int> getWorkingMaskUpdateRect() const { return mask_.workingUpdateRect(); }
  /// The same region in maskPreview() pixels.
  _Rect<int> getMaskPreviewUpdateRect() const { return mask_.previewUpdateRect(); }

  /// Links the mask work (a brush queue) that renders must wait for; held weakly.
  void setMaskWorkGate(std::weak_ptr<const MaskWorkGate> gate) { maskWork_.set(std::move(gate)); }
  /// Waits for the linked mask work and holds it back while the result lives; null when none.
  std::shared_ptr<void> settleMaskWork() const { return maskWork_.settle(); }

  /// Adds a tag once; an empty tag is refused with a log line.
  void setTag(const std::string& tag);
  std::vector<std::string> getTags() const { return tags_; }
  bool isTagPresent(const std::string& tag) const;
  void clearTags() { tags_.clear(); }

 protected:
  // Protected so that layers of two kinds cannot be assigned to each other through the base.
  BaseLayer& operator=(const BaseLayer&) = default;

 private:
  // The brush worker writes dabs through LayerMaskWriter, from its own thread.
  friend class LayerMaskWriter;
  /// Writes new mask content into rect, refreshes the caches there, records the region and
  /// asks for a reblend.
  bool updateMask(std::shared_ptr<const MaskImage> content, _Rect<int> rect);

  bool enabled_ = true;
  std::size_t level_ = 0;
  BlendModeType blendMode_ = kBlendNormal;
  float opacity_ = 1.0f;
  float effectAmount_ = 1.0f;
  bool useMask_ = true;
  SharedFlag needProcessing_{true};
  SharedFlag needReblend_;
  SharedFlag needProcessAmount_;
  SharedFlag amountChanged_;
  SharedFlag lensPreviewAmountChanged_;
  ImageTransformSettings transform_;
  LayerMask mask_;
  MaskWorkLink maskWork_;
  std::vector<std::string> tags_;
};

/// The one way in for brush strokes: writes a dab into a layer's mask.
class LayerMaskWriter {
 public:
  /// See BaseLayer::updateMask; false (and a log line) for a null layer or content.
  static bool write(BaseLayer* layer, std::shared_ptr<const MaskImage> content, _Rect<int> rect);
};

}  // namespace vorn
