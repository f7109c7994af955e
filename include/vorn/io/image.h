#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "vorn/core/affine_transform.h"
#include "vorn/core/image_data.h"
#include "vorn/io/image_metadata.h"

namespace vorn {

using ImageFrame = _ImageData<PixelRGB<float>>;
using ConstImageFrame = std::shared_ptr<const ImageFrame>;

/// Result codes of every open call; decoders may add their own values.
enum ImageReaderErrorCode : std::int32_t {
  kImageReaderOk = 0,
  kImageReaderFailed = 4,     ///< missing, unreadable or unsupported file
  kImageReaderCancelled = 5,  ///< cancelled, or the task id was already registered
  kImageReaderCorrupt = 6,    ///< the decoder rejected the file's data
  kImageReaderTooLarge = 7,   ///< more pixels than the configured limit
};

/// Flags passed through every open call.
enum ImageReaderOpenFlag : std::int32_t {
  kOpenDefault = 0,
  kOpenInProcess =
      97,  ///< decode raw files in this process even when the out-of-process loader is on
};

/// How lens distortion of the source is corrected.
enum class DistortionCorrectionType : std::int32_t { None = 0, Auto = 1, Profile = 2 };

/// Told (on a loader thread) that a better frame is available.
using Listener = std::function<void()>;

/// What analysis found in a source (filled by the analysis code; empty until then).
struct ImageDetection {
  std::vector<_Rect<int>> faces;
  bool hasSky = false;
};

/// Raw side-results computed after decoding (auto tone, lens corrections).
class AdditionalRawMetadata;

/// Thrown by ImageSource's constructor for missing arguments.
class ImageSourceException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Pixels of an opened photo. This base holds a finished frame; raw sources deliver theirs later.
class ImageSource {
 public:
  /// Throws ImageSourceException("imageData nullptr", "metadata nullptr", or both joined by
  /// " and ") for missing arguments.
  ImageSource(ConstImageFrame imageData, std::shared_ptr<const ImageMetadata> metadata);
  virtual ~ImageSource();
  ImageSource(const ImageSource&) = delete;
  ImageSource& operator=(const ImageSource&) = delete;

  /// The best frame there is now.
  virtual ConstImageFrame getImageData() const;
  /// The rectangle clipped to the image.
  virtual _Rect<int> adjustRect(const _Rect<int>& rect) const;
  /// rect of the working image resampled to size ((0, 0) keeps the rect's size).
  virtual std::shared_ptr<ImageFrame> createImage(const _Size<int>& size, const _Rect<int>& rect,
                                                  bool highQuality) const;
  /// The full-size frame, waiting for it where it is still loading.
  virtual ConstImageFrame fullImage();
  /// The frame to work on: the best frame through develop().
  virtual ConstImageFrame workingImage();
  virtual bool loadComplete() const;
  virtual void waitForFullRaw();
  virtual DistortionCorrectionType distortionCorrectionType() const;
  virtual std::shared_ptr<ColorProfile> colorProfile() const;
  virtual std::shared_ptr<const ImageMetadata> metadata() const;
  /// Adds a listener told when a better frame arrives (never called for a finished frame).
  virtual void setUpdateCallback(Listener listener) const;
  virtual _Size<int> size() const;
  virtual ImageLoadState status() const;

  const ImageDetection& detection() const { return detection_; }
  /// Empty for sources that are not raw.
  virtual std::shared_ptr<AdditionalRawMetadata> additionalRawMetadata() const { return {}; }

 protected:
  /// For sources whose frames arrive later.
  explicit ImageSource(std::shared_ptr<const ImageMetadata> metadata);
  virtual void waitQuarter();
  /// The frame to show for a decoded one; the plain source shows it as is.
  virtual ConstImageFrame develop(ConstImageFrame frame);
  void setImageData(ConstImageFrame frame);

  mutable std::mutex frameMutex_;
  ConstImageFrame imageData_;
  std::shared_ptr<const ImageMetadata> metadata_;
  ImageDetection detection_;
};

/// An opened photo, as the editor holds it.
class BaseImage {
 public:
  /// Throws std::invalid_argument("[BaseImage::BaseImage] invalid parameter _imageSource").
  explicit BaseImage(std::shared_ptr<ImageSource> source);
  virtual ~BaseImage();

  int width() const { return size().width; }
  int height() const { return size().height; }
  _Size<int> size() const;
  _Rect<int> rect() const;
  ImageLoadState status() const;
  std::shared_ptr<const ImageMetadata> metadata() const;
  std::shared_ptr<ColorProfile> colorProfile() const;
  DistortionCorrectionType distortionCorrectionType() const;
  const std::shared_ptr<ImageSource>& source() const { return source_; }

 protected:
  std::shared_ptr<ImageSource> source_;
};

class Image : public BaseImage {
 public:
  using BaseImage::BaseImage;

  ConstImageFrame workingImage();
  std::shared_ptr<ImageFrame> imageData(_Size<int> size, _Rect<int> rect, bool highQuality);
  std::shared_ptr<ImageFrame> resize(_Size<int> size, const _Rect<int>& rect, bool highQuality);
  std::shared_ptr<ImageFrame> copy(const _Rect<int>& rect);
  void copyAffineTransformedTo(std::shared_ptr<ImageFrame> destination, _Rect<float> srcRect,
                               const AffineTransform& transform, _Rect<int> dstRoi);
  void setUpdateCallback(Listener listener);
  void waitForFullRaw();
  const ImageDetection& getDetection() const;
  /// Empty for sources that are not raw.
  std::shared_ptr<AdditionalRawMetadata> getAdditionalRawMetadata() const;
};

/// What every open call returns.
struct ImageResult {
  std::shared_ptr<Image> image;
  ImageReaderErrorCode errorCode = kImageReaderFailed;
};

}  // namespace vorn
