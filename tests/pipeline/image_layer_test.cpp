#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "io/raw_test_support.h"
#include "pipeline/layer_test_support.h"
#include "support/log_capture.h"
#include "support/test_files.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/image_source_raw.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/image_layer.h"

namespace vorn {
namespace {

/// Polls until `done` holds or ten seconds have passed.
template <typename Condition>
bool eventually(Condition done) {
  for (int i = 0; i < 1000 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return done();
}

TEST(ImageLayerBasics, NullImagesAndCoverage) {
  test::LogCapture log;
  EXPECT_THROW(ImageLayer{std::shared_ptr<Image>()}, std::invalid_argument);
  ImageLayer layer(test::makePlainImage({100, 50}));
  EXPECT_THROW((ImageLayer{layer, nullptr}), std::invalid_argument);
  layer.setImage(nullptr, true);
  EXPECT_EQ(log.countContaining("ImageLayer::setImage("), 1u);
  ASSERT_TRUE(layer.getSourceImage());
  EXPECT_FALSE(layer.isNeedBlend()) << "the image fills its own canvas";

  ImageTransformSettings settings = ImageTransformSettings::forCanvas({200, 100});
  layer.setTransform(settings);
  EXPECT_TRUE(layer.isNeedBlend()) << "half the canvas shows the layer below";
  settings.layerToCanvas.scale(2.0f, 2.0f);
  layer.setTransform(settings);
  EXPECT_FALSE(layer.isNeedBlend());
  settings.layerToCanvas.rotate(0.01f);
  layer.setTransform(settings);
  EXPECT_TRUE(layer.isNeedBlend()) << "a turned layer leaves the corners bare";

  // A new placement drops the process masks and carries the lens-correction layer along.
  layer.setProcessWorkingMask(std::make_shared<MaskImage>(_Size<int>(100, 50), 1.0f));
  layer.setLensCorrectionLayer(std::make_shared<AdjustmentLayer>(0));
  layer.setTransform(settings);
  EXPECT_TRUE(layer.processWorkingMask()) << "an unchanged placement keeps them";
  settings.layerToCanvas.translate(3.0f, 0.0f);
  layer.setTransform(settings);
  EXPECT_FALSE(layer.processWorkingMask());
  ASSERT_TRUE(layer.getLensCorrectionLayer());
  EXPECT_EQ(layer.getLensCorrectionLayer()->transformSettings(), settings);

  layer.setImage(test::makePlainImage({30, 20}), true);
  EXPECT_EQ(layer.transformSettings(), settings);
  layer.setImage(test::makePlainImage({30, 20}), false);
  EXPECT_EQ(layer.transformSettings(), ImageTransformSettings::forCanvas({30, 20}));
  const auto replaced = ImageLayer(layer, test::makePlainImage({30, 20}));
  EXPECT_NE(replaced.getSourceImage(), layer.getSourceImage());
  EXPECT_EQ(replaced.transformSettings(), layer.transformSettings());
}

TEST(ImageLayerBasics, PlainJpegNeverCallsBack) {
  const std::string path = test::sharedSample("photo", "fallenleaf_canon_eos70d.jpg");
  if (path.empty()) GTEST_SKIP() << "sample absent";
  const ImageResult result = ImageReader::readNonRaw(path);
  ASSERT_EQ(result.errorCode, kImageReaderOk);
  ASSERT_TRUE(result.image);
  ImageLayer layer(result.image);
  auto calls = std::make_shared<std::atomic<int>>(0);
  layer.setUpdateCallback([calls] { ++*calls; });
  layer.setNeedProcessing(false);
  const auto working = layer.getWorkingImage();
  ASSERT_TRUE(working);
  EXPECT_EQ(working->size(), _Size<int>(2560, 1600));
  EXPECT_EQ(layer.getWorkingImage(), working) << "cached";
  const auto thumbnail = layer.getSourceThumbnail();
  ASSERT_TRUE(thumbnail);
  EXPECT_EQ(thumbnail->size(), _Size<int>(120, 75));
  EXPECT_EQ(layer.getLoadState(), FULL_LOADED);
  EXPECT_FALSE(layer.isNeedProcessing());
  layer.resetCachedImages();
  EXPECT_NE(layer.getSourceThumbnail(), thumbnail);
  EXPECT_EQ(calls->load(), 0);
}

TEST(ImageLayerRawUpdates, WorkingImageFollowsTheBetterFrame) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  const ImageResult result = ImageReader::readRaw(dng, kOpenDefault, nullptr, "");
  ASSERT_EQ(result.errorCode, kImageReaderOk);
  ASSERT_TRUE(result.image);
  auto layer = std::make_shared<ImageLayer>(result.image);
  auto calls = std::make_shared<std::atomic<int>>(0);
  layer->setUpdateCallback([calls] { ++*calls; });
  const auto copy = std::dynamic_pointer_cast<ImageLayer>(layer->copy());
  ASSERT_TRUE(copy);
  auto source = std::dynamic_pointer_cast<ImageSourceRaw>(result.image->source());
  ASSERT_TRUE(source);

  source->waitForQuarterFrame();
  const auto first = layer->getWorkingImage();
  ASSERT_TRUE(first);
  const bool quarterSeen = first->getLoadState() == QUARTER_LOADED;
  if (quarterSeen) {
    EXPECT_EQ(first->size(), _Size<int>(2064, 1088));
  }
  layer->setNeedProcessing(false);

  result.image->waitForFullRaw();
  ASSERT_TRUE(eventually([&] { return result.image->status() == FULL_LOADED; }));
  // Waiters wake before the listeners are told.
  ASSERT_TRUE(eventually([&] { return calls->load() >= 1; })) << "the callback never fired";
  if (quarterSeen) {
    EXPECT_TRUE(layer->isNeedProcessing()) << "a better frame is waiting";
  }
  const auto full = layer->getWorkingImage();
  ASSERT_TRUE(full);
  EXPECT_EQ(full->getLoadState(), FULL_LOADED);
  EXPECT_EQ(full->size(), _Size<int>(4128, 2176));
  const auto thumbnail = layer->getSourceThumbnail();
  ASSERT_TRUE(thumbnail);
  EXPECT_EQ(thumbnail->width, 120);
  EXPECT_EQ(layer->getLoadState(), FULL_LOADED);
  // The copy listens on its own and follows too.
  const auto copied = copy->getWorkingImage();
  ASSERT_TRUE(copied);
  EXPECT_EQ(copied->getLoadState(), FULL_LOADED);
}

TEST(ImageLayerRawUpdates, LayerDestroyedBeforeTheLoadEnds) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  auto calls = std::make_shared<std::atomic<int>>(0);
  std::shared_ptr<Image> image;
  {
    const ImageResult result = ImageReader::readRaw(dng, kOpenDefault, nullptr, "");
    ASSERT_EQ(result.errorCode, kImageReaderOk);
    ASSERT_TRUE(result.image);
    image = result.image;
    auto layer = std::make_shared<ImageLayer>(image);
    layer->setUpdateCallback([calls] { ++*calls; });
  }
  const int atDestruction = calls->load();
  EXPECT_TRUE(test::finishesWithin(60, [image] { image->waitForFullRaw(); }));
  // The loader tells its listeners after waking the waiters; give it time to do so.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(calls->load(), atDestruction) << "a destroyed layer's callback is never called";
}

}  // namespace
}  // namespace vorn
