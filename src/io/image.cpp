#include "vorn/io/image.h"

#include <algorithm>

#include "io/memory_limit.h"

namespace vorn {
namespace {

std::string missingArguments(bool noData, bool noMetadata) {
  std::string text;
  if (noData) text = "imageData nullptr";
  if (noMetadata) text += (text.empty() ? "" : " and ") + std::string("metadata nullptr");
  return text;
}

}  // namespace

ImageSource::ImageSource(ConstImageFrame imageData, std::shared_ptr<const ImageMetadata> metadata)
    : imageData_(std::move(imageData)), metadata_(std::move(metadata)) {
  if (!imageData_ || !metadata_)
    throw ImageSourceException(missingArguments(!imageData_, !metadata_));
}

ImageSource::ImageSource(std::shared_ptr<const ImageMetadata> metadata)
    : metadata_(std::move(metadata)) {
  if (!metadata_) throw ImageSourceException(missingArguments(false, true));
}

ImageSource::~ImageSource() = default;

ConstImageFrame ImageSource::getImageData() const {
  std::lock_guard lock(frameMutex_);
  return imageData_;
}

void ImageSource::setImageData(ConstImageFrame frame) {
  std::lock_guard lock(frameMutex_);
  imageData_ = std::move(frame);
}

_Rect<int> ImageSource::adjustRect(const _Rect<int>& rect) const {
  const _Size<int> whole = size();
  if (rect.isZero()) return _Rect<int>(0, 0, whole.width, whole.height);
  const int left = std::clamp(rect.x, 0, whole.width);
  const int top = std::clamp(rect.y, 0, whole.height);
  const int right = std::clamp(rect.x + std::max(rect.width, 0), left, whole.width);
  const int bottom = std::clamp(rect.y + std::max(rect.height, 0), top, whole.height);
  return _Rect<int>(left, top, right - left, bottom - top);
}

std::shared_ptr<ImageFrame> ImageSource::createImage(const _Size<int>& size, const _Rect<int>& rect,
                                                     bool highQuality) const {
  const ConstImageFrame frame = const_cast<ImageSource*>(this)->workingImage();
  if (!frame) return {};
  const _Rect<int> region = adjustRect(rect);
  if (region.width < 1 || region.height < 1) return {};
  const _Size<int> target = (size.width == 0 && size.height == 0) ? region.size() : size;
  if (!detail::frameAllocationAllowed(target, "the resized image")) return {};
  if (target == region.size()) return frame->copy(region);
  return frame->resize(target, region, highQuality);
}

ConstImageFrame ImageSource::fullImage() {
  waitForFullRaw();
  return getImageData();
}

ConstImageFrame ImageSource::workingImage() {
  return develop(getImageData());
}

bool ImageSource::loadComplete() const {
  return status() == FULL_LOADED;
}

void ImageSource::waitForFullRaw() {}

void ImageSource::waitQuarter() {}

ConstImageFrame ImageSource::develop(ConstImageFrame frame) {
  return frame;
}

DistortionCorrectionType ImageSource::distortionCorrectionType() const {
  return DistortionCorrectionType::None;
}

std::shared_ptr<ColorProfile> ImageSource::colorProfile() const {
  const ConstImageFrame frame = getImageData();
  return frame ? frame->colorProfile : nullptr;
}

std::shared_ptr<const ImageMetadata> ImageSource::metadata() const {
  return metadata_;
}

// A finished frame never gets better, so its listeners are never called.
void ImageSource::setUpdateCallback(Listener) const {}

_Size<int> ImageSource::size() const {
  const ConstImageFrame frame = getImageData();
  return frame ? frame->size() : _Size<int>();
}

ImageLoadState ImageSource::status() const {
  const ConstImageFrame frame = getImageData();
  return frame ? frame->getLoadState() : LOAD_ERROR;
}

BaseImage::BaseImage(std::shared_ptr<ImageSource> source) : source_(std::move(source)) {
  if (!source_)
    throw std::invalid_argument("[BaseImage::BaseImage] invalid parameter _imageSource");
}

BaseImage::~BaseImage() = default;

_Size<int> BaseImage::size() const {
  return source_->size();
}
_Rect<int> BaseImage::rect() const {
  const _Size<int> s = size();
  return _Rect<int>(0, 0, s.width, s.height);
}
ImageLoadState BaseImage::status() const {
  return source_->status();
}
std::shared_ptr<const ImageMetadata> BaseImage::metadata() const {
  return source_->metadata();
}
std::shared_ptr<ColorProfile> BaseImage::colorProfile() const {
  return source_->colorProfile();
}
DistortionCorrectionType BaseImage::distortionCorrectionType() const {
  return source_->distortionCorrectionType();
}

ConstImageFrame Image::workingImage() {
  return source_->workingImage();
}

std::shared_ptr<ImageFrame> Image::imageData(_Size<int> size, _Rect<int> rect, bool highQuality) {
  return source_->createImage(size, rect, highQuality);
}

std::shared_ptr<ImageFrame> Image::resize(_Size<int> size, const _Rect<int>& rect,
                                          bool highQuality) {
  return source_->createImage(size, rect, highQuality);
}

std::shared_ptr<ImageFrame> Image::copy(const _Rect<int>& rect) {
  const ConstImageFrame frame = source_->workingImage();
  return frame ? frame->copy(rect) : nullptr;
}

void Image::copyAffineTransformedTo(std::shared_ptr<ImageFrame> destination, _Rect<float> srcRect,
                                    const AffineTransform& transform, _Rect<int> dstRoi) {
  const ConstImageFrame frame = source_->workingImage();
  if (frame) frame->copyAffineTransformedTo(destination, srcRect, transform, dstRoi);
}

void Image::setUpdateCallback(Listener listener) {
  source_->setUpdateCallback(std::move(listener));
}
void Image::waitForFullRaw() {
  source_->waitForFullRaw();
}
const ImageDetection& Image::getDetection() const {
  return source_->detection();
}
std::shared_ptr<AdditionalRawMetadata> Image::getAdditionalRawMetadata() const {
  return source_->additionalRawMetadata();
}

}  // namespace vorn
