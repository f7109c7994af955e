#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "vorn/core/geometry.h"
#include "vorn/core/mask_image.h"
#include "vorn/pipeline/base_layer.h"
#include "vorn/pipeline/brush/brush_operation.h"
#include "vorn/pipeline/brush/brush_queue.h"
#include "vorn/pipeline/brush/brush_setting.h"
#include "vorn/pipeline/image_transform_settings.h"

namespace vorn {

/// Turns stroke calls on the caller's thread into queued operations; the queue's worker runs
/// them. A controller made with bad arguments logs why and refuses every call afterwards.
class BaseBrushController {
 public:
  /// Logs "Can't create BaseBrushController with zero size!" for a zero canvas.
  explicit BaseBrushController(_Size<int> canvasSize);
  virtual ~BaseBrushController();
  BaseBrushController(const BaseBrushController&) = delete;
  BaseBrushController& operator=(const BaseBrushController&) = delete;

  /// False when a stroke is already in progress.
  virtual bool startStroke();
  virtual bool finishStroke();
  virtual bool cancelStroke();
  /// False without a stroke in progress, for a non-finite point or one more than 100 canvas
  /// sides away, or a setting sanitizeBrushSetting refuses.
  virtual bool stroke(const std::vector<_Point<float>>& points, BrushSetting setting);
  virtual bool stroke(_Point<float> point, BrushSetting setting);
  virtual std::shared_ptr<BaseBrushOperation> createStrokeOperation(_Point<float> point,
                                                                    BrushSetting setting);
  virtual std::shared_ptr<BaseBrushOperation> createFinishStrokeOperation();
  /// Mask region (mask pixels) the host wants sent to the layer again; nothing in the base.
  virtual void updatedInRect(_Rect<int> rect);
  /// The same for a region of the working (display-resolution) mask.
  virtual void wmUpdatedInRect(_Rect<int> rect);
  virtual void waitMask();
  virtual bool isProcessingMask();
  virtual void setMaskProcessingSuspended(bool suspended);
  virtual bool isMaskProcessingSuspended();

  _Size<int> getCanvasSize() const { return canvas_; }
  BrushMode getBrushMode() const { return mode_; }
  /// Logs "Can't change brush mode while stoke is beeing processed!" during a stroke.
  void setBrushMode(BrushMode mode);
  bool isStrokeInProgress() const { return strokeInProgress_; }
  std::shared_ptr<BrushQueue> getQueue() const { return queue_; }
  bool isValid() const { return queue_ != nullptr; }

 protected:
  /// For subclasses that bring their own queue (null when their arguments were bad).
  BaseBrushController(_Size<int> canvasSize, std::shared_ptr<BrushQueue> queue);
  /// The operations that open a stroke, queued in order.
  virtual std::vector<std::shared_ptr<BaseBrushOperation>> createStartStrokeOperations();
  virtual std::shared_ptr<BaseBrushOperation> createCancelStrokeOperation();
  /// Logs and returns false when the controller is not valid or a stroke is in progress.
  bool canChangeMask(const char* what) const;
  void push(std::shared_ptr<BaseBrushOperation> operation);

 private:
  _Size<int> canvas_;
  BrushMode mode_ = kBrushModePaint;
  bool strokeInProgress_ = false;
  std::shared_ptr<BrushQueue> queue_;
};

/// Paints the mask of one layer. The controller keeps its own unfiltered copy of the mask (the
/// layer's, or a new empty one of the canvas size) and the worker writes the filtered result
/// into the layer through LayerMaskWriter, which refreshes the layer's mask caches over the
/// changed region. The layer is linked to the queue, so a render waits for the mask work.
class BrushController : public BaseBrushController {
 public:
  /// `synchronous` runs every operation on the caller's thread. Logs "Can't create
  /// BrushController with zero size!" or "Can't create BrushController with layer equals
  /// null!" and stays invalid on bad arguments.
  BrushController(std::shared_ptr<BaseLayer> layer, _Size<int> canvasSize, bool synchronous);
  ~BrushController() override;

  /// Sends `rect` (mask pixels) of the settled mask to the layer again.
  void updatedInRect(_Rect<int> rect) override;
  /// Sends the mask region under `rect` of the layer's preview (the working mask) again.
  void wmUpdatedInRect(_Rect<int> rect) override;

  /// Whether the mask is larger than the layer's preview, so a display-resolution mask is worth
  /// keeping beside it.
  bool shouldCreateWorkingMask() const;
  /// Whether the mask is larger than the layer's thumbnail.
  bool shouldCreateMaskThumbnail() const;
  bool setFill();
  bool invert();
  bool clear();
  /// Radii in units of the canvas's shorter side (positive), angle in radians, feather in
  /// [0, 1]; false with a log line for non-finite or non-positive values.
  bool appendRadialGradient(_Point<float> centre, float radiusX, float radiusY, float angle,
                            float feather, bool invert, bool add);
  /// Angle in radians, width of the ramp in units of the shorter side (0 a hard edge).
  bool appendGradient(float angle, _Point<float> centre, float width, bool invert, bool add);
  /// Sets and applies the feather and density; the painted mask is kept.
  bool setMaskSetting(MaskSetting setting);
  /// Recomputes the filtered mask whole and shows it in the layer.
  bool forceDensityFeatherApplying();
  /// Shows the painted mask in the layer without the filter (true again: with it).
  bool setDensityFeatherApplied(bool applied);
  /// The shown mask rendered through `settings` once the queue is settled; null on failure.
  std::shared_ptr<MaskImage> getMaskPreviewForTransformSettings(
      const ImageTransformSettings& settings);
  std::shared_ptr<BaseLayer> layer() const { return layer_; }

 protected:
  std::vector<std::shared_ptr<BaseBrushOperation>> createStartStrokeOperations() override;
  std::shared_ptr<BaseBrushOperation> createCancelStrokeOperation() override;

 private:
  static std::shared_ptr<BrushQueue> makeQueue(const std::shared_ptr<BaseLayer>& layer,
                                               _Size<int> canvasSize, bool synchronous);
  std::shared_ptr<BrushContext> context() const;

  std::shared_ptr<BaseLayer> layer_;
};

}  // namespace vorn
