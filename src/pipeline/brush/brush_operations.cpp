#include <memory>

#include "core/log_failure.h"
#include "vorn/pipeline/brush/brush_context.h"
#include "vorn/pipeline/brush/brush_operation.h"
#include "vorn/pipeline/brush/brush_utils.h"

namespace vorn {

BaseBrushOperation::~BaseBrushOperation() = default;

void StartStrokeOperation::execute(std::shared_ptr<BaseBrushContext> context) {
  if (context) context->startStroke();
}

void FinishStrokeOperation::execute(std::shared_ptr<BaseBrushContext> context) {
  if (context) context->finishStroke();
}

void CancelStrokeOperation::execute(std::shared_ptr<BaseBrushContext> context) {
  if (context) context->cancelStroke();
}

void StrokeOperation::execute(std::shared_ptr<BaseBrushContext> context) {
  if (!context) return;
  if (!context->mask()) {
    // A context without a mask only follows the stroke's positions.
    BrushUtils::generateStrokeBrushes(point_, setting_, context.get());
    return;
  }
  _Rect<int> changed;
  if (!BrushUtils::processStroke(point_, setting_, context.get(), changed) || changed.isZero())
    return;
  if (auto* layerContext = dynamic_cast<BrushContext*>(context.get()))
    layerContext->publish(changed);
}

void SetBrushModeOperation::execute(std::shared_ptr<BaseBrushContext> context) {
  if (context) context->setBrushMode(mode_);
}

void ChangeMaskWasClearStatusOperation::execute(std::shared_ptr<BaseBrushContext> context) {
  if (context) context->recordMaskWasClear();
}

void BrushOperation::execute(std::shared_ptr<BaseBrushContext> context) {
  auto* layerContext = dynamic_cast<BrushContext*>(context.get());
  if (!layerContext || !layerContext->mask()) {
    VORN_LOG_FAILURE("A mask operation needs a brush context with a mask");
    return;
  }
  executeOn(*layerContext);
}

void BrushPrepareStrokeOperation::executeOn(BrushContext& context) {
  context.prepareStroke();
}

void BrushBeginChangeMaskOperation::executeOn(BrushContext& context) {
  context.beginChangeMask();
}

void BrushCancelStrokeOperation::executeOn(BrushContext& context) {
  context.cancelStroke();
}

void ClearOperation::executeOn(BrushContext& context) {
  context.clear();
}

void FillOperation::executeOn(BrushContext& context) {
  context.setFill();
}

void BrushInvertOperation::executeOn(BrushContext& context) {
  context.invert();
}

void AppendGradientOperation::executeOn(BrushContext& context) {
  context.appendGradient(angle_, centre_, width_, invert_, add_);
}

void AppendRadialGradientOperation::executeOn(BrushContext& context) {
  context.appendRadialGradient(centre_, radiusX_, radiusY_, angle_, feather_, invert_, add_);
}

void SetMaskSettingOperation::executeOn(BrushContext& context) {
  context.setMaskSetting(setting_);
}

void FeatherAndDensityOperation::executeOn(BrushContext& context) {
  context.setMaskSetting(setting_);
  context.setFilterApplied(true);
}

void ApplyFeatherAndDensityOperation::executeOn(BrushContext& context) {
  context.setFilterApplied(true);
}

void UnapplyFeatherAndDensityOperation::executeOn(BrushContext& context) {
  context.setFilterApplied(false);
}

}  // namespace vorn
