#include "vorn/pipeline/image_layer.h"

#include <mutex>
#include <stdexcept>

#include "core/log_failure.h"
#include "vorn/pipeline/adjustment_layer.h"

namespace vorn {

/// What the image's listener shares with the layer. The listener runs on a loader thread and
/// may outlive the layer, so it holds this weakly and never the layer itself.
struct ImageLayer::FrameWatch {
  std::mutex mutex;
  bool stale = false;
  Listener callback;
};

namespace {

std::shared_ptr<Image> requireImage(std::shared_ptr<Image> image) {
  if (!image) throw std::invalid_argument("[ImageLayer::ImageLayer] invalid parameter image");
  return image;
}

std::shared_ptr<MaskImage> copyOf(const std::shared_ptr<MaskImage>& mask) {
  return mask ? std::make_shared<MaskImage>(*mask) : nullptr;
}

}  // namespace

ImageLayer::ImageLayer(std::shared_ptr<Image> image) : image_(requireImage(std::move(image))) {
  BaseLayer::setTransform(ImageTransformSettings::forCanvas(image_->size()));
  watchImage();
}

ImageLayer::ImageLayer(const ImageLayer& other) : ImageLayer(other, other.image_, true) {}

ImageLayer::ImageLayer(const ImageLayer& other, std::shared_ptr<Image> image)
    : ImageLayer(other, requireImage(std::move(image)), false) {}

ImageLayer::ImageLayer(const ImageLayer& other, std::shared_ptr<Image> image, bool sameImage)
    : BaseLayer(other),
      image_(std::move(image)),
      processWorkingMask_(copyOf(other.processWorkingMask_)),
      processMaskThumbnail_(copyOf(other.processMaskThumbnail_)) {
  if (other.lensLayer_)
    lensLayer_ = std::static_pointer_cast<AdjustmentLayer>(other.lensLayer_->copy());
  watchImage();
  std::scoped_lock lock(watch_->mutex, other.watch_->mutex);
  watch_->callback = other.watch_->callback;
  if (sameImage) {
    // The frames are read-only, so sharing them is as good as copying.
    working_ = other.working_;
    thumbnail_ = other.thumbnail_;
    reduced_ = other.reduced_;
    watch_->stale = other.watch_->stale;
  } else {
    setNeedProcessing(true);
  }
}

ImageLayer::~ImageLayer() = default;

void ImageLayer::watchImage() {
  auto watch = std::make_shared<FrameWatch>();
  if (watch_) {
    std::lock_guard lock(watch_->mutex);
    watch->callback = watch_->callback;
  }
  watch_ = watch;
  image_->setUpdateCallback([weak = std::weak_ptr<FrameWatch>(watch)] {
    const std::shared_ptr<FrameWatch> shared = weak.lock();
    if (!shared) return;
    Listener callback;
    {
      std::lock_guard lock(shared->mutex);
      shared->stale = true;
      callback = shared->callback;
    }
    if (callback) callback();
  });
}

bool ImageLayer::betterFrameLoaded() const {
  // Waiters wake before listeners are told, so the source can hold a better frame than the
  // cached one before the watch goes stale.
  return working_ && image_->status() > working_->getLoadState();
}

void ImageLayer::refreshIfStale() {
  bool stale = betterFrameLoaded();
  {
    std::lock_guard lock(watch_->mutex);
    stale = stale || watch_->stale;
    watch_->stale = false;
  }
  if (stale) resetCachedImages();
}

bool ImageLayer::isNeedBlend() const {
  return BaseLayer::isNeedBlend() || !transformSettings().layerCoversCanvas(image_->size());
}

bool ImageLayer::isNeedProcessing() {
  if (BaseLayer::isNeedProcessing() || betterFrameLoaded()) return true;
  std::lock_guard lock(watch_->mutex);
  return watch_->stale;
}

std::shared_ptr<BaseLayer> ImageLayer::copy() const {
  return std::make_shared<ImageLayer>(*this);
}

void ImageLayer::setTransform(const ImageTransformSettings& settings) {
  if (settings == transformSettings()) return;
  BaseLayer::setTransform(settings);
  processWorkingMask_.reset();
  processMaskThumbnail_.reset();
  if (lensLayer_) lensLayer_->setTransform(settings);
}

void ImageLayer::clearCache() {
  BaseLayer::clearCache();
  resetCachedImages();
}

void ImageLayer::setImage(std::shared_ptr<Image> image, bool keepTransform) {
  if (!image) {
    VORN_LOG_FAILURE("No image; the layer keeps its image");
    return;
  }
  image_ = std::move(image);
  resetCachedImages();
  reduced_ = {};
  watchImage();
  if (!keepTransform) BaseLayer::setTransform(ImageTransformSettings::forCanvas(image_->size()));
  setNeedProcessing(true);
}

ImageLayer::Frame ImageLayer::getWorkingImage() {
  refreshIfStale();
  // The flag is cleared before the frame is fetched, so a frame arriving meanwhile marks the
  // watch again and the next call fetches it.
  if (!working_) working_ = image_->workingImage();
  return working_;
}

ImageLayer::Frame ImageLayer::cachedThumbnail() {
  const Frame working = getWorkingImage();
  if (!thumbnail_ && working) thumbnail_ = working->thumbnail();
  return thumbnail_;
}

ImageLayer::Frame ImageLayer::getSourceThumbnail() {
  return cachedThumbnail();
}
ImageLayer::Frame ImageLayer::getWorkingImageWithRawDevelop() {
  return getWorkingImage();
}
ImageLayer::Frame ImageLayer::getWorkingThumbnailWithRawDevelop() {
  return cachedThumbnail();
}
ImageLayer::Frame ImageLayer::getWorkingImageWithLensCorrection() {
  return getWorkingImage();
}
ImageLayer::Frame ImageLayer::getWorkingThumbnailWithLensCorrection() {
  return cachedThumbnail();
}
ImageLayer::Frame ImageLayer::getWorkingImageForCompare() {
  return getWorkingImage();
}

ImageLayer::Frame ImageLayer::getReducedWorkingImage(int factor) {
  if (factor != 2 && factor != 4) return {};
  const Frame frame = getWorkingImage();
  if (!frame || frame->empty() || frame->width % factor != 0 || frame->height % factor != 0)
    return {};
  Reduced& kept = reduced_[factor == 2 ? 0 : 1];
  if (kept.image && kept.from.lock() == frame) return kept.image;
  kept.image = frame->resize(_Size<int>(frame->width / factor, frame->height / factor));
  kept.from = frame;
  return kept.image;
}

void ImageLayer::resetCachedImages() {
  working_.reset();
  thumbnail_.reset();
}

void ImageLayer::setProcessWorkingMask(std::shared_ptr<MaskImage> mask) {
  processWorkingMask_ = std::move(mask);
}

void ImageLayer::setProcessMaskThumbnail(std::shared_ptr<MaskImage> mask) {
  processMaskThumbnail_ = std::move(mask);
}

void ImageLayer::setLensCorrectionLayer(std::shared_ptr<AdjustmentLayer> layer) {
  lensLayer_ = std::move(layer);
  setNeedProcessing(true);
}

void ImageLayer::setUpdateCallback(Listener listener) {
  std::lock_guard lock(watch_->mutex);
  watch_->callback = std::move(listener);
}

ImageLoadState ImageLayer::getLoadState() const {
  return image_->status();
}

DistortionCorrectionType ImageLayer::distortionCorrectionType() const {
  return image_->distortionCorrectionType();
}

bool ImageLayer::hasSky() const {
  return image_->getDetection().hasSky;
}

}  // namespace vorn
