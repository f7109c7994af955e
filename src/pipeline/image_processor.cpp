// The layer stack of an image processor and the geometry of its canvas.
#include "vorn/pipeline/image_processor.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "core/log_failure.h"
#include "pipeline/display_geometry.h"
#include "pipeline/image_processor_compute_unit.h"
#include "vorn/core/float_compare.h"
#include "vorn/pipeline/layer_conversion.h"

namespace vorn {

ImageProcessor::ImageProcessor() : engine_(std::make_shared<ImageProcessorComputeUnit>()) {}

ImageProcessor::ImageProcessor(const ImageProcessor& other)
    : layers_(other.layers_),
      pool_(other.pool_),
      engine_(std::make_shared<ImageProcessorComputeUnit>()),
      display_(other.display_),
      renderCells_(other.renderCells_),
      needsClear_(other.needsClear_),
      canvas_(other.canvas_),
      crop_(other.crop_),
      orientation_(other.orientation_),
      showHotPixels_(other.showHotPixels_),
      showColdPixels_(other.showColdPixels_),
      overlayPixelsType_(other.overlayPixelsType_),
      showMaskLayer_(other.showMaskLayer_),
      updateCallback_(other.updateCallback_),
      lastResult_(other.lastResult_),
      lastResultThumbnail_(other.lastResultThumbnail_),
      lastThumbSize_(other.lastThumbSize_),
      lastProcessingSeconds_(other.lastProcessingSeconds_),
      lastProcessingCpuSeconds_(other.lastProcessingCpuSeconds_),
      lastDebugLines_(other.lastDebugLines_),
      lensPreviews_(other.lensPreviews_),
      lensCorrected_(other.lensCorrected_) {}

ImageProcessor::~ImageProcessor() = default;

ImageProcessor::LayerList::iterator ImageProcessor::find(
    const std::shared_ptr<const BaseLayer>& layer) {
  return std::find_if(layers_.begin(), layers_.end(),
                      [&](const std::shared_ptr<BaseLayer>& l) { return l == layer; });
}

void ImageProcessor::addLayer(std::shared_ptr<BaseLayer> layer, std::size_t index) {
  if (!layer) {
    VORN_LOG_FAILURE("Layer is null!");
    return;
  }
  const auto imageLayer = std::dynamic_pointer_cast<ImageLayer>(layer);
  if (canvas_ == _Size<int>() && imageLayer) canvas_ = imageLayer->getSourceImage()->size();
  ImageTransformSettings settings = layer->transformSettings();
  const _Size<int> canvas = canvasSize();
  if (settings.canvasSize != canvas) {
    settings.canvasSize = canvas;
    settings.roi = _Rect<float>(0.0f, 0.0f, static_cast<float>(canvas.width),
                                static_cast<float>(canvas.height));
    settings.outputSize = canvas;
    layer->setTransform(settings);
  }
  layer->setNeedProcessing(true);
  if (imageLayer && updateCallback_) imageLayer->setUpdateCallback(updateCallback_);
  auto position = layers_.begin();
  std::advance(position, static_cast<long>(std::min(index, layers_.size())));
  layers_.insert(position, std::move(layer));
  validateLayers();
}

void ImageProcessor::removeLayer(const std::shared_ptr<BaseLayer>& layer) {
  const auto found = find(layer);
  if (!layer || found == layers_.end()) {
    VORN_LOG_FAILURE("Can't remove layer! There is no such layer in ImageProcessor's layers pool");
    return;
  }
  layers_.erase(found);
  // An empty stack has no canvas; the next document starts from a clean engine.
  if (layers_.empty()) {
    canvas_ = {};
    needsClear_ = true;
  }
  validateLayers();
}

void ImageProcessor::moveLayer(const std::shared_ptr<BaseLayer>& layer, std::size_t newIndex) {
  const auto found = find(layer);
  if (!layer || found == layers_.end()) {
    VORN_LOG_FAILURE("Can't move layer! There is no such layer in ImageProcessor's layers pool");
    return;
  }
  std::shared_ptr<BaseLayer> moved = *found;
  layers_.erase(found);
  auto position = layers_.begin();
  std::advance(position, static_cast<long>(std::min(newIndex, layers_.size())));
  layers_.insert(position, std::move(moved));
  validateLayers();
}

std::shared_ptr<BaseLayer> ImageProcessor::layerAtIndex(std::size_t index) const {
  if (index >= layers_.size()) {
    VORN_LOG_FAILURE("Index is out of bounds!");
    return {};
  }
  return *std::next(layers_.begin(), static_cast<long>(index));
}

int ImageProcessor::layerIndex(std::shared_ptr<const BaseLayer> layer) const {
  int index = 0;
  for (const std::shared_ptr<BaseLayer>& l : layers_) {
    if (l == layer) return index;
    ++index;
  }
  return -1;
}

std::shared_ptr<ImageLayer> ImageProcessor::convertLayerAtIndexToImageLayer(
    std::size_t index, std::shared_ptr<Image> image) {
  if (index >= layers_.size()) {
    VORN_LOG_FAILURE("Index is out of bounds!");
    return {};
  }
  const auto position = std::next(layers_.begin(), static_cast<long>(index));
  const std::shared_ptr<BaseLayer> layer = *position;
  switch (layer->type()) {
    case kAdjustmentLayer: {
      const auto adjustment = std::static_pointer_cast<AdjustmentLayer>(layer);
      if (!image && adjustment->getBaseImageLayer())
        image = adjustment->getBaseImageLayer()->getSourceImage();
      std::shared_ptr<ImageLayer> converted = convertLayer(adjustment, image);
      if (!converted) return {};
      converted->setNeedProcessing(true);
      *position = converted;
      validateLayers();
      return converted;
    }
    case kImageLayer:
      VORN_LOG_FAILURE("Layer is already Image");
      return std::static_pointer_cast<ImageLayer>(layer);
  }
  VORN_LOG_FAILURE("Undefined layer type");
  VORN_LOG_FAILURE("Very bad vorn using#3!");
  return {};
}

std::shared_ptr<AdjustmentLayer> ImageProcessor::convertLayerAtIndexToAdjustmentLayer(
    std::size_t index) {
  if (index >= layers_.size()) {
    VORN_LOG_FAILURE("Index is out of bounds!");
    return {};
  }
  const auto position = std::next(layers_.begin(), static_cast<long>(index));
  const std::shared_ptr<BaseLayer> layer = *position;
  switch (layer->type()) {
    case kImageLayer: {
      std::shared_ptr<AdjustmentLayer> converted =
          convertLayer(std::static_pointer_cast<const ImageLayer>(layer));
      if (!converted) return {};
      converted->setNeedProcessing(true);
      *position = converted;
      validateLayers();
      return converted;
    }
    case kAdjustmentLayer:
      VORN_LOG_FAILURE("Layer is already Adjustment");
      return std::static_pointer_cast<AdjustmentLayer>(layer);
  }
  VORN_LOG_FAILURE("Undefined layer type");
  return {};
}

std::vector<std::vector<Parameter>> ImageProcessor::getLayerParameters(std::size_t index) {
  if (index >= layers_.size()) {
    VORN_LOG_FAILURE("Incorrect idx");
    return {};
  }
  const auto adjustment = std::dynamic_pointer_cast<AdjustmentLayer>(layerAtIndex(index));
  if (!adjustment) {
    VORN_LOG_FAILURE("Itsn't a Adjustment layer");
    return {};
  }
  return adjustment->getEffectsParameters();
}

void ImageProcessor::validateLayers() {
  std::shared_ptr<ImageLayer> below;
  for (const std::shared_ptr<BaseLayer>& layer : layers_) {
    adjustMaskSizeForLayer(layer);
    if (auto image = std::dynamic_pointer_cast<ImageLayer>(layer))
      below = image;
    else if (auto adjustment = std::dynamic_pointer_cast<AdjustmentLayer>(layer))
      adjustment->setBaseImageLayer(below);
  }
}

void ImageProcessor::adjustMaskSizeForLayer(const std::shared_ptr<BaseLayer>& layer) {
  if (!layer || !layer->hasMask()) return;
  // A mask lives in layer pixels: the source of an image layer, the canvas otherwise.
  const auto image = std::dynamic_pointer_cast<ImageLayer>(layer);
  const _Size<int> target = image ? image->getSourceImage()->size() : canvasSize();
  const std::shared_ptr<MaskImage> mask = layer->mask();
  if (target.width < 1 || target.height < 1 || mask->size() == target) return;
  std::shared_ptr<_ImageData<float>> resized = mask->resize(target);
  if (!resized) {
    VORN_LOG_FAILURE("Could not resize the mask to the layer; it is used as it is");
    return;
  }
  layer->setMask(std::make_shared<MaskImage>(std::move(*resized)));
}

std::shared_ptr<ImageLayer> ImageProcessor::bottomImageLayer() const {
  for (const std::shared_ptr<BaseLayer>& layer : layers_)
    if (auto image = std::dynamic_pointer_cast<ImageLayer>(layer)) return image;
  return {};
}

_Size<int> ImageProcessor::canvasSize() const {
  const std::shared_ptr<ImageLayer> bottom = bottomImageLayer();
  return bottom ? bottom->getSourceImage()->size() : canvas_;
}

_Size<int> ImageProcessor::thumbSize(bool applyCrop) const {
  const CropDescription none;
  const bool cropped =
      !isFloatEqual(crop_.rotation, none.rotation) || crop_.cropRect != none.cropRect;
  return applyCrop && cropped ? crop_.cropRect.size() : canvasSize();
}

_Size<int> ImageProcessor::displayFrameSize(bool applyCrop) const {
  return applyCrop && crop_ != CropDescription() ? crop_.cropRect.size()
                                                 : uprightSize(orientation_, canvasSize());
}

void ImageProcessor::setImageOrientation(int orientation) {
  if (orientation < 1 || orientation > 8) {
    VORN_LOG_FAILURE("Incorrect image orientation! It must be 1..8; the old one stays");
    return;
  }
  orientation_ = orientation;
}

void ImageProcessor::applyScaleToCropDescription(const _Point<float>& scale) {
  const auto scaled = [](int v, float s) {
    return static_cast<int>(std::lround(static_cast<float>(v) * s));
  };
  _Rect<int>& r = crop_.cropRect;
  r = _Rect<int>(scaled(r.x, scale.x), scaled(r.y, scale.y), scaled(r.width, scale.x),
                 scaled(r.height, scale.y));
}

bool ImageProcessor::applyScaleToImageLayerTransformSettings(const _Point<float>& scale,
                                                             std::shared_ptr<ImageLayer> layer,
                                                             bool keepCanvas,
                                                             const AffineTransform& transform) {
  if (!layer || !std::isfinite(scale.x) || !std::isfinite(scale.y) || scale.x <= 0.0f ||
      scale.y <= 0.0f) {
    VORN_LOG_FAILURE("Could not scale transform");
    return false;
  }
  ImageTransformSettings settings = layer->transformSettings();
  AffineTransform placed = settings.layerToCanvas;
  placed.append(transform);
  placed.append(AffineTransform(scale.x, 0.0f, 0.0f, scale.y, 0.0f, 0.0f));
  AffineTransform inverse = placed;
  const bool finite = std::isfinite(placed.a) && std::isfinite(placed.b) &&
                      std::isfinite(placed.c) && std::isfinite(placed.d) &&
                      std::isfinite(placed.tx) && std::isfinite(placed.ty);
  if (!finite || !inverse.invert()) {
    VORN_LOG_FAILURE("Could not scale transform");
    return false;
  }
  settings.layerToCanvas = placed;
  if (!keepCanvas) {
    settings.canvasSize = _Size<int>(
        static_cast<int>(std::lround(static_cast<float>(settings.canvasSize.width) * scale.x)),
        static_cast<int>(std::lround(static_cast<float>(settings.canvasSize.height) * scale.y)));
  }
  layer->setTransform(settings);
  return true;
}

void ImageProcessor::migrateFromCanvasSize(const _Size<int>& oldCanvas) {
  const _Size<int> canvas = canvasSize();
  if (oldCanvas.width < 1 || oldCanvas.height < 1 || canvas.width < 1 || canvas.height < 1) {
    VORN_LOG_FAILURE("Both canvas sizes must be positive");
    return;
  }
  const _Point<float> scale(
      static_cast<float>(canvas.width) / static_cast<float>(oldCanvas.width),
      static_cast<float>(canvas.height) / static_cast<float>(oldCanvas.height));
  applyScaleToCropDescription(scale);
  // The bottom image layer defines the canvas, so only the layers placed over it move.
  const std::shared_ptr<ImageLayer> bottom = bottomImageLayer();
  for (const std::shared_ptr<BaseLayer>& layer : layers_) {
    auto image = std::dynamic_pointer_cast<ImageLayer>(layer);
    if (image && image != bottom)
      applyScaleToImageLayerTransformSettings(scale, image, true, AffineTransform());
  }
}

void ImageProcessor::setUpdateCallback(std::function<void()> callback) {
  updateCallback_ = std::move(callback);
  for (const std::shared_ptr<BaseLayer>& layer : layers_)
    if (auto image = std::dynamic_pointer_cast<ImageLayer>(layer))
      image->setUpdateCallback(updateCallback_);
}

std::shared_ptr<Image> ImageProcessor::getOriginalImage() const {
  const std::shared_ptr<ImageLayer> bottom = bottomImageLayer();
  return bottom ? bottom->getSourceImage() : nullptr;
}

ImageLayer::Frame ImageProcessor::getOriginalThumbnail() {
  const std::shared_ptr<ImageLayer> bottom = bottomImageLayer();
  return bottom ? bottom->getSourceThumbnail() : nullptr;
}

ImageLayer::Frame ImageProcessor::getOriginalImageWithRawDevelop(bool thumbnail,
                                                                 bool lensCorrection) {
  const std::shared_ptr<ImageLayer> bottom = bottomImageLayer();
  if (!bottom) return {};
  if (lensCorrection)
    return thumbnail ? bottom->getWorkingThumbnailWithLensCorrection()
                     : bottom->getWorkingImageWithLensCorrection();
  return thumbnail ? bottom->getWorkingThumbnailWithRawDevelop()
                   : bottom->getWorkingImageWithRawDevelop();
}

void ImageProcessor::clearCache() {
  engine_->reset();
  for (const std::shared_ptr<BaseLayer>& layer : layers_) layer->clearCache();
}

std::shared_ptr<const ImageDataRGBf> ImageProcessor::getLastResultThumbnail() {
  if (!lastResultThumbnail_ && lastResult_ && lastThumbSize_.width > 0) {
    const int width = std::max(1, std::min(lastThumbSize_.width / 4, 120));
    const int height =
        std::max(1, static_cast<int>(std::lround(static_cast<double>(width) * lastResult_->height /
                                                 lastResult_->width)));
    lastResultThumbnail_ = lastResult_->thumbnail(_Size<int>(width, height));
  }
  return lastResultThumbnail_;
}

std::uint64_t ImageProcessor::renderPeakBytes() const {
  return engine_->peakBytes();
}

void ImageProcessor::clearSelf() {
  pool_.clear();
  lastResult_.reset();
  presented_.reset();
  lastResultThumbnail_.reset();
  needsClear_ = false;
}

}  // namespace vorn
