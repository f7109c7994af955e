// What an image processor checks and prepares before a render, and the render itself.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/log_failure.h"
#include "io/input_limits.h"
#include "pipeline/display_geometry.h"
#include "pipeline/image_processor_compute_unit.h"
#include "pipeline/render_effect_roles.h"
#include "vorn/core/memory_manager.h"
#include "vorn/core/processing_status.h"
#include "vorn/pipeline/image_processor.h"

namespace vorn {
namespace {

/// An export renders once: pooled blocks kept for another render would only hold memory, so
/// caching is off while any export runs and the host's own policy returns after the last one.
class ExportMemoryScope {
 public:
  explicit ExportMemoryScope(bool exporting) : exporting_(exporting) {
    if (!exporting_) return;
    std::lock_guard lock(mutex_);
    if (running_++ == 0) {
      hostPolicy_ = MemoryManager::instance().isCachingEnabled();
      MemoryManager::instance().setCachingEnabled(false);
    }
  }
  ~ExportMemoryScope() {
    if (!exporting_) return;
    std::lock_guard lock(mutex_);
    if (--running_ == 0) MemoryManager::instance().setCachingEnabled(hostPolicy_);
  }
  ExportMemoryScope(const ExportMemoryScope&) = delete;
  ExportMemoryScope& operator=(const ExportMemoryScope&) = delete;

 private:
  bool exporting_;
  static inline std::mutex mutex_;
  static inline int running_ = 0;
  static inline bool hostPolicy_ = true;
};

/// The ROI check: inside the W x H canvas (touching the edge is fine) with positive sides;
/// written so that NaN fails every comparison.
bool roiInside(const _Rect<float>& roi, float w, float h) {
  return roi.x >= 0.0f && roi.y >= 0.0f && roi.width > 0.0f && roi.height > 0.0f &&
         roi.x + roi.width <= w && roi.y + roi.height <= h;
}

_Rect<int> clipToSize(_Rect<int> rect, _Size<int> size) {
  return intersectRects(rect, _Rect<int>(0, 0, size.width, size.height));
}

}  // namespace

ImageProcessor::LayerList ImageProcessor::prepareEnabledLayersPool(_Rect<float>& roi,
                                                                   _Size<int>& size,
                                                                   bool applyCrop) {
  LayerList pool;
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
    pool.push_back(layer);
  }
  pool_ = pool;
  // The effects read their margin at the render's scale, which the fitting sets: a second
  // fit follows only when the scale changed and with it the margin.
  const _Rect<int> needed = display_->neededCells();
  _Rect<int> cells = chainInputCells(needed);
  fitPoolToCells(cells, applyCrop);
  if (const _Rect<int> again = chainInputCells(needed); again != cells) {
    cells = again;
    fitPoolToCells(cells, applyCrop);
  }
  renderCells_ = cells;
  roi = display_->canvasRoi(cells);
  size = cells.size();
  return pool;
}

void ImageProcessor::fitPoolToCells(const _Rect<int>& cells, bool applyCrop) {
  const _Size<int> canvas = canvasSize();
  for (const std::shared_ptr<BaseLayer>& layer : pool_) {
    ImageTransformSettings settings = layer->transformSettings();
    settings.canvasSize = canvas;
    settings.crop = applyCrop ? crop_ : CropDescription();
    settings.orientation = orientation_;
    settings.roi = display_->canvasRoi(cells);
    settings.outputSize = cells.size();
    if (settings != layer->transformSettings()) {
      layer->setTransform(settings);
      layer->setNeedProcessing(true);
    }
  }
}

_Rect<int> ImageProcessor::chainInputCells(_Rect<int> cells) const {
  for (auto layer = pool_.rbegin(); layer != pool_.rend(); ++layer) {
    const auto adjustment = std::dynamic_pointer_cast<AdjustmentLayer>(*layer);
    if (!adjustment) continue;
    const auto& effects = adjustment->effects();
    for (auto effect = effects.rbegin(); effect != effects.rend(); ++effect)
      if ((*effect)->isNeedProcessing()) cells = (*effect)->getInRectForOutRect(cells);
  }
  return intersectRects(cells, display_->canvasCells());
}

bool ImageProcessor::prepareProcessing(ImageProcessorSettings& settings) {
  validateLayers();
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
  std::string error;
  const std::optional<DisplayGeometry> geometry = DisplayGeometry::plan(
      {canvas, settings.applyCrop ? crop_ : CropDescription(), orientation_, roi, size}, error);
  if (!geometry) {
    VORN_LOG_FAILURE(error.c_str());
    return false;
  }
  const _Size<int> output = geometry->outputSize();
  // A turned crop renders the bounds of its turned rectangle, larger than the output.
  const _Rect<int> needed = intersectRects(geometry->neededCells(), geometry->canvasCells());
  const auto tooLarge = [](_Size<int> s) {
    return static_cast<std::uint64_t>(s.width) * static_cast<std::uint64_t>(s.height) >
           detail::maxImagePixels();
  };
  if (tooLarge(output) || tooLarge(needed.size())) {
    VORN_LOG_FAILURE("Incorrect processingSize! The cropped picture exceeds the pixel cap");
    return false;
  }
  if (needed.width < 1 || needed.height < 1) {
    VORN_LOG_FAILURE("The crop lies outside the picture!");
    return false;
  }
  display_ = std::make_shared<const DisplayGeometry>(*geometry);
  const LayerList pool = prepareEnabledLayersPool(roi, size, settings.applyCrop);
  if (std::none_of(pool.begin(), pool.end(),
                   [](const std::shared_ptr<BaseLayer>& l) { return l->type() == kImageLayer; })) {
    VORN_LOG_FAILURE("Can't produce any result! There are no enabled imageLayers!");
    return false;
  }
  if (!settings.lensCorrectionPreview) prepareLensCorrectionPreviews(settings);
  return true;
}

