// What the image processor draws over a finished render: the displayed mask, the clipping
// overlays and the debug lines.
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "core/log_failure.h"
#include "pipeline/display_geometry.h"
#include "pipeline/overlay_pixel_effects.h"
#include "vorn/core/data_store.h"
#include "vorn/core/memory_manager.h"
#include "vorn/effects/creative_effects.h"
#include "vorn/pipeline/blend.h"
#include "vorn/pipeline/image_processor.h"

namespace vorn {
namespace {

/// The shown mask is tinted red at half strength; the layer's own blend mode and opacity are
/// replaced by these while it is drawn, without touching the layer.
constexpr float kMaskDisplayOpacity = 1.0f;
constexpr float kMaskTint[4] = {50.0f, 255.0f, 0.0f, 0.0f};

/// Runs a point effect in place over `region` of the image.
bool runInPlace(Effect& effect, const std::shared_ptr<ImageDataRGBf>& image, _Rect<int> region) {
  EffectCallContext call(image, image, {}, region, {}, nullptr);
  return effect.processImageWrapper(call);
}

void drawMask(const std::shared_ptr<const _ImageData<float>>& mask,
              const std::shared_ptr<ImageDataRGBf>& image, _Rect<int> region) {
  if (!mask || mask->size() != image->size()) return;
  FillColorEffect fill;
  for (std::size_t i = 0; i < 4; ++i) fill.parameters()[i].setValue(kMaskTint[i]);
  const std::shared_ptr<ImageDataRGBf> tinted = image->copy(region);
  if (!tinted) return;
  // The copy holds only the region, so it is blended back through a mask of the same part.
  const _Rect<int> whole = tinted->rect();
  if (!runInPlace(fill, tinted, whole)) return;
  const std::shared_ptr<_ImageData<float>> maskPart = mask->copy(region);
  const std::shared_ptr<ImageDataRGBf> under = image->copy(region);
  if (!maskPart || !under) return;
  std::shared_ptr<ImageDataRGBf> out = under;
  blendImages(tinted, under, out, maskPart, kMaskDisplayOpacity, kBlendNormal, {});
  for (int y = 0; y < region.height; ++y)
    std::copy(out->row(y), out->row(y) + region.width, image->row(region.y + y) + region.x);
}

std::string secondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", seconds);
  return text;
}

}  // namespace

void ImageProcessor::postProcessing(const ImageProcessorSettings& settings, _Rect<int> finalRect) {
  if (!lastResult_) return;
  const _Rect<int> region = settings.finalRect.isZero() ? lastResult_->rect() : finalRect;
  if (region.width < 1 || region.height < 1) return;
  const DataStore& store = DataStore::instance();
  const bool showMask = showMaskLayer_ && showMaskLayer_->hasMask() &&
                        std::find(pool_.begin(), pool_.end(), showMaskLayer_) != pool_.end();
  const bool debug = store.getBool("DebugDrawer.enable", false);
  const bool clipping = showHotPixels_ || showColdPixels_;
  if (!showMask && !clipping && overlayPixelsType_ == kOverlayPixelsNone && !debug) return;
  // The render shares its pixels with the cache, so overlays go onto a copy.
  lastResult_ = std::make_shared<ImageDataRGBf>(*lastResult_);
  if (showMask) drawMask(displayedMask(*showMaskLayer_), lastResult_, region);
  if (overlayPixelsType_ == kOverlayPixelsBlackAndWhite) {
    BlackAndWhiteOverlayPixelsEffect overlay;
    runInPlace(overlay, lastResult_, region);
  }
  if (clipping) {
    HotAndColdPixelsEffect overlay;
    overlay.parameters()[0].setValue(showHotPixels_ ? 1.0f : 0.0f);
    overlay.parameters()[1].setValue(showColdPixels_ ? 1.0f : 0.0f);
    runInPlace(overlay, lastResult_, region);
  }
  if (debug) drawDebugLines(settings, region);
}

std::shared_ptr<const _ImageData<float>> ImageProcessor::displayedMask(BaseLayer& layer) const {
  // The mask preview covers the render's cells; the picture shown may be turned or cut.
  const std::shared_ptr<const MaskImage> mask =
      layer.maskPreviewForTransform(layer.transformSettings());
  if (!mask || !display_ || display_->isIdentity(renderCells_)) return mask;
  return display_->present(*mask, renderCells_);
}

void ImageProcessor::drawDebugLines(const ImageProcessorSettings& settings, _Rect<int> region) {
  const DataStore& store = DataStore::instance();
  std::vector<std::string> lines;
  if (store.getBool("DebugDrawer.FpsCounter.enable", false)) {
    std::string line =
        "FPS: " + secondsText(lastProcessingSeconds_ > 0.0 ? 1.0 / lastProcessingSeconds_ : 0.0);
    if (store.getBool("DebugDrawer.FpsCounter.withCPU", false) && lastProcessingSeconds_ > 0.0)
      line +=
          " CPU: " + secondsText(100.0 * lastProcessingCpuSeconds_ / lastProcessingSeconds_) + "%";
    lines.push_back(line);
  }
  if (store.getBool("DebugDrawer.ProcessingTime", false))
    lines.push_back("ProcessingTime: " + secondsText(lastProcessingSeconds_) + "s");
  if (store.getBool("DebugDrawer.resolution", false))
    lines.push_back("res: " + std::to_string(lastResult_->width) + "x" +
                    std::to_string(lastResult_->height));
  if (store.getBool("DebugDrawer.ImageProcessorSettings", false)) {
    lines.push_back("=ImageProcessorSettings=");
    std::istringstream dump(settings.debugDescription(getOriginalImage()));
    for (std::string line; std::getline(dump, line);) lines.push_back(line);
  }
  if (store.getBool("DebugDrawer.RawLoadStatus", false)) {
    const std::shared_ptr<Image> original = getOriginalImage();
    lines.push_back(std::string("Raw Load Status: ") +
                    imageLoadStateName(original ? original->status() : LOAD_ERROR));
  }
  if (store.getBool("DebugDrawer.MemoryManagerStatus", false))
    lines.push_back(MemoryManager::instance().statusText());
  lastDebugLines_ = lines;
  cv::Mat pixels(lastResult_->height, lastResult_->width, CV_32FC3, lastResult_->data);
  cv::Mat target = pixels(cv::Rect(region.x, region.y, region.width, region.height));
  constexpr int kLineHeight = 22;
  int y = kLineHeight;
  for (const std::string& line : lines) {
    if (y > target.rows) break;
    cv::putText(target, line, cv::Point(8, y), cv::FONT_HERSHEY_SIMPLEX, 0.6,
                cv::Scalar(1.0, 1.0, 1.0), 1, cv::LINE_AA);
    y += kLineHeight;
  }
}

}  // namespace vorn
