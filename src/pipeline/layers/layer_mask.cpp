#include "vorn/pipeline/layer_mask.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "core/log_failure.h"
#include "core/parallel.h"
#include "core/resample.h"
#include "pipeline/rect_utils.h"

namespace vorn {
namespace {

std::shared_ptr<MaskImage> deepCopy(const std::shared_ptr<MaskImage>& mask) {
  return mask ? std::make_shared<MaskImage>(*mask) : nullptr;
}

bool insideOf(const _Rect<int>& rect, _Size<int> size) {
  return rect.x >= 0 && rect.y >= 0 && rect.width > 0 && rect.height > 0 &&
         static_cast<long long>(rect.x) + rect.width <= size.width &&
         static_cast<long long>(rect.y) + rect.height <= size.height;
}

/// Copies the rect-sized block of `from` at `origin` to `rect` of `to`, row by row.
void copyBlock(const MaskImage& from, _Point<int> origin, MaskImage& to, const _Rect<int>& rect) {
  const std::size_t bytes = static_cast<std::size_t>(rect.width) * sizeof(float);
  detail::parallelRows(rect.height, [&](int first, int end) {
    for (int r = first; r < end; ++r)
      std::memcpy(to.row(rect.y + r) + rect.x, from.row(origin.y + r) + origin.x, bytes);
  });
}

/// Output pixels of a copyAffineTransformedTo render that read any pixel of `changed`.
_Rect<int> renderFootprint(const ImageTransformSettings& settings, _Size<int> output,
                           const _Rect<int>& changed) {
  float minScale = 0.0f, maxScale = 0.0f;
  AffineTransform toOutput = _ImageData<float>::adaptAffineTransformForCoppying(
      settings.layerToCanvas, settings.roi, output, minScale, maxScale);
  if (std::isnan(maxScale) || !toOutput.invert()) return {};
  // A sample reads its floor pixel and the next one, so the source block grows by one pixel
  // before and after; a destination pixel samples its whole unit square.
  const float x0 = static_cast<float>(changed.x - 1), y0 = static_cast<float>(changed.y - 1);
  const float x1 = static_cast<float>(changed.x + changed.width + 1);
  const float y1 = static_cast<float>(changed.y + changed.height + 1);
  float lowX = INFINITY, lowY = INFINITY, highX = -INFINITY, highY = -INFINITY;
  for (const _Point<float> corner : {_Point<float>(x0, y0), _Point<float>(x1, y0),
                                     _Point<float>(x0, y1), _Point<float>(x1, y1)}) {
    const _Point<float> p = toOutput.transformPoint(corner);
    lowX = std::min(lowX, p.x), lowY = std::min(lowY, p.y);
    highX = std::max(highX, p.x), highY = std::max(highY, p.y);
  }
  if (!(std::isfinite(lowX) && std::isfinite(lowY) && std::isfinite(highX) && std::isfinite(highY)))
    return _Rect<int>(0, 0, output.width, output.height);
  const auto clampTo = [](float v, int limit) {
    return static_cast<int>(std::clamp(v, 0.0f, static_cast<float>(limit)));
  };
  const int left = clampTo(std::floor(lowX) - 2.0f, output.width);
  const int top = clampTo(std::floor(lowY) - 2.0f, output.height);
  const int right = clampTo(std::ceil(highX) + 2.0f, output.width);
  const int bottom = clampTo(std::ceil(highY) + 2.0f, output.height);
  if (right <= left || bottom <= top) return {};
  return _Rect<int>(left, top, right - left, bottom - top);
}

}  // namespace

LayerMask::LayerMask(const LayerMask& other) {
  copyFrom(other);
}

LayerMask& LayerMask::operator=(const LayerMask& other) {
  if (this == &other) return *this;
  LayerMask copy(other);
  std::lock_guard lock(mutex_);
  mask_ = std::move(copy.mask_);
  thumbnail_ = std::move(copy.thumbnail_);
  preview_ = std::move(copy.preview_);
  transformed_ = std::move(copy.transformed_);
  transformedFor_ = copy.transformedFor_;
  workingUpdate_ = copy.workingUpdate_;
  return *this;
}

LayerMask::~LayerMask() = default;

void LayerMask::copyFrom(const LayerMask& other) {
  std::lock_guard lock(other.mutex_);
  mask_ = deepCopy(other.mask_);
  thumbnail_ = deepCopy(other.thumbnail_);
  preview_ = deepCopy(other.preview_);
  transformed_ = deepCopy(other.transformed_);
  transformedFor_ = other.transformedFor_;
  workingUpdate_ = other.workingUpdate_;
}

std::shared_ptr<MaskImage> LayerMask::mask() const {
  std::lock_guard lock(mutex_);
  return mask_;
}

bool LayerMask::hasMask() const {
  std::lock_guard lock(mutex_);
  return mask_ != nullptr;
}

void LayerMask::set(std::shared_ptr<MaskImage> mask) {
  std::lock_guard lock(mutex_);
  mask_ = std::move(mask);
  thumbnail_.reset();
  preview_.reset();
  transformed_.reset();
  workingUpdate_ = mask_ ? mask_->rect() : _Rect<int>();
}

std::shared_ptr<const MaskImage> LayerMask::workingMask() const {
  std::lock_guard lock(mutex_);
  return mask_;
}

_Size<int> LayerMask::reducedSize(_Size<int> mask, int longSide) {
  const int longest = std::max(mask.width, mask.height);
  if (mask.width < 1 || mask.height < 1 || longSide < 1) return {};
  if (longest <= longSide) return mask;
  const double scale = static_cast<double>(longSide) / longest;
  const auto side = [scale](int length) {
    return std::max(1, static_cast<int>(std::lround(length * scale)));
  };
  return _Size<int>(side(mask.width), side(mask.height));
}

std::shared_ptr<MaskImage> LayerMask::buildReduction(_Size<int> size) const {
  if (!mask_) return {};
  try {
    auto reduction = std::make_shared<MaskImage>(size);
    if (!detail::areaAverageRegion(*mask_, *reduction, reduction->rect())) {
      VORN_LOG_FAILURE("Can't reduce the mask");
      return {};
    }
    return reduction;
  } catch (const std::bad_alloc&) {
    VORN_LOG_FAILURE("Not enough memory for the mask cache");
    return {};
  }
}

std::shared_ptr<const MaskImage> LayerMask::thumbnail() {
  std::lock_guard lock(mutex_);
  if (!thumbnail_ && mask_)
    thumbnail_ = buildReduction(reducedSize(mask_->size(), kThumbnailLongSide));
  return thumbnail_;
}

std::shared_ptr<const MaskImage> LayerMask::preview() {
  std::lock_guard lock(mutex_);
  if (!preview_ && mask_) preview_ = buildReduction(reducedSize(mask_->size(), kPreviewLongSide));
  return preview_;
}

std::shared_ptr<const MaskImage> LayerMask::previewForTransform(
    const ImageTransformSettings& settings) {
  std::lock_guard lock(mutex_);
  if (!mask_) return {};
  if (!settings.hasRender()) {
    VORN_LOG_FAILURE("The settings have an empty ROI or output size");
    return {};
  }
  if (transformed_ && transformedFor_ == settings) return transformed_;
  transformed_.reset();
  try {
    std::shared_ptr<_ImageData<float>> plane = std::make_shared<MaskImage>(settings.outputSize);
    mask_->copyAffineTransformedTo(plane, settings.roi, settings.layerToCanvas);
    transformed_ = std::static_pointer_cast<MaskImage>(plane);
    transformedFor_ = settings;
  } catch (const std::bad_alloc&) {
    VORN_LOG_FAILURE("Not enough memory for the mask render");
  }
  return transformed_;
}

void LayerMask::resetCache() {
  std::lock_guard lock(mutex_);
  thumbnail_.reset();
  preview_.reset();
  transformed_.reset();
}

_Rect<int> LayerMask::workingUpdateRect() const {
  std::lock_guard lock(mutex_);
  return workingUpdate_;
}

_Rect<int> LayerMask::previewUpdateRect() const {
  std::lock_guard lock(mutex_);
  if (!mask_ || workingUpdate_.isZero()) return {};
  return detail::areaAverageFootprint(mask_->size(), reducedSize(mask_->size(), kPreviewLongSide),
                                      workingUpdate_);
}

void LayerMask::clearUpdateRects(SharedFlag& pending) {
  std::lock_guard lock(mutex_);
  workingUpdate_ = {};
  pending.set(false);
}

bool LayerMask::update(const MaskImage& content, const _Rect<int>& rect, SharedFlag& pending) {
  std::lock_guard lock(mutex_);
  if (!mask_) {
    VORN_LOG_FAILURE("The layer has no mask");
    return false;
  }
  if (!insideOf(rect, mask_->size())) {
    VORN_LOG_FAILURE("The rectangle is not inside the mask");
    return false;
  }
  _Point<int> origin;
  if (content.size() == mask_->size()) {
    origin = _Point<int>(rect.x, rect.y);
  } else if (content.size() != rect.size()) {
    VORN_LOG_FAILURE("The content is neither the rectangle's size nor the mask's");
    return false;
  }
  if (&content != mask_.get()) copyBlock(content, origin, *mask_, rect);
  workingUpdate_ = detail::uniteRects(workingUpdate_, rect);
  for (const auto& cache : {thumbnail_, preview_}) {
    if (!cache) continue;
    const _Rect<int> part = detail::areaAverageFootprint(mask_->size(), cache->size(), rect);
    if (!part.isZero()) detail::areaAverageRegion(*mask_, *cache, part);
  }
  refreshTransformed(rect);
  pending.set(true);
  return true;
}

void LayerMask::refreshTransformed(const _Rect<int>& rect) {
  if (!transformed_) return;
  const _Rect<int> part = renderFootprint(transformedFor_, transformed_->size(), rect);
  if (part.isZero()) return;
  std::shared_ptr<_ImageData<float>> plane = transformed_;
  mask_->copyAffineTransformedTo(plane, transformedFor_.roi, transformedFor_.layerToCanvas, part);
}

}  // namespace vorn
