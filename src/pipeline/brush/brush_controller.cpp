#include "vorn/pipeline/brush/brush_controller.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <string>

#include "core/log_failure.h"
#include "vorn/pipeline/layer_mask.h"

namespace vorn {
namespace {

// Points further than this many canvas sides off the canvas are refused: no dab of a radius
// up to the canvas can reach it, and the dab count towards them would be unbounded.
constexpr float kFarOutside = 100.0f;

bool isUsablePoint(_Point<float> point) {
  return std::isfinite(point.x) && std::isfinite(point.y) && std::fabs(point.x) <= kFarOutside &&
         std::fabs(point.y) <= kFarOutside;
}

bool isPositiveSize(_Size<int> size) {
  return size.width > 0 && size.height > 0;
}

}  // namespace

BaseBrushController::BaseBrushController(_Size<int> canvasSize) : canvas_(canvasSize) {
  if (!isPositiveSize(canvasSize)) {
    VORN_LOG_FAILURE("Can't create BaseBrushController with zero size!");
    return;
  }
  queue_ =
      std::make_shared<BrushQueue>(std::make_shared<BaseBrushContext>(nullptr, canvasSize), false);
}

BaseBrushController::BaseBrushController(_Size<int> canvasSize, std::shared_ptr<BrushQueue> queue)
    : canvas_(canvasSize), queue_(std::move(queue)) {}

BaseBrushController::~BaseBrushController() = default;

void BaseBrushController::push(std::shared_ptr<BaseBrushOperation> operation) {
  if (queue_) queue_->pushOperation(std::move(operation));
}

bool BaseBrushController::canChangeMask(const char* what) const {
  if (!isValid()) {
    VORN_LOG_FAILURE((std::string(what) + ": the brush controller is not valid").c_str());
    return false;
  }
  if (strokeInProgress_) {
    VORN_LOG_FAILURE((std::string(what) + ": a stroke is in progress").c_str());
    return false;
  }
  return true;
}

std::vector<std::shared_ptr<BaseBrushOperation>>
BaseBrushController::createStartStrokeOperations() {
  return {std::make_shared<StartStrokeOperation>()};
}

std::shared_ptr<BaseBrushOperation> BaseBrushController::createCancelStrokeOperation() {
  return std::make_shared<CancelStrokeOperation>();
}

std::shared_ptr<BaseBrushOperation> BaseBrushController::createStrokeOperation(
    _Point<float> point, BrushSetting setting) {
  return std::make_shared<StrokeOperation>(point, setting);
}

std::shared_ptr<BaseBrushOperation> BaseBrushController::createFinishStrokeOperation() {
  return std::make_shared<FinishStrokeOperation>();
}

bool BaseBrushController::startStroke() {
  if (!canChangeMask("Can't start a stroke")) return false;
  for (auto& operation : createStartStrokeOperations()) push(std::move(operation));
  strokeInProgress_ = true;
  return true;
}

bool BaseBrushController::finishStroke() {
  if (!isValid() || !strokeInProgress_) {
    VORN_LOG_FAILURE("Can't finish a stroke that is not in progress");
    return false;
  }
  push(createFinishStrokeOperation());
  strokeInProgress_ = false;
  return true;
}

bool BaseBrushController::cancelStroke() {
  if (!isValid() || !strokeInProgress_) {
    VORN_LOG_FAILURE("Can't cancel a stroke that is not in progress");
    return false;
  }
  push(createCancelStrokeOperation());
  strokeInProgress_ = false;
  return true;
}

bool BaseBrushController::stroke(const std::vector<_Point<float>>& points, BrushSetting setting) {
  if (!isValid() || !strokeInProgress_) {
    VORN_LOG_FAILURE("Can't stroke! Stroke isn't beeing in progress!");
    return false;
  }
  if (!sanitizeBrushSetting(setting)) return false;
  if (!std::all_of(points.begin(), points.end(), isUsablePoint)) {
    VORN_LOG_FAILURE("A stroke point is not finite or lies far outside the canvas");
    return false;
  }
  for (const _Point<float>& point : points) push(createStrokeOperation(point, setting));
  return true;
}

bool BaseBrushController::stroke(_Point<float> point, BrushSetting setting) {
  return stroke(std::vector<_Point<float>>{point}, setting);
}

void BaseBrushController::updatedInRect(_Rect<int>) {}

void BaseBrushController::wmUpdatedInRect(_Rect<int>) {}

void BaseBrushController::waitMask() {
  if (queue_) queue_->wait();
}

bool BaseBrushController::isProcessingMask() {
  return queue_ && queue_->isRunning();
}

void BaseBrushController::setMaskProcessingSuspended(bool suspended) {
  if (queue_) queue_->setSuspended(suspended);
}

bool BaseBrushController::isMaskProcessingSuspended() {
  return queue_ && queue_->isSuspended();
}

void BaseBrushController::setBrushMode(BrushMode mode) {
  if (!canSetBrushMode(mode, strokeInProgress_)) return;
  mode_ = mode;
  push(std::make_shared<SetBrushModeOperation>(mode));
}

std::shared_ptr<BrushQueue> BrushController::makeQueue(const std::shared_ptr<BaseLayer>& layer,
                                                       _Size<int> canvasSize, bool synchronous) {
  if (!layer) {
    VORN_LOG_FAILURE("Can't create BrushController with layer equals null!");
    return nullptr;
  }
  if (!isPositiveSize(canvasSize)) {
    VORN_LOG_FAILURE("Can't create BrushController with zero size!");
    return nullptr;
  }
  if (!layer->hasMask() && !layer->createMaskWithSize(canvasSize, 0.0f)) return nullptr;
  const std::shared_ptr<MaskImage> shown = layer->mask();
  if (!shown || shown->empty()) {
    VORN_LOG_FAILURE("Can't create BrushController: the layer's mask is empty");
    return nullptr;
  }
  try {
    auto context =
        std::make_shared<BrushContext>(std::make_shared<MaskImage>(*shown), canvasSize, layer);
    context->setCrop(layer->transformSettings().crop);
    auto queue = std::make_shared<BrushQueue>(context, synchronous);
    layer->setMaskWorkGate(queue->gate());
    return queue;
  } catch (const std::bad_alloc&) {
    VORN_LOG_FAILURE("Not enough memory for the brush mask");
    return nullptr;
  }
}

BrushController::BrushController(std::shared_ptr<BaseLayer> layer, _Size<int> canvasSize,
                                 bool synchronous)
    : BaseBrushController(canvasSize, makeQueue(layer, canvasSize, synchronous)),
      layer_(isValid() ? std::move(layer) : nullptr) {}

BrushController::~BrushController() = default;

std::shared_ptr<BrushContext> BrushController::context() const {
  const std::shared_ptr<BrushQueue> queue = getQueue();
  return queue ? std::static_pointer_cast<BrushContext>(queue->getContext()) : nullptr;
}

std::vector<std::shared_ptr<BaseBrushOperation>> BrushController::createStartStrokeOperations() {
  return {std::make_shared<ChangeMaskWasClearStatusOperation>(),
          std::make_shared<StartStrokeOperation>(), std::make_shared<BrushPrepareStrokeOperation>(),
          std::make_shared<BrushBeginChangeMaskOperation>()};
}

std::shared_ptr<BaseBrushOperation> BrushController::createCancelStrokeOperation() {
  return std::make_shared<BrushCancelStrokeOperation>();
}

void BrushController::updatedInRect(_Rect<int> rect) {
  if (!isValid()) return;
  const std::shared_ptr<void> hold = getQueue()->settle();
  context()->publish(rect);
}

// The working mask is the layer's mask preview, refreshed rectangle by rectangle: a changed
// preview rectangle is sent on as the mask pixels under it.
void BrushController::wmUpdatedInRect(_Rect<int> rect) {
  if (!isValid() || rect.isZero()) return;
  const _Size<int> mask = context()->mask()->size();
  const _Size<int> preview = LayerMask::reducedSize(mask, LayerMask::kPreviewLongSide);
  if (preview.width < 1 || preview.height < 1) return;
  // Outward rounding: every mask pixel under the preview rectangle is sent.
  const double sx = static_cast<double>(mask.width) / preview.width;
  const double sy = static_cast<double>(mask.height) / preview.height;
  const int x0 = static_cast<int>(std::floor(rect.x * sx));
  const int y0 = static_cast<int>(std::floor(rect.y * sy));
  const int x1 = static_cast<int>(std::ceil((static_cast<double>(rect.x) + rect.width) * sx));
  const int y1 = static_cast<int>(std::ceil((static_cast<double>(rect.y) + rect.height) * sy));
  updatedInRect(_Rect<int>(x0, y0, x1 - x0, y1 - y0));
}

bool BrushController::shouldCreateWorkingMask() const {
  const std::shared_ptr<BrushContext> ctx = context();
  if (!ctx) return false;
  const _Size<int> mask = ctx->mask()->size();
  return std::max(mask.width, mask.height) > LayerMask::kPreviewLongSide;
}

bool BrushController::shouldCreateMaskThumbnail() const {
  const std::shared_ptr<BrushContext> ctx = context();
  if (!ctx) return false;
  const _Size<int> mask = ctx->mask()->size();
  return std::max(mask.width, mask.height) > LayerMask::kThumbnailLongSide;
}

bool BrushController::setFill() {
  if (!canChangeMask("Can't fill the mask")) return false;
  push(std::make_shared<FillOperation>());
  return true;
}

bool BrushController::invert() {
  if (!canChangeMask("Can't invert the mask")) return false;
  push(std::make_shared<BrushInvertOperation>());
  return true;
}

bool BrushController::clear() {
  if (!canChangeMask("Can't clear the mask")) return false;
  push(std::make_shared<ClearOperation>());
  return true;
}

bool BrushController::appendRadialGradient(_Point<float> centre, float radiusX, float radiusY,
                                           float angle, float feather, bool invert, bool add) {
  if (!canChangeMask("Can't add a radial gradient")) return false;
  const bool finite = std::isfinite(centre.x) && std::isfinite(centre.y) && std::isfinite(angle) &&
                      std::isfinite(feather);
  if (!finite || !(radiusX > 0.0f) || !(radiusY > 0.0f) || !std::isfinite(radiusX) ||
      !std::isfinite(radiusY)) {
    VORN_LOG_FAILURE("The radial gradient needs finite values and positive radii");
    return false;
  }
  push(std::make_shared<AppendRadialGradientOperation>(
      centre, radiusX, radiusY, angle, std::clamp(feather, 0.0f, 1.0f), invert, add));
  return true;
}

bool BrushController::appendGradient(float angle, _Point<float> centre, float width, bool invert,
                                     bool add) {
  if (!canChangeMask("Can't add a gradient")) return false;
  if (!std::isfinite(angle) || !std::isfinite(centre.x) || !std::isfinite(centre.y) ||
      !std::isfinite(width) || width < 0.0f) {
    VORN_LOG_FAILURE("The gradient needs finite values and a width of 0 or more");
    return false;
  }
  push(std::make_shared<AppendGradientOperation>(angle, centre, width, invert, add));
  return true;
}

bool BrushController::setMaskSetting(MaskSetting setting) {
  if (!canChangeMask("Can't set the feather and density") || !sanitizeMaskSetting(setting))
    return false;
  push(std::make_shared<FeatherAndDensityOperation>(setting));
  return true;
}

bool BrushController::forceDensityFeatherApplying() {
  if (!canChangeMask("Can't apply the feather and density")) return false;
  push(std::make_shared<ApplyFeatherAndDensityOperation>());
  return true;
}

bool BrushController::setDensityFeatherApplied(bool applied) {
  if (!canChangeMask("Can't switch the feather and density")) return false;
  if (applied)
    push(std::make_shared<ApplyFeatherAndDensityOperation>());
  else
    push(std::make_shared<UnapplyFeatherAndDensityOperation>());
  return true;
}

std::shared_ptr<MaskImage> BrushController::getMaskPreviewForTransformSettings(
    const ImageTransformSettings& settings) {
  if (!isValid()) return nullptr;
  const std::shared_ptr<void> hold = getQueue()->settle();
  const std::shared_ptr<BrushContext> preview = context()->convertToPreviewContext(settings);
  return preview ? preview->mask() : nullptr;
}

}  // namespace vorn
