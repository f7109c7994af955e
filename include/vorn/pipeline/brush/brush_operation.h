#pragma once

#include <memory>

#include "vorn/core/geometry.h"
#include "vorn/pipeline/brush/brush_setting.h"

namespace vorn {

class BaseBrushContext;
class BrushContext;

/// One queued brush action, executed on the queue's worker against its context.
class BaseBrushOperation {
 public:
  virtual ~BaseBrushOperation();
  virtual void execute(std::shared_ptr<BaseBrushContext> context) = 0;
  /// When newest in the queue, makes the droppable operations before it pointless.
  virtual bool overridesPrevious() const { return false; }
  /// May be discarded unexecuted.
  virtual bool isDroppable() const { return false; }
};

class StartStrokeOperation : public BaseBrushOperation {
 public:
  void execute(std::shared_ptr<BaseBrushContext> context) override;
};

class FinishStrokeOperation : public BaseBrushOperation {
 public:
  void execute(std::shared_ptr<BaseBrushContext> context) override;
};

/// Ends the stroke state only; BrushCancelStrokeOperation also restores the mask.
class CancelStrokeOperation : public BaseBrushOperation {
 public:
  void execute(std::shared_ptr<BaseBrushContext> context) override;
};

/// Places the dabs for one stroke point.
class StrokeOperation : public BaseBrushOperation {
 public:
  StrokeOperation(_Point<float> point, BrushSetting setting) : point_(point), setting_(setting) {}
  void execute(std::shared_ptr<BaseBrushContext> context) override;
  bool isDroppable() const override { return true; }

 private:
  _Point<float> point_;
  BrushSetting setting_;
};

class SetBrushModeOperation : public BaseBrushOperation {
 public:
  explicit SetBrushModeOperation(BrushMode mode) : mode_(mode) {}
  void execute(std::shared_ptr<BaseBrushContext> context) override;

 private:
  BrushMode mode_;
};

class ChangeMaskWasClearStatusOperation : public BaseBrushOperation {
 public:
  void execute(std::shared_ptr<BaseBrushContext> context) override;
};

/// Base of the operations that need a layer mask context; on any other context they log and
/// do nothing.
class BrushOperation : public BaseBrushOperation {
 public:
  void execute(std::shared_ptr<BaseBrushContext> context) final;

 protected:
  virtual void executeOn(BrushContext& context) = 0;
};

class BrushPrepareStrokeOperation : public BrushOperation {
 protected:
  void executeOn(BrushContext& context) override;
};

class BrushBeginChangeMaskOperation : public BrushOperation {
 protected:
  void executeOn(BrushContext& context) override;
};

class BrushCancelStrokeOperation : public BrushOperation {
 protected:
  void executeOn(BrushContext& context) override;
};

class ClearOperation : public BrushOperation {
 public:
  bool overridesPrevious() const override { return true; }
  bool isDroppable() const override { return true; }

 protected:
  void executeOn(BrushContext& context) override;
};

class FillOperation : public BrushOperation {
 public:
  bool overridesPrevious() const override { return true; }
  bool isDroppable() const override { return true; }

 protected:
  void executeOn(BrushContext& context) override;
};

class BrushInvertOperation : public BrushOperation {
 protected:
  void executeOn(BrushContext& context) override;
};

class AppendGradientOperation : public BrushOperation {
 public:
  AppendGradientOperation(float angle, _Point<float> centre, float width, bool invert, bool add)
      : angle_(angle), centre_(centre), width_(width), invert_(invert), add_(add) {}

 protected:
  void executeOn(BrushContext& context) override;

 private:
  float angle_;
  _Point<float> centre_;
  float width_;
  bool invert_, add_;
};

class AppendRadialGradientOperation : public BrushOperation {
 public:
  AppendRadialGradientOperation(_Point<float> centre, float radiusX, float radiusY, float angle,
                                float feather, bool invert, bool add)
      : centre_(centre),
        radiusX_(radiusX),
        radiusY_(radiusY),
        angle_(angle),
        feather_(feather),
        invert_(invert),
        add_(add) {}

 protected:
  void executeOn(BrushContext& context) override;

 private:
  _Point<float> centre_;
  float radiusX_, radiusY_, angle_, feather_;
  bool invert_, add_;
};

/// Stores the filter setting; the layer shows it from the next change or apply on.
class SetMaskSettingOperation : public BrushOperation {
 public:
  explicit SetMaskSettingOperation(MaskSetting setting) : setting_(setting) {}

 protected:
  void executeOn(BrushContext& context) override;

 private:
  MaskSetting setting_;
};

/// Stores the filter setting and applies it.
class FeatherAndDensityOperation : public BrushOperation {
 public:
  explicit FeatherAndDensityOperation(MaskSetting setting) : setting_(setting) {}

 protected:
  void executeOn(BrushContext& context) override;

 private:
  MaskSetting setting_;
};

/// The layer shows the filtered mask again, recomputed whole.
class ApplyFeatherAndDensityOperation : public BrushOperation {
 protected:
  void executeOn(BrushContext& context) override;
};

/// The layer shows the painted mask without the filter.
class UnapplyFeatherAndDensityOperation : public BrushOperation {
 protected:
  void executeOn(BrushContext& context) override;
};

}  // namespace vorn