void ImageProcessor::startProcessing(ImageProcessorSettings settings) {
  const auto start = std::chrono::steady_clock::now();
  const std::clock_t cpuStart = std::clock();
  const ExportMemoryScope exportMemory(settings.exportMode);
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
  request.finalRect = clipToSize(settings.finalRect, display_->outputSize());
  request.cancel = settings.stopProcessing;
  request.useCache = settings.useCache;
  request.previewQuality = settings.previewQuality;
  const _Size<int> canvas = canvasSize();
  // Made from the whole frame, so fetched only for an effect that measures the picture.
  const auto measures = [](const std::shared_ptr<BaseLayer>& layer) {
    const auto adjustment = std::dynamic_pointer_cast<AdjustmentLayer>(layer);
    return adjustment && std::any_of(adjustment->effects().begin(), adjustment->effects().end(),
                                     [](const std::shared_ptr<Effect>& e) {
                                       return e->isNeedProcessing() &&
                                              needsWholePictureReference(e->id());
                                     });
  };
  if (!(request.roi == _Rect<float>(0.0f, 0.0f, static_cast<float>(canvas.width),
                                    static_cast<float>(canvas.height))) &&
      std::any_of(pool_.begin(), pool_.end(), measures))
    request.wholePicture = getOriginalThumbnail();
  const RenderStatus status = engine_->run(request);
  if (status == RenderStatus::Done) {
    const std::shared_ptr<ImageDataRGBf> rendered = engine_->result();
    if (display_->isIdentity(renderCells_)) {
      lastResult_ = rendered;
    } else {
      // The last presented picture is rewritten when nobody else holds it any more: fresh
      // memory costs more to fault in than the resample costs to run.
      if (lastResult_ == presented_) lastResult_.reset();
      if (presented_.use_count() != 1) presented_.reset();
      presented_ = display_->present(*rendered, renderCells_, std::move(presented_));
      lastResult_ = presented_;
    }
    lastResultThumbnail_.reset();
    lastThumbSize_ = displayFrameSize(settings.applyCrop);
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
  const ImageTransformSettings& settings = layer->transformSettings();
  std::string error;
  const std::optional<DisplayGeometry> geometry = DisplayGeometry::plan(
      {canvasSize(), settings.crop, settings.orientation, processingROI, processingSize}, error);
  if (!geometry) {
    VORN_LOG_FAILURE(error.c_str());
    return {};
  }
  float x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;
  for (const int cx : {layerRect.x, layerRect.x + layerRect.width}) {
    for (const int cy : {layerRect.y, layerRect.y + layerRect.height}) {
      const _Point<float> p = settings.layerToCanvas.transformPoint(
          _Point<float>(static_cast<float>(cx), static_cast<float>(cy)));
      x0 = std::min(x0, p.x);
      y0 = std::min(y0, p.y);
      x1 = std::max(x1, p.x);
      y1 = std::max(y1, p.y);
    }
  }
  _Rect<int> cells = geometry->cellsForCanvasRect(_Rect<float>(x0, y0, x1 - x0, y1 - y0));
  // Neighbourhood effects of this layer and every one above spread the change.
  auto it = std::next(layers_.begin(), index);
  for (; it != layers_.end(); ++it) {
    const auto adjustment = std::dynamic_pointer_cast<AdjustmentLayer>(*it);
    if (!adjustment || !adjustment->isEnabled()) continue;
    for (const std::shared_ptr<Effect>& effect : adjustment->effects())
      if (effect->isNeedProcessing()) cells = effect->getOutRectForInRect(cells);
  }
  return geometry->outputRectForCells(cells);
}

std::pair<std::shared_ptr<ImageProcessor>, std::shared_ptr<ImageProcessor>>
ImageProcessor::getImageLayerPreviewAndBackgroundProcessors(
    std::shared_ptr<const BaseLayer> layer) const {
  const int index = layerIndex(layer);
  if (index < 0 || layer->type() != kImageLayer) {
    VORN_LOG_FAILURE("The layer is not an image layer of this processor");
    return {};
  }
  const auto configured = [this](bool withCrop) {
    auto processor = std::make_shared<ImageProcessor>();
    if (withCrop) processor->crop_ = crop_;
    processor->orientation_ = orientation_;
    return processor;
  };
  // Copies, so that renders of the two never touch this processor's layers or flags. The
  // preview's canvas is the layer's own, which the document's crop does not describe.
  auto preview = configured(false);
  auto alone = std::static_pointer_cast<ImageLayer>(layer->copy());
  alone->setEnabled(true);
  // The preview shows the image itself, unplaced, over a canvas of its own size.
  alone->setTransform(ImageTransformSettings::forCanvas(alone->getSourceImage()->size()));
  preview->addLayer(alone, 0);
  auto background = configured(true);
  auto it = layers_.begin();
  for (int i = 0; i < index; ++i, ++it)
    background->addLayer((*it)->copy(), background->layers_.size());
  return {preview, background};
}

}  // namespace vorn
