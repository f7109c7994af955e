#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vorn/core/affine_transform.h"
#include "vorn/core/crop_description.h"
#include "vorn/core/geometry.h"
#include "vorn/core/image_data.h"
#include "vorn/effects/parameter.h"
#include "vorn/io/image.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/base_layer.h"
#include "vorn/pipeline/image_layer.h"

namespace vorn {

class DisplayGeometry;
class ImageProcessorComputeUnit;

/// What one render of the layer stack produces and how.
struct ImageProcessorSettings {
  /// The region rendered, in original-image pixels; empty means the whole image.
  _Rect<float> processingROI;
  /// The part of the output the host shows; the post-processing overlays are drawn there.
  _Rect<int> finalRect;
  /// The size the ROI is rendered at; empty means the original size.
  _Size<int> processingSize;
  bool applyCrop = false;
  bool previewQuality = false;
  bool useCache = true;
  bool exportMode = false;
  bool lensCorrectionPreview = false;
  /// Set (from any thread) to stop the render; may be empty.
  std::shared_ptr<bool> stopProcessing;

  /// One line per field in declaration order, then whether `original` found sky.
  std::string debugDescription(const std::shared_ptr<Image>& original) const;
};

/// How much a low-resolution render shrinks the frame, read from the settings store.
struct LowResScaleFactor {
  float retina;
  float nonretina;
  std::uint64_t minimalSideLength;
};

/// "LowResScaleFactor.retina" (0.6), ".nonreting" (0.85) and ".minimalSideLength" (all bits).
LowResScaleFactor lowResScaleFactor();

/// Which clipping overlay the post-processing draws over the result.
enum OverlayPixelsType : std::int32_t {
  kOverlayPixelsNone = 0,
  /// Pure black and pure white pixels shown as such, the rest grey.
  kOverlayPixelsBlackAndWhite = 1,
};

/// Renders a stack of layers (bottom first) into one image, reusing what earlier renders
/// computed when only the top of the stack changed.
class ImageProcessor {
 public:
  using LayerList = std::list<std::shared_ptr<BaseLayer>>;

  ImageProcessor();
  /// Member by member: the layers and results are shared, the render cache is not.
  ImageProcessor(const ImageProcessor& other);
  ImageProcessor& operator=(const ImageProcessor&) = delete;
  ~ImageProcessor();

  /// Inserts before `index` (past the end appends); the first image layer defines the canvas.
  void addLayer(std::shared_ptr<BaseLayer> layer, std::size_t index);
  void removeLayer(const std::shared_ptr<BaseLayer>& layer);
  void moveLayer(const std::shared_ptr<BaseLayer>& layer, std::size_t newIndex);
  std::shared_ptr<BaseLayer> layerAtIndex(std::size_t index) const;
  /// -1 when absent.
  int layerIndex(std::shared_ptr<const BaseLayer> layer) const;
  std::size_t getLayersCount() const { return layers_.size(); }
  const LayerList& layers() const { return layers_; }

  /// The adjustment layer at index becomes an image layer showing `image` (or its base image
  /// layer's image when empty); an image layer is returned as it is.
  std::shared_ptr<ImageLayer> convertLayerAtIndexToImageLayer(std::size_t index,
                                                              std::shared_ptr<Image> image);
  std::shared_ptr<AdjustmentLayer> convertLayerAtIndexToAdjustmentLayer(std::size_t index);
  std::vector<std::vector<Parameter>> getLayerParameters(std::size_t index);

  /// Masks sized to their layers, adjustment layers linked to the nearest image layer below.
  void validateLayers();
  /// Resamples the mask to the layer's pixels (the canvas for an adjustment layer, the source
  /// for an image layer) when its size differs.
  void adjustMaskSizeForLayer(const std::shared_ptr<BaseLayer>& layer);

  /// The bottom image layer's source size; (0, 0) without one.
  _Size<int> canvasSize() const;
  /// The canvas size, or with applyCrop the crop rectangle's size when a crop is set.
  _Size<int> thumbSize(bool applyCrop) const;
  /// The picture a render shows: the upright canvas, or with applyCrop the crop when one is
  /// set (its rectangle is in upright pixels).
  _Size<int> displayFrameSize(bool applyCrop) const;
  CropDescription getCropDescription() const { return crop_; }
  void setCropDescription(const CropDescription& crop) { crop_ = crop; }
  /// Scales the crop rectangle by the factors (a canvas resampled by them).
  void applyScaleToCropDescription(const _Point<float>& scale);
  /// Scales the layer's placement by the factors, after `transform`; false and a log line when
  /// the result is not invertible or not finite.
  bool applyScaleToImageLayerTransformSettings(const _Point<float>& scale,
                                               std::shared_ptr<ImageLayer> layer, bool keepCanvas,
                                               const AffineTransform& transform);
  /// A document made on a canvas of `oldCanvas`: crop and placements scaled to the current one.
  void migrateFromCanvasSize(const _Size<int>& oldCanvas);
  int getImageOrientation() const { return orientation_; }
  /// EXIF numbering 1..8; any other value is refused with a log line.
  void setImageOrientation(int orientation);
  bool showHotPixels() const { return showHotPixels_; }
  void setShowHotPixels(bool show) { showHotPixels_ = show; }
  bool showColdPixels() const { return showColdPixels_; }
  void setShowColdPixels(bool show) { showColdPixels_ = show; }
  OverlayPixelsType overlayPixelsType() const { return overlayPixelsType_; }
  void setOverlayPixelsType(OverlayPixelsType type) { overlayPixelsType_ = type; }
  std::shared_ptr<BaseLayer> getShowMaskLayer() const { return showMaskLayer_; }
  void setShowMaskLayer(std::shared_ptr<BaseLayer> layer) { showMaskLayer_ = std::move(layer); }
  /// Told when a layer's source has a better frame, so the host can render again.
  void setUpdateCallback(std::function<void()> callback);
  /// The stored update callback (empty when none is set).
  std::function<void()> update() const { return updateCallback_; }

