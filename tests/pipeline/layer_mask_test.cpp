#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

#include "pipeline/layer_test_support.h"
#include "support/log_capture.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/image_layer.h"

namespace vorn {
namespace {

/// A turned and shifted placement with a ROI and a shrinking output, so that every cache
/// resamples at a non-integer factor.
ImageTransformSettings turnedRender(_Size<int> canvas) {
  ImageTransformSettings settings = ImageTransformSettings::forCanvas(canvas);
  settings.layerToCanvas.rotate(0.05f);
  settings.layerToCanvas.translate(30.0f, -12.0f);
  settings.roi = _Rect<float>(100.0f, 50.0f, 1100.0f, 800.0f);
  settings.outputSize = _Size<int>(523, 381);
  return settings;
}

bool contains(const _Rect<int>& outer, const _Rect<int>& inner) {
  return inner.x >= outer.x && inner.y >= outer.y &&
         inner.x + inner.width <= outer.x + outer.width &&
         inner.y + inner.height <= outer.y + outer.height;
}

/// The smallest rectangle holding every pixel where the two differ; all-zero when none does.
_Rect<int> differingRegion(const _ImageData<float>& a, const _ImageData<float>& b) {
  int x0 = a.width, y0 = a.height, x1 = 0, y1 = 0;
  for (int y = 0; y < a.height; ++y)
    for (int x = 0; x < a.width; ++x)
      if (a.at(x, y) != b.at(x, y)) {
        x0 = std::min(x0, x), y0 = std::min(y0, y);
        x1 = std::max(x1, x + 1), y1 = std::max(y1, y + 1);
      }
  return x1 == 0 ? _Rect<int>() : _Rect<int>(x0, y0, x1 - x0, y1 - y0);
}

TEST(LayerMaskCaches, SmallUpdatesMatchAFullRebuild) {
  const _Size<int> size(1500, 1000);
  AdjustmentLayer layer(0);
  ASSERT_TRUE(layer.createMaskWithSize(size, 0.0f));
  test::fillNoise(*layer.mask(), 1);
  layer.resetMaskCache();
  const ImageTransformSettings render = turnedRender(size);
  const auto thumbnail = layer.maskThumbnail();
  const auto preview = layer.maskPreview();
  const auto turned = layer.maskPreviewForTransform(render);
  ASSERT_TRUE(thumbnail && preview && turned);
  EXPECT_EQ(thumbnail->size(), _Size<int>(120, 80));
  EXPECT_EQ(preview->size(), _Size<int>(1024, 683));
  EXPECT_EQ(turned->size(), render.outputSize);
  EXPECT_EQ(layer.workingMask(), layer.mask()) << "the working mask is the mask itself";
  layer.setNeedReblend(false);
  EXPECT_TRUE(layer.getWorkingMaskUpdateRect().isZero());
  EXPECT_TRUE(layer.getMaskPreviewUpdateRect().isZero());

  const std::vector<_Rect<int>> dabs = {
      {733, 411, 300, 300}, {0, 0, 7, 5}, {1490, 990, 10, 10}, {1, 998, 3, 2}};
  std::uint32_t seed = 10;
  for (const _Rect<int>& dab : dabs) {
    const MaskImage previewBefore(*preview);
    auto content = std::make_shared<MaskImage>(dab.size());
    test::fillNoise(*content, ++seed);
    ASSERT_TRUE(LayerMaskWriter::write(&layer, content, dab));
    EXPECT_EQ(layer.mask()->at(dab.x + dab.width - 1, dab.y), content->at(dab.width - 1, 0));
    EXPECT_TRUE(layer.isNeedReblend());
    EXPECT_TRUE(contains(layer.getWorkingMaskUpdateRect(), dab));
    const _Rect<int> changed = differingRegion(previewBefore, *preview);
    EXPECT_FALSE(changed.isZero());
    EXPECT_TRUE(contains(layer.getMaskPreviewUpdateRect(), changed));
    layer.setNeedReblend(false);
  }

  AdjustmentLayer rebuilt(0);
  rebuilt.setMask(std::shared_ptr<const MaskImage>(layer.mask()));
  ASSERT_TRUE(rebuilt.maskThumbnail() && rebuilt.maskPreview());
  EXPECT_TRUE(test::samePixels(*thumbnail, *rebuilt.maskThumbnail()));
  EXPECT_TRUE(test::samePixels(*preview, *rebuilt.maskPreview()));
  const auto turnedRebuilt = rebuilt.maskPreviewForTransform(render);
  ASSERT_TRUE(turnedRebuilt);
  EXPECT_TRUE(test::samePixels(*turned, *turnedRebuilt));
  EXPECT_EQ(layer.maskPreviewForTransform(render), turned) << "cached for the same settings";
  // The library's own resize agrees to rounding: the caches are true area averages.
  const auto resized = layer.mask()->resize(preview->size());
  ASSERT_TRUE(resized);
  float worst = 0.0f;
  for (int y = 0; y < resized->height; ++y)
    for (int x = 0; x < resized->width; ++x)
      worst = std::max(worst, std::fabs(resized->at(x, y) - preview->at(x, y)));
  EXPECT_LT(worst, 1e-6f);
}

TEST(LayerMaskCaches, MaskSizedContentAndBadWrites) {
  test::LogCapture log;
  AdjustmentLayer layer(0);
  auto content = std::make_shared<MaskImage>(_Size<int>(64, 48), 0.75f);
  EXPECT_FALSE(LayerMaskWriter::write(&layer, content, {0, 0, 4, 4})) << "no mask yet";
  ASSERT_TRUE(layer.createMaskWithSize({64, 48}, 0.0f));
  EXPECT_FALSE(LayerMaskWriter::write(nullptr, content, {0, 0, 4, 4}));
  EXPECT_FALSE(LayerMaskWriter::write(&layer, nullptr, {0, 0, 4, 4}));
  EXPECT_FALSE(LayerMaskWriter::write(&layer, content, {60, 0, 5, 4}));
  EXPECT_FALSE(LayerMaskWriter::write(&layer, content, {-1, 0, 4, 4}));
  EXPECT_FALSE(LayerMaskWriter::write(&layer, content, {0, 0, 0, 0}));
  EXPECT_FALSE(LayerMaskWriter::write(&layer, std::make_shared<MaskImage>(_Size<int>(3, 3), 1.0f),
                                      {0, 0, 4, 4}));
  EXPECT_EQ(log.countContaining("LayerMaskWriter::write("), 1u);
  EXPECT_EQ(log.countContaining("updateMask("), 1u);
  EXPECT_EQ(log.countContaining("LayerMask::update("), 5u);

  layer.setNeedReblend(false);
  test::fillNoise(*content, 7);
  ASSERT_TRUE(LayerMaskWriter::write(&layer, content, {10, 20, 5, 6}));
  EXPECT_EQ(layer.mask()->at(10, 20), content->at(10, 20)) << "read from the same place";
  EXPECT_EQ(layer.mask()->at(14, 25), content->at(14, 25));
  EXPECT_EQ(layer.mask()->at(15, 25), 0.0f);
  EXPECT_EQ(layer.mask()->at(9, 20), 0.0f);
  EXPECT_EQ(layer.getWorkingMaskUpdateRect(), _Rect<int>(10, 20, 5, 6));
  EXPECT_EQ(layer.getMaskPreviewUpdateRect(), _Rect<int>(10, 20, 5, 6))
      << "a mask below the preview size is its own preview";
}

TEST(LayerMaskCaches, CopiesAreIndependent) {
  ImageLayer layer(test::makePlainImage({32, 32}));
  ASSERT_TRUE(layer.createMaskWithSize({32, 32}, 0.5f));
  ASSERT_TRUE(layer.maskPreview());
  auto process = std::make_shared<MaskImage>(_Size<int>(32, 32), 0.25f);
  layer.setProcessWorkingMask(process);
  auto lens = std::make_shared<AdjustmentLayer>(0);
  layer.setLensCorrectionLayer(lens);
  const auto copy = std::dynamic_pointer_cast<ImageLayer>(layer.copy());
  ASSERT_TRUE(copy && copy->mask() && copy->maskPreview() && copy->processWorkingMask());
  EXPECT_EQ(copy->getSourceImage(), layer.getSourceImage());
  ASSERT_TRUE(copy->getLensCorrectionLayer());
  EXPECT_NE(copy->getLensCorrectionLayer(), lens) << "the lens-correction layer is owned";
  EXPECT_NE(copy->mask(), layer.mask());
  EXPECT_NE(copy->maskPreview(), layer.maskPreview());
  EXPECT_NE(copy->processWorkingMask(), process);
  ASSERT_TRUE(LayerMaskWriter::write(
      copy.get(), std::make_shared<MaskImage>(_Size<int>(8, 8), 1.0f), {0, 0, 8, 8}));
  copy->processWorkingMask()->setFillWith(1.0f);
  EXPECT_EQ(layer.mask()->at(0, 0), 0.5f);
  EXPECT_EQ(layer.maskPreview()->at(0, 0), 0.5f);
  EXPECT_EQ(process->at(0, 0), 0.25f);
  EXPECT_EQ(copy->maskPreview()->at(0, 0), 1.0f);
}

// The brush worker writes from its own thread while the processor reads and acknowledges.
TEST(LayerMaskConcurrent, WritesFromAWorkerKeepTheCachesExact) {
  AdjustmentLayer layer(0);
  ASSERT_TRUE(layer.createMaskWithSize({600, 400}, 0.0f));
  ASSERT_TRUE(layer.maskPreview() && layer.maskThumbnail());
  std::atomic<bool> go{false}, done{false};
  std::thread brush([&] {
    while (!go) std::this_thread::yield();
    for (int i = 0; i < 2000; ++i) {
      auto dab = std::make_shared<MaskImage>(_Size<int>(16, 16));
      test::fillNoise(*dab, static_cast<std::uint32_t>(i));
      LayerMaskWriter::write(&layer, dab, {(i * 37) % 584, (i * 53) % 384, 16, 16});
    }
    done = true;
  });
  go = true;
  do {
    if (layer.isNeedReblend()) {
      const _Rect<int> region = layer.getMaskPreviewUpdateRect();
      EXPECT_TRUE(region.isZero() || contains(_Rect<int>(0, 0, 600, 400), region));
      layer.setNeedReblend(false);
    }
    EXPECT_TRUE(layer.maskPreview());
  } while (!done);
  brush.join();
  // The flag and the region change together, so at rest one is set exactly when the other is.
  EXPECT_EQ(layer.isNeedReblend(), !layer.getWorkingMaskUpdateRect().isZero());
  AdjustmentLayer rebuilt(0);
  rebuilt.setMask(std::shared_ptr<const MaskImage>(layer.mask()));
  ASSERT_TRUE(rebuilt.maskPreview() && rebuilt.maskThumbnail());
  EXPECT_TRUE(test::samePixels(*layer.maskPreview(), *rebuilt.maskPreview()));
  EXPECT_TRUE(test::samePixels(*layer.maskThumbnail(), *rebuilt.maskThumbnail()));
}

}  // namespace
}  // namespace vorn
