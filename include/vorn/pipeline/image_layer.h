#pragma once

#include <array>
#include <memory>

#include "vorn/core/image_data.h"
#include "vorn/core/mask_image.h"
#include "vorn/io/image.h"
#include "vorn/pipeline/base_layer.h"

namespace vorn {

class AdjustmentLayer;

/// A layer that shows a photo. Its working image follows the best frame the photo's source has:
/// a raw file's quarter frame first, its full frame once loaded. Until raw development and lens
/// correction have effects of their own, the "with raw develop" and "with lens correction"
/// images are the working image itself.
class ImageLayer : public BaseLayer {
 public:
  using Frame = std::shared_ptr<const _ImageData<PixelRGB<float>>>;

  /// Placed over a canvas of the image's own size; std::invalid_argument for a null image.
  explicit ImageLayer(std::shared_ptr<Image> image);
  /// Deep: mask, process masks and the linked lens-correction layer are copied; the image and
  /// its read-only frames are shared.
  ImageLayer(const ImageLayer& other);
  /// A copy that shows `image` instead (std::invalid_argument when null), placement kept.
  ImageLayer(const ImageLayer& other, std::shared_ptr<Image> image);
  ImageLayer& operator=(const ImageLayer&) = delete;

  /// A new placement also drops the process masks (made for the old one) and moves the linked
  /// lens-correction layer with it.
  void setTransform(const ImageTransformSettings& settings) override;
  /// The base rules first; otherwise whether the image leaves part of the canvas uncovered,
  /// where the layer below must show through.
  bool isNeedBlend() const override;
  /// Also true while a better frame has arrived and not been fetched yet.
  bool isNeedProcessing() override;
  LayerType type() const override { return kImageLayer; }
  std::shared_ptr<BaseLayer> copy() const override;
  void clearCache() override;
  ~ImageLayer() override;

  std::shared_ptr<Image> getSourceImage() const { return image_; }
  /// Shows another image; keepTransform false places it over a canvas of its own size instead
  /// of keeping the current placement. A null image is refused with a log line.
  void setImage(std::shared_ptr<Image> image, bool keepTransform);
  /// A small copy of the working image (min(width / 4, 120) wide).
  Frame getSourceThumbnail();

  Frame getWorkingImage();
  /// The working image shrunk by `factor` (2 or 4) as an exact area average, made once per
  /// working frame and kept across clearCache, being the frame's rather than a render's; empty
  /// for another factor or when a side of the frame is not a multiple of it.
  Frame getReducedWorkingImage(int factor);
  Frame getWorkingImageWithRawDevelop();
  Frame getWorkingThumbnailWithRawDevelop();
  Frame getWorkingImageWithLensCorrection();
  Frame getWorkingThumbnailWithLensCorrection();
  /// The image as loaded, for before/after comparison.
  Frame getWorkingImageForCompare();
  void resetCachedImages();

  std::shared_ptr<MaskImage> processWorkingMask() const { return processWorkingMask_; }
  std::shared_ptr<MaskImage> processMaskThumbnail() const { return processMaskThumbnail_; }
  void setProcessWorkingMask(std::shared_ptr<MaskImage> mask);
  void setProcessMaskThumbnail(std::shared_ptr<MaskImage> mask);

  /// The layer is owned: a copy of this layer gets a copy of it.
  void setLensCorrectionLayer(std::shared_ptr<AdjustmentLayer> layer);
  std::shared_ptr<AdjustmentLayer> getLensCorrectionLayer() const { return lensLayer_; }

  /// Called on a loader thread each time a better frame arrives; replaces the previous one.
  void setUpdateCallback(Listener listener);
  ImageLoadState getLoadState() const;
  DistortionCorrectionType distortionCorrectionType() const;
  bool hasSky() const;

 private:
  struct FrameWatch;

  /// The copy constructors' common body; sameImage also shares the cached frames.
  ImageLayer(const ImageLayer& other, std::shared_ptr<Image> image, bool sameImage);

  /// Registers a listener on image_ that marks a new watch stale, keeping the callback.
  void watchImage();
  /// Whether the source holds a better frame than the cached working image.
  bool betterFrameLoaded() const;
  /// Drops the cached frames when a better one has arrived since they were taken.
  void refreshIfStale();
  Frame cachedThumbnail();

  std::shared_ptr<Image> image_;
  std::shared_ptr<FrameWatch> watch_;
  Frame working_;
  Frame thumbnail_;
  std::shared_ptr<MaskImage> processWorkingMask_;
  std::shared_ptr<MaskImage> processMaskThumbnail_;
  std::shared_ptr<AdjustmentLayer> lensLayer_;
  /// A reduced copy and the frame it was made from (not kept alive for it).
  struct Reduced {
    std::weak_ptr<const _ImageData<PixelRGB<float>>> from;
    Frame image;
  };
  /// By factor 2 and 4.
  std::array<Reduced, 2> reduced_;
};

}  // namespace vorn