  /// Renders the enabled layers; on failure the last results stay as they were. The result
  /// shows the part of the display frame (see displayFrameSize) the ROI maps to, at the scale
  /// processingSize / ROI per canvas axis (so with sides swapped for orientations 5..8).
  void startProcessing(ImageProcessorSettings settings);
  /// Shared with the render cache: read it, never write into it.
  std::shared_ptr<const ImageDataRGBf> getLastResult() const { return lastResult_; }
  /// Made from the last result on first request, min(thumb width / 4, 120) wide for the
  /// document's thumbSize, so a preview and a full render give thumbnails of one size.
  std::shared_ptr<const ImageDataRGBf> getLastResultThumbnail();
  /// The bottom image layer's source image.
  std::shared_ptr<Image> getOriginalImage() const;
  ImageLayer::Frame getOriginalThumbnail();
  /// The bottom image layer's developed frame, small with `thumbnail`, lens-corrected with
  /// `lensCorrection`.
  ImageLayer::Frame getOriginalImageWithRawDevelop(bool thumbnail, bool lensCorrection);
  /// The result pixels a change of layerRect (layer pixels) touches in a render of
  /// processingROI at processingSize with the crop and orientation of the layer's last render,
  /// clipped to the result.
  _Rect<int> getResultImageUpdateRectForUpdateRectInLayer(std::shared_ptr<BaseLayer> layer,
                                                          _Rect<int> layerRect,
                                                          _Rect<float> processingROI,
                                                          _Size<int> processingSize);
  /// The image layer alone (its preview) and the stack beneath it, as independent processors.
  std::pair<std::shared_ptr<ImageProcessor>, std::shared_ptr<ImageProcessor>>
  getImageLayerPreviewAndBackgroundProcessors(std::shared_ptr<const BaseLayer> layer) const;
  /// Drops every cached render result.
  void clearCache();
  /// The lens-correction layer's preview source: the stack beneath it rendered small, made
  /// before each render until the lens effect takes such an input itself.
  std::shared_ptr<const ImageDataRGBf> lensCorrectionPreviewSource(
      const std::shared_ptr<const BaseLayer>& layer) const;
  /// That small render corrected by the layer's lens effect (for the photo's camera and lens).
  std::shared_ptr<const ImageDataRGBf> lensCorrectionPreview(
      const std::shared_ptr<const BaseLayer>& layer) const;
  /// The most bytes the last render's step images held at once (shared buffers once).
  std::uint64_t renderPeakBytes() const;
  /// The lines the debug overlay drew over the last result.
  const std::vector<std::string>& debugLines() const { return lastDebugLines_; }

 private:
  bool prepareProcessing(ImageProcessorSettings& settings);
  /// The enabled layers, each fitted to the canvas, crop and orientation; roi and size come in
  /// as requested and leave as the canvas region and size the engine renders.
  LayerList prepareEnabledLayersPool(_Rect<float>& roi, _Size<int>& size, bool applyCrop);
  /// Fits every pooled layer to a render of `cells` of the display geometry.
  void fitPoolToCells(const _Rect<int>& cells, bool applyCrop);
  /// The cells the pooled effect chains read to render `cells`, limited to the canvas.
  _Rect<int> chainInputCells(_Rect<int> cells) const;
  std::shared_ptr<const _ImageData<float>> displayedMask(BaseLayer& layer) const;
  bool prepareLensCorrectionPreviews(const ImageProcessorSettings& settings);
  void postProcessing(const ImageProcessorSettings& settings, _Rect<int> finalRect);
  void drawDebugLines(const ImageProcessorSettings& settings, _Rect<int> region);
  void clearSelf();
  std::shared_ptr<ImageLayer> bottomImageLayer() const;
  LayerList::iterator find(const std::shared_ptr<const BaseLayer>& layer);

  LayerList layers_;
  LayerList pool_;
  std::shared_ptr<ImageProcessorComputeUnit> engine_;
  /// The geometry of the last prepared render and the cells the engine renders for it.
  std::shared_ptr<const DisplayGeometry> display_;
  _Rect<int> renderCells_;
  bool needsClear_ = false;
  _Size<int> canvas_;
  CropDescription crop_;
  int orientation_ = 1;
  bool showHotPixels_ = false;
  bool showColdPixels_ = false;
  OverlayPixelsType overlayPixelsType_ = kOverlayPixelsNone;
  std::shared_ptr<BaseLayer> showMaskLayer_;
  std::function<void()> updateCallback_;
  std::shared_ptr<ImageDataRGBf> lastResult_;
  /// The buffer the last turned or cut picture was written into.
  std::shared_ptr<ImageDataRGBf> presented_;
  std::shared_ptr<ImageDataRGBf> lastResultThumbnail_;
  _Size<int> lastThumbSize_;
  double lastProcessingSeconds_ = 0.0;
  double lastProcessingCpuSeconds_ = 0.0;
  std::vector<std::string> lastDebugLines_;
  std::map<const BaseLayer*, std::shared_ptr<const ImageDataRGBf>> lensPreviews_;
  /// A lens layer's corrected small render, with the effect key and source it was made from.
  struct CorrectedPreview {
    std::uint64_t key = 0;
    std::shared_ptr<const ImageDataRGBf> from;
    std::shared_ptr<const ImageDataRGBf> image;
  };
  std::map<const BaseLayer*, CorrectedPreview> lensCorrected_;
};

}  // namespace vorn
