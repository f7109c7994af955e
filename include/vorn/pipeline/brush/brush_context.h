#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "vorn/core/crop_description.h"
#include "vorn/core/geometry.h"
#include "vorn/core/mask_image.h"
#include "vorn/pipeline/brush/brush_setting.h"
#include "vorn/pipeline/image_transform_settings.h"

namespace vorn {

class BaseLayer;

/// The state brush operations act on: the mask being painted, the canvas its points are
/// normalised to, the stroke in progress and what the last operation changed. Only the queue's
/// worker touches a context while operations run.
class BaseBrushContext {
 public:
  /// The last position before a stroke has placed its first dab, on both axes.
  static constexpr float kNoPosition = -1e8f;
  /// Side of the square blocks a stroke snapshots before first writing into them.
  static constexpr int kTileSide = 64;

  /// `mask` may be null for a context that only tracks strokes.
  BaseBrushContext(std::shared_ptr<MaskImage> mask, _Size<int> canvasSize);
  BaseBrushContext(const BaseBrushContext& other);
  BaseBrushContext& operator=(const BaseBrushContext&) = delete;
  virtual ~BaseBrushContext();

  /// A deep copy: masks and buffers are copied, nothing is shared.
  virtual std::shared_ptr<BaseBrushContext> clone() const;

  virtual void startStroke();
  virtual void finishStroke();
  /// Ends the stroke; the base context has no snapshot to restore.
  virtual void cancelStroke();
  /// Logs "Can't change brush mode while stoke is beeing processed!" during a stroke.
  void setBrushMode(BrushMode mode);
  BrushMode brushMode() const { return mode_; }

  std::shared_ptr<MaskImage> mask() const { return mask_; }
  int canvasWidth() const { return canvas_.width; }
  int canvasHeight() const { return canvas_.height; }
  _Size<int> canvasSize() const { return canvas_; }
  bool isStrokeInProgress() const { return strokeInProgress_; }
  _Point<float> lastPosition() const { return last_; }
  void setLastPosition(_Point<float> position) { last_ = position; }
  /// Whether the last position is still the sentinel (relative tolerance 1e-8).
  bool hasNoLastPosition() const;
  _Rect<int> changedRect() const { return changed_; }
  bool isChanged() const { return isChanged_; }
  void setChanged(bool changed, _Rect<int> rect = {});
  /// Whether the mask was empty when the current change began.
  bool wasMaskClear() const { return maskWasClear_; }
  void recordMaskWasClear();
  const CropDescription& crop() const { return crop_; }
  void setCrop(const CropDescription& crop) { crop_ = crop; }

  /// Allocates the two working buffers at the mask's size when they do not fit it; false and a
  /// log line when the memory cannot be had.
  bool prepareStroke();
  /// Starts a change: no block is snapshotted yet, so the next writes save what they replace.
  void beginChangeMask();
  /// The buffers a stroke works in: the mask as it was when the change began, and the coverage
  /// the stroke has laid down so far. Valid only inside blocks markTouched() returned true for.
  MaskImage* snapshotBuffer() const { return snapshot_.get(); }
  MaskImage* coverageBuffer() const { return coverage_.get(); }
  /// Snapshots and zero-covers every block of `rect` not yet touched by this change.
  void touchBlocks(const _Rect<int>& rect);
  /// Puts back every block this change touched; `restored` becomes their union.
  bool restoreTouchedBlocks(_Rect<int>& restored);

  /// Cached dab image: rebuilt only when the setting, mask size or crop changes.
  struct Stamp {
    BrushSetting setting;
    _Size<int> maskSize;
    CropDescription crop;
    /// The resized stamp with a one-pixel zero border on every side.
    std::shared_ptr<MaskImage> padded;
  };
  Stamp& stampCache() { return stamp_; }

 protected:
  std::shared_ptr<MaskImage> mask_;

 private:
  _Size<int> canvas_;
  BrushMode mode_ = kBrushModePaint;
  bool strokeInProgress_ = false;
  _Point<float> last_{kNoPosition, kNoPosition};
  _Rect<int> changed_;
  bool isChanged_ = false;
  bool maskWasClear_ = false;
  CropDescription crop_;
  std::shared_ptr<MaskImage> snapshot_;
  std::shared_ptr<MaskImage> coverage_;
  std::vector<std::uint8_t> touched_;
  int tilesX_ = 0;
  Stamp stamp_;
};

/// A context that edits a layer's mask: the painted mask is kept unfiltered, and every change
/// is passed through the feather/density filter (when applied) into the layer through
/// LayerMaskWriter, which refreshes the layer's mask caches over the changed region.
class BrushContext : public BaseBrushContext {
 public:
  /// The layer is held weakly: a context outliving its layer still paints, into itself only.
  BrushContext(std::shared_ptr<MaskImage> mask, _Size<int> canvasSize,
               std::weak_ptr<BaseLayer> layer);
  BrushContext(const BrushContext& other);

  /// The copy keeps no layer: two contexts writing one layer would fight over it.
  std::shared_ptr<BaseBrushContext> clone() const override;
  void cancelStroke() override;

  void clear();
  void setFill();
  void invert();
  /// Linear ramp across `width` about the line through `centre` at `angle` radians.
  void appendGradient(float angle, _Point<float> centre, float width, bool invert, bool add);
  /// Elliptical ramp: 1 inside, 0 outside, over the outer `feather` share of the radii.
  void appendRadialGradient(_Point<float> centre, float radiusX, float radiusY, float angle,
                            float feather, bool invert, bool add);
  void setMaskSetting(const MaskSetting& setting);
  MaskSetting maskSetting() const { return setting_; }
  /// Shows the filtered mask in the layer (true) or the painted one (false).
  void setFilterApplied(bool applied);
  bool isFilterApplied() const { return filterApplied_; }

  /// Sends `rect` of the (filtered) mask to the layer; the filter widens the region by its
  /// reach. False when there is no layer to write to.
  bool publish(_Rect<int> rect);
  /// The mask the layer shows: the filtered one when a filter is applied, else the painted one.
  std::shared_ptr<const MaskImage> shownMask() const;

  /// A context whose mask is this mask rendered through `settings` at its output size.
  std::shared_ptr<BrushContext> convertToPreviewContext(
      const ImageTransformSettings& settings) const;

 private:
  /// Recomputes the filtered mask over `rect` grown by the filter's reach; the region written.
  _Rect<int> refreshFiltered(const _Rect<int>& rect);
  void publishWhole();

  std::weak_ptr<BaseLayer> layer_;
  MaskSetting setting_;
  bool filterApplied_ = true;
  std::shared_ptr<MaskImage> filtered_;
};

}  // namespace vorn
