#include "vorn/pipeline/brush/brush_context.h"

#include <algorithm>
#include <new>

#include "core/log_failure.h"
#include "mask_blocks.h"
#include "mask_filter.h"
#include "mask_gradient.h"
#include "vorn/core/float_compare.h"
#include "vorn/pipeline/base_layer.h"
#include "vorn/pipeline/brush/brush_utils.h"

namespace vorn {
namespace {

std::shared_ptr<MaskImage> deepCopy(const std::shared_ptr<MaskImage>& mask) {
  return mask ? std::make_shared<MaskImage>(*mask) : nullptr;
}

}  // namespace

BaseBrushContext::BaseBrushContext(std::shared_ptr<MaskImage> mask, _Size<int> canvasSize)
    : mask_(std::move(mask)), canvas_(canvasSize) {}

BaseBrushContext::BaseBrushContext(const BaseBrushContext& other)
    : mask_(deepCopy(other.mask_)),
      canvas_(other.canvas_),
      mode_(other.mode_),
      strokeInProgress_(other.strokeInProgress_),
      last_(other.last_),
      changed_(other.changed_),
      isChanged_(other.isChanged_),
      maskWasClear_(other.maskWasClear_),
      crop_(other.crop_),
      snapshot_(deepCopy(other.snapshot_)),
      coverage_(deepCopy(other.coverage_)),
      touched_(other.touched_),
      tilesX_(other.tilesX_),
      stamp_(other.stamp_) {}

BaseBrushContext::~BaseBrushContext() = default;

std::shared_ptr<BaseBrushContext> BaseBrushContext::clone() const {
  return std::make_shared<BaseBrushContext>(*this);
}

void BaseBrushContext::startStroke() {
  strokeInProgress_ = true;
  last_ = _Point<float>(kNoPosition, kNoPosition);
  beginChangeMask();
}

void BaseBrushContext::finishStroke() {
  strokeInProgress_ = false;
  last_ = _Point<float>(kNoPosition, kNoPosition);
}

void BaseBrushContext::cancelStroke() {
  finishStroke();
}

void BaseBrushContext::setBrushMode(BrushMode mode) {
  if (!canSetBrushMode(mode, strokeInProgress_)) return;
  mode_ = mode;
}

bool BaseBrushContext::hasNoLastPosition() const {
  return isFloatEqual(last_.x, kNoPosition) && isFloatEqual(last_.y, kNoPosition);
}

void BaseBrushContext::setChanged(bool changed, _Rect<int> rect) {
  isChanged_ = changed;
  changed_ = changed ? rect : _Rect<int>();
}

void BaseBrushContext::recordMaskWasClear() {
  maskWasClear_ = !mask_ || std::all_of(mask_->data, mask_->data + mask_->area(),
                                        [](float v) { return v == 0.0f; });
}

bool BaseBrushContext::prepareStroke() {
  if (!mask_ || mask_->empty()) {
    VORN_LOG_FAILURE("The brush context has no mask");
    return false;
  }
  stamp_.padded.reset();
  if (snapshot_ && coverage_ && snapshot_->size() == mask_->size() &&
      coverage_->size() == mask_->size())
    return true;
  try {
    snapshot_ = std::make_shared<MaskImage>(mask_->size());
    coverage_ = std::make_shared<MaskImage>(mask_->size());
  } catch (const std::bad_alloc&) {
    snapshot_.reset();
    coverage_.reset();
    VORN_LOG_FAILURE("Not enough memory for the stroke buffers");
    return false;
  }
  tilesX_ = (mask_->width + kTileSide - 1) / kTileSide;
  const int tilesY = (mask_->height + kTileSide - 1) / kTileSide;
  touched_.assign(static_cast<std::size_t>(tilesX_) * static_cast<std::size_t>(tilesY), 0);
  return true;
}

void BaseBrushContext::beginChangeMask() {
  std::fill(touched_.begin(), touched_.end(), std::uint8_t{0});
}

void BaseBrushContext::touchBlocks(const _Rect<int>& rect) {
  if (!mask_ || !snapshot_ || !coverage_ || touched_.empty() || rect.isZero()) return;
  const int tx0 = rect.x / kTileSide, tx1 = (rect.x + rect.width - 1) / kTileSide;
  const int ty0 = rect.y / kTileSide, ty1 = (rect.y + rect.height - 1) / kTileSide;
  for (int ty = ty0; ty <= ty1; ++ty) {
    for (int tx = tx0; tx <= tx1; ++tx) {
      std::uint8_t& flag =
          touched_[static_cast<std::size_t>(ty) * static_cast<std::size_t>(tilesX_) +
                   static_cast<std::size_t>(tx)];
      if (flag) continue;
      flag = 1;
      const _Rect<int> tile = detail::clipRect(
          _Rect<int>(tx * kTileSide, ty * kTileSide, kTileSide, kTileSide), mask_->size());
      detail::copyRegion(*mask_, *snapshot_, tile);
      coverage_->fillRect(0.0f, tile);
    }
  }
}

bool BaseBrushContext::restoreTouchedBlocks(_Rect<int>& restored) {
  restored = {};
  if (!mask_ || !snapshot_ || touched_.empty()) return false;
  const int tilesY = static_cast<int>(touched_.size()) / std::max(tilesX_, 1);
  for (int ty = 0; ty < tilesY; ++ty) {
    for (int tx = 0; tx < tilesX_; ++tx) {
      std::uint8_t& flag =
          touched_[static_cast<std::size_t>(ty) * static_cast<std::size_t>(tilesX_) +
                   static_cast<std::size_t>(tx)];
      if (!flag) continue;
      flag = 0;
      const _Rect<int> tile = detail::clipRect(
          _Rect<int>(tx * kTileSide, ty * kTileSide, kTileSide, kTileSide), mask_->size());
      detail::copyRegion(*snapshot_, *mask_, tile);
      restored = detail::uniteRects(restored, tile);
    }
  }
  return true;
}

BrushContext::BrushContext(std::shared_ptr<MaskImage> mask, _Size<int> canvasSize,
                           std::weak_ptr<BaseLayer> layer)
    : BaseBrushContext(std::move(mask), canvasSize), layer_(std::move(layer)) {}

BrushContext::BrushContext(const BrushContext& other)
    : BaseBrushContext(other),
      setting_(other.setting_),
      filterApplied_(other.filterApplied_),
      filtered_(deepCopy(other.filtered_)) {}

std::shared_ptr<BaseBrushContext> BrushContext::clone() const {
  return std::make_shared<BrushContext>(*this);
}

void BrushContext::cancelStroke() {
  _Rect<int> restored;
  BrushUtils::processCancelStroke(this, restored);
  if (!restored.isZero()) publish(restored);
  BaseBrushContext::cancelStroke();
}

void BrushContext::clear() {
  if (!mask_) return;
  mask_->setEmpty();
  publishWhole();
}

void BrushContext::setFill() {
  if (!mask_) return;
  mask_->setFilled();
  publishWhole();
}

void BrushContext::invert() {
  if (!mask_) return;
  mask_->invert();
  publishWhole();
}

void BrushContext::appendGradient(float angle, _Point<float> centre, float width, bool invert,
                                  bool add) {
  if (!mask_) return;
  detail::linearGradient(*mask_, canvasSize(), angle, centre, width, {invert, add});
  publishWhole();
}

void BrushContext::appendRadialGradient(_Point<float> centre, float radiusX, float radiusY,
                                        float angle, float feather, bool invert, bool add) {
  if (!mask_) return;
  detail::radialGradient(*mask_, canvasSize(), centre, radiusX, radiusY, angle, feather,
                         {invert, add});
  publishWhole();
}

void BrushContext::setMaskSetting(const MaskSetting& setting) {
  setting_ = setting;
  filtered_.reset();
}

void BrushContext::setFilterApplied(bool applied) {
  filterApplied_ = applied;
  filtered_.reset();
  publishWhole();
}

std::shared_ptr<const MaskImage> BrushContext::shownMask() const {
  return filterApplied_ && !setting_.isIdentity() && filtered_ ? filtered_ : mask_;
}

_Rect<int> BrushContext::refreshFiltered(const _Rect<int>& rect) {
  if (!filterApplied_ || setting_.isIdentity()) return rect;
  const float sigma =
      detail::featherSigma(setting_, std::min(canvasSize().width, canvasSize().height));
  const int reach = detail::featherReach(sigma);
  _Rect<int> region = detail::clipRect(rect.inset(-reach, -reach), mask_->size());
  try {
    if (!filtered_ || filtered_->size() != mask_->size()) {
      filtered_ = std::make_shared<MaskImage>(mask_->size());
      region = mask_->rect();
    }
    detail::featherAndDensity(*mask_, *filtered_, region, sigma, setting_.density);
  } catch (const std::bad_alloc&) {
    // Without its filtered copy the layer shows the painted mask, whole.
    VORN_LOG_FAILURE("Not enough memory for the feathered mask; the painted mask is shown");
    filtered_.reset();
    return mask_->rect();
  }
  return region;
}

bool BrushContext::publish(_Rect<int> rect) {
  if (!mask_ || mask_->empty()) return false;
  const _Rect<int> clipped = detail::clipRect(rect, mask_->size());
  if (clipped.isZero()) return false;
  const _Rect<int> region = refreshFiltered(clipped);
  setChanged(true, region);
  const std::shared_ptr<BaseLayer> layer = layer_.lock();
  if (!layer) return false;
  return LayerMaskWriter::write(layer.get(), shownMask(), region);
}

void BrushContext::publishWhole() {
  if (mask_) publish(mask_->rect());
}

std::shared_ptr<BrushContext> BrushContext::convertToPreviewContext(
    const ImageTransformSettings& settings) const {
  const std::shared_ptr<const MaskImage> shown = shownMask();
  if (!shown || shown->empty()) {
    VORN_LOG_FAILURE("The brush context has no mask");
    return nullptr;
  }
  if (!settings.hasRender()) {
    VORN_LOG_FAILURE("The settings have an empty ROI or output size");
    return nullptr;
  }
  try {
    std::shared_ptr<_ImageData<float>> plane =
        std::make_shared<MaskImage>(settings.outputSize, 0.0f);
    shown->copyAffineTransformedTo(plane, settings.roi, settings.layerToCanvas);
    auto preview = std::make_shared<BrushContext>(std::make_shared<MaskImage>(std::move(*plane)),
                                                  settings.outputSize, std::weak_ptr<BaseLayer>());
    preview->setCrop(crop());
    return preview;
  } catch (const std::bad_alloc&) {
    VORN_LOG_FAILURE("Not enough memory for the mask preview");
    return nullptr;
  }
}

}  // namespace vorn
