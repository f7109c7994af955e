// What an image processor checks and prepares before a render, and the render itself.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <memory>
#include <vector>

#include "core/log_failure.h"
#include "io/input_limits.h"
#include "pipeline/image_processor_compute_unit.h"
#include "vorn/core/memory_manager.h"
#include "vorn/core/processing_status.h"
#include "vorn/pipeline/image_processor.h"

namespace vorn {
namespace {

/// The ROI check: inside the W x H canvas (touching the edge is fine) with positive sides;
/// written so that NaN fails every comparison.
bool roiInside(const _Rect<float>& roi, float w, float h) {
  return roi.x >= 0.0f && roi.y >= 0.0f && roi.width > 0.0f && roi.height > 0.0f &&
         roi.x + roi.width <= w && roi.y + roi.height <= h;
}

_Rect<int> clipToSize(_Rect<int> rect, _Size<int> size) {
  const int x0 = std::max(rect.x, 0);
  const int y0 = std::max(rect.y, 0);
  const int x1 = std::min(rect.x + rect.width, size.width);
  const int y1 = std::min(rect.y + rect.height, size.height);
  if (x1 - x0 < 1 || y1 - y0 < 1) return {};
  return _Rect<int>(x0, y0, x1 - x0, y1 - y0);
}

}  // namespace

bool ImageProcessor::prepareEnabledLayersPool(_Rect<float>& roi, _Size<int>& size, bool applyCrop) {
  pool_.clear();
  bool skipping = false;
  bool markNext = false;
  std::size_t skipLevel = 0;
  for (const std::shared_ptr<BaseLayer>& layer : layers_) {
    if (skipping && layer->level() > skipLevel) continue;
    skipping = false;
    if (!layer->isEnabled()) {
      skipping = true;
      skipLevel = layer->level();
      markNext = true;
      continue;
    }
    // What lay beneath this layer changed.
    if (markNext) layer->setNeedProcessing(true);
    markNext = false;
    pool_.push_back(layer);
  }
  const _Size<int> canvas = canvasSize();
  for (const std::shared_ptr<BaseLayer>& layer : pool_) {
    ImageTransformSettings settings = layer->transformSettings();
    settings.canvasSize = canvas;
    settings.crop = applyCrop ? crop_ : CropDescription();
    settings.orientation = orientation_;
    settings.roi = roi;
    settings.outputSize = size;
    if (settings != layer->transformSettings()) {
      layer->setTransform(settings);
      layer->setNeedProcessing(true);
    }
  }
  return std::any_of(pool_.begin(), pool_.end(),
                     [](const std::shared_ptr<BaseLayer>& l) { return l->type() == kImageLayer; });
}

bool ImageProcessor::prepareProcessing(ImageProcessorSettings& settings) {
  validateLayers();
  // An export renders once: pooled blocks kept for another render would only hold memory.
  if (settings.exportMode) MemoryManager::instance().setCachingEnabled(false);
  if (layers_.empty()) {
    VORN_LOG_FAILURE("There aren't any layers!");
    return false;
  }
  const std::shared_ptr<Image> original = getOriginalImage();
  if (!original) {
    VORN_LOG_FAILURE("orig image is broken!");
    return false;
  }
  const _Size<int> canvas = canvasSize();
  const auto w = static_cast<float>(canvas.width);
  const auto h = static_cast<float>(canvas.height);
  _Rect<float>& roi = settings.processingROI;
  if (!roi.isZero() && !roiInside(roi, w, h)) {
    VORN_LOG_FAILURE("Incorrect processingROI rect!");
    return false;
  }
  if (roi.isZero()) roi = _Rect<float>(0.0f, 0.0f, w, h);
  _Size<int>& size = settings.processingSize;
  if (size == _Size<int>()) size = canvas;
  if (size.width < 1 || size.height < 1 ||
      static_cast<std::uint64_t>(size.width) * static_cast<std::uint64_t>(size.height) >
          detail::maxImagePixels()) {
    VORN_LOG_FAILURE(
        "Incorrect processingSize! Both sides must be positive and within the pixel cap");
    return false;
  }
  if (layers_.front()->type() != kImageLayer) {
    VORN_LOG_FAILURE("First Layer must be ImageLayer!");
    return false;
  }
  if (!prepareEnabledLayersPool(roi, size, settings.applyCrop)) {
    VORN_LOG_FAILURE("Can't produce any result! There are no enabled imageLayers!");
    return false;
  }
  if (!settings.lensCorrectionPreview) prepareLensCorrectionPreviews(settings);
  return true;
}

void ImageProcessor::startProcessing(ImageProcessorSettings settings) {
  const auto start = std::chrono::steady_clock::now();
  const std::clock_t cpuStart = std::clock();
  // Brush work on a layer's mask is finished and held back until this render is done.
  std::vector<std::shared_ptr<void>> maskHolds;
  for (const std::shared_ptr<BaseLayer>& layer : layers_)
    if (auto hold = layer->settleMaskWork()) maskHolds.push_back(std::move(hold));
  if (needsClear_) {
    engine_->reset();
    clearSelf();
  }
  if (!prepareProcessing(settings)) {
    VORN_LOG_FAILURE("Start condition aren't correct!");
    return;
  }
  RenderRequest request;
  request.pool.assign(pool_.begin(), pool_.end());
  request.profile = getOriginalImage()->colorProfile();
  request.roi = settings.processingROI;
  request.size = settings.processingSize;
  request.finalRect = clipToSize(settings.finalRect, request.size);
  request.cancel = settings.stopProcessing;
  request.useCache = settings.useCache;
  request.previewQuality = settings.previewQuality;
  const _Size<int> canvas = canvasSize();
  if (!(request.roi == _Rect<float>(0.0f, 0.0f, static_cast<float>(canvas.width),
                                    static_cast<float>(canvas.height))))
    request.wholePicture = getOriginalThumbnail();
  const RenderStatus status = engine_->run(request);
  if (status == RenderStatus::Done) {
    lastResult_ = engine_->result();
    lastResultThumbnail_.reset();
    lastThumbSize_ = thumbSize(settings.applyCrop);
  }
  if (status == RenderStatus::Cancelled || isCancelRequested(settings.stopProcessing.get())) {
    // The frames may have been fetched half-way; the next render starts from the sources.
    for (const std::shared_ptr<BaseLayer>& layer : pool_) {
      if (auto image = std::dynamic_pointer_cast<ImageLayer>(layer)) {
        image->resetCachedImages();
        image->setNeedProcessing(true);
      }
    }
    return;
  }
  if (status != RenderStatus::Done) return;
  lastProcessingSeconds_ =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  lastProcessingCpuSeconds_ = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
  postProcessing(settings, request.finalRect);
}

_Rect<int> ImageProcessor::getResultImageUpdateRectForUpdateRectInLayer(
    std::shared_ptr<BaseLayer> layer, _Rect<int> layerRect, _Rect<float> processingROI,
    _Size<int> processingSize) {
  const int index = layerIndex(layer);
  if (index < 0 || layerRect.width < 1 || layerRect.height < 1 || processingSize.width < 1 ||
      processingSize.height < 1 || !(processingROI.width > 0.0f) ||
      !(processingROI.height > 0.0f)) {
    VORN_LOG_FAILURE("No such layer, or an empty rect, ROI or size");
    return {};
  }
  ImageTransformSettings settings = layer->transformSettings();
  settings.roi = processingROI;
  settings.outputSize = processingSize;
  const AffineTransform toOutput = settings.layerToOutput();
  float x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;
  for (const int cx : {layerRect.x, layerRect.x + layerRect.width}) {
    for (const int cy : {layerRect.y, layerRect.y + layerRect.height}) {
      const _Point<float> p =
          toOutput.transformPoint(_Point<float>(static_cast<float>(cx), static_cast<float>(cy)));
      x0 = std::min(x0, p.x);
      y0 = std::min(y0, p.y);
      x1 = std::max(x1, p.x);
      y1 = std::max(y1, p.y);
    }
  }
  if (!std::isfinite(x0) || !std::isfinite(y0) || !std::isfinite(x1) || !std::isfinite(y1))
    return {};
  // Limited to a margin around the result first, so that no float overflows an int.
  const auto limitX = [&](float v) {
    return static_cast<int>(std::clamp(v, -1.0f, static_cast<float>(processingSize.width) + 1.0f));
  };
  const auto limitY = [&](float v) {
    return static_cast<int>(std::clamp(v, -1.0f, static_cast<float>(processingSize.height) + 1.0f));
  };
  const int left = limitX(std::floor(x0)), top = limitY(std::floor(y0));
  _Rect<int> rect(left, top, limitX(std::ceil(x1)) - left, limitY(std::ceil(y1)) - top);
  // Neighbourhood effects of this layer and every one above spread the change.
  auto it = std::next(layers_.begin(), index);
  for (; it != layers_.end(); ++it) {
    const auto adjustment = std::dynamic_pointer_cast<AdjustmentLayer>(*it);
    if (!adjustment || !adjustment->isEnabled()) continue;
    for (const std::shared_ptr<Effect>& effect : adjustment->effects())
      if (effect->isNeedProcessing()) rect = effect->getOutRectForInRect(rect);
  }
  return clipToSize(rect, processingSize);
}

std::pair<std::shared_ptr<ImageProcessor>, std::shared_ptr<ImageProcessor>>
ImageProcessor::getImageLayerPreviewAndBackgroundProcessors(
    std::shared_ptr<const BaseLayer> layer) const {
  const int index = layerIndex(layer);
  if (index < 0 || layer->type() != kImageLayer) {
    VORN_LOG_FAILURE("The layer is not an image layer of this processor");
    return {};
  }
  const auto configured = [this] {
    auto processor = std::make_shared<ImageProcessor>();
    processor->crop_ = crop_;
    processor->orientation_ = orientation_;
    return processor;
  };
  // Copies, so that renders of the two never touch this processor's layers or flags.
  auto preview = configured();
  auto alone = std::static_pointer_cast<ImageLayer>(layer->copy());
  alone->setEnabled(true);
  // The preview shows the image itself, unplaced, over a canvas of its own size.
  alone->setTransform(ImageTransformSettings::forCanvas(alone->getSourceImage()->size()));
  preview->addLayer(alone, 0);
  auto background = configured();
  auto it = layers_.begin();
  for (int i = 0; i < index; ++i, ++it)
    background->addLayer((*it)->copy(), background->layers_.size());
  return {preview, background};
}

}  // namespace vorn
