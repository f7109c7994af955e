#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "pipeline/processor_test_support.h"
#include "support/data_store_guard.h"
#include "support/log_capture.h"
#include "vorn/core/data_store.h"
#include "vorn/core/memory_manager.h"
#include "vorn/effects/effect_chain.h"
#include "vorn/io/image_metadata.h"
#include "vorn/pipeline/blend.h"

namespace vorn {
namespace {

using test::byHand;
using test::Document;

TEST(ImageProcessorStart, RefusedRendersKeepTheLastResult) {
  test::LogCapture log;
  ImageProcessor empty;
  empty.startProcessing({});
  EXPECT_FALSE(empty.getLastResult());
  const auto lines = log.lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(lines[lines.size() - 2].find(" There aren't any layers!"), std::string::npos);
  EXPECT_NE(lines.back().find(" Start condition aren't correct!"), std::string::npos);

  Document doc(_Size<int>(32, 24));
  const auto first = doc.render();
  ASSERT_TRUE(first);
  ImageProcessorSettings s;
  for (const _Rect<float> roi :
       {_Rect<float>(1, 0, 32, 24), _Rect<float>(-1, 0, 8, 8), _Rect<float>(0, 0, 33, 1),
        _Rect<float>(0, 0, -4, 8), _Rect<float>(NAN, 0, 8, 8), _Rect<float>(0, 0, 8, NAN),
        _Rect<float>(4, 4, 0, 0)}) {
    s.processingROI = roi;
    doc.processor.startProcessing(s);
  }
  EXPECT_EQ(log.countEndingWith(" Incorrect processingROI rect!"), 7u);
  s.processingROI = _Rect<float>(0, 0, 32, 24);
  s.processingSize = _Size<int>(0, 5);
  doc.processor.startProcessing(s);
  s.processingSize = _Size<int>(1 << 20, 1 << 20);
  doc.processor.startProcessing(s);
  EXPECT_EQ(log.countContaining(" Incorrect processingSize!"), 2u);
  EXPECT_EQ(log.countEndingWith(" Start condition aren't correct!"), 1u + 9u);
  EXPECT_EQ(doc.processor.getLastResult(), first) << "refused renders change nothing";

  s.processingSize = _Size<int>(16, 12);
  doc.processor.startProcessing(s);
  ASSERT_TRUE(doc.processor.getLastResult());
  EXPECT_EQ(doc.processor.getLastResult()->size(), _Size<int>(16, 12)) << "the edge is inside";
}

TEST(ImageProcessorStart, AnExportKeepsNoBlocksButLeavesTheHostsPolicy) {
  MemoryManager& memory = MemoryManager::instance();
  const bool before = memory.isCachingEnabled();
  for (const bool hostPolicy : {true, false}) {
    memory.setCachingEnabled(hostPolicy);
    test::Document doc(_Size<int>(64, 48));
    ImageProcessorSettings settings;
    settings.exportMode = true;
    doc.processor.startProcessing(settings);
    ASSERT_TRUE(doc.processor.getLastResult());
    EXPECT_EQ(memory.isCachingEnabled(), hostPolicy);
    if (hostPolicy) {
      // The export's own blocks were not cached, so none of its frames is idle afterwards.
      EXPECT_EQ(memory.stats().bytesIdle, 0u);
    }
  }
  memory.setCachingEnabled(before);
}

TEST(ImageProcessorStart, LayerOrderAndEnabledLayers) {
  test::LogCapture log;
  Document doc(_Size<int>(16, 16));
  doc.processor.moveLayer(doc.adjustment, 0);
  doc.render();
  EXPECT_EQ(log.countEndingWith(" First Layer must be ImageLayer!"), 1u);
  doc.processor.moveLayer(doc.adjustment, 1);

  doc.imageLayer->setEnabled(false);
  doc.adjustment->setLevel(0);
  doc.render();
  EXPECT_EQ(log.countEndingWith(" Can't produce any result! There are no enabled imageLayers!"),
            1u);
  EXPECT_FALSE(doc.processor.getLastResult());

  // A disabled level-0 image layer hides the adjustment layer of level 1 above it, but not
  // the image layer of level 0 after that.
  const auto second = std::make_shared<ImageLayer>(test::makePlainImage(_Size<int>(16, 16)));
  doc.adjustment->setLevel(1);
  doc.processor.addLayer(second, 2);
  const auto result = doc.render();
  ASSERT_TRUE(result);
  auto plain = second->getWorkingImage();
  ASSERT_TRUE(plain);
  EXPECT_TRUE(test::sameRGB(*result, *plain)) << "the exposure layer must not apply";
}

TEST(ImageProcessorRender, EqualsTheEffectsAndOneBlendByHand) {
  Document doc(_Size<int>(48, 32));
  auto result = doc.render();
  ASSERT_TRUE(result);
  auto expected = byHand(doc);
  ASSERT_TRUE(expected);
  EXPECT_TRUE(test::sameRGB(*result, *expected));
  EXPECT_GT(test::maxDifference(*result, *doc.imageLayer->getWorkingImage()), 0.01f);

  doc.adjustment->setOpacity(0.4f);
  doc.adjustment->setBlendMode(kBlendScreen);
  ASSERT_TRUE(doc.adjustment->createMaskWithSize(_Size<int>(48, 32), 0.7f));
  result = doc.render();
  expected = byHand(doc);
  ASSERT_TRUE(result && expected);
  EXPECT_TRUE(test::sameRGB(*result, *expected));
}

/// Applies one kind of change, renders with the cache and without, and compares.
struct CacheCase {
  const char* name;
  void (*change)(Document&);
  /// The cache line the render with the cache must log.
  const char* expectedLine;
};

TEST(ImageProcessorCache, CachedRendersEqualUncachedOnes) {
  const CacheCase cases[] = {
      {"parameter",
       [](Document& d) { d.adjustment->effectAtIndex(1)->parameters()[0].setValue(-20.0f); },
       "cache-> layer needs processing(1) op(2)"},
      {"opacity", [](Document& d) { d.adjustment->setOpacity(0.5f); },
       "cache-> operations type don't match(1) PushBlend != Compute op(1)"},
      {"blend mode", [](Document& d) { d.adjustment->setBlendMode(kBlendMultiply); },
       "cache-> operations type don't match(1) PushBlend != Compute op(1)"},
      {"mask", [](Document& d) { d.adjustment->createMaskWithSize(_Size<int>(40, 30), 0.25f); },
       "cache-> operations type don't match(1) PushBlend != Compute op(1)"},
      {"disable", [](Document& d) { d.adjustment->setEnabled(false); },
       "cache-> all operations are done(1) op(0)"},
      {"move",
       [](Document& d) {
         auto extra = std::make_shared<AdjustmentLayer>(0);
         extra->pushBackEffect(test::makeEffect("VORNExposureEffect", -30.0f));
         d.processor.addLayer(extra, 2);
         d.render();
         d.processor.moveLayer(extra, 1);
       },
       "cache-> layer needs processing(1) op(1)"},
      {"insert",
       [](Document& d) {
         auto extra = std::make_shared<AdjustmentLayer>(0);
         extra->pushBackEffect(test::makeEffect("VORNExposureEffect", -30.0f));
         d.processor.addLayer(extra, 2);
       },
       "cache-> rect wasn't cached(2) op(3)"},
      {"remove", [](Document& d) { d.processor.removeLayer(d.adjustment); },
       "cache-> all operations are done(1) op(0)"},
  };
  for (const CacheCase& c : cases) {
    SCOPED_TRACE(c.name);
    Document cached(_Size<int>(40, 30));
    Document fresh(_Size<int>(40, 30));
    ASSERT_TRUE(cached.render());
    c.change(cached);
    c.change(fresh);
    test::LogCapture log;
    const auto a = cached.render();
    const auto b = fresh.render(_Size<int>(), false);
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(test::sameRGB(*a, *b));
    EXPECT_EQ(log.countEndingWith(c.expectedLine), 1u);
  }
}

TEST(ImageProcessorCache, ReusedStepsAreNotRunAgain) {
  Document doc(_Size<int>(40, 30));
  doc.adjustment->setOpacity(0.5f);
  ASSERT_TRUE(doc.render());
  {
    test::LogCapture log;
    doc.render();
    EXPECT_EQ(log.countEndingWith("cache-> all operations are done(5) op(4)"), 1u);
    EXPECT_EQ(log.countContaining("op(") - 1, 0u) << "no step runs again";
  }
  {
    test::LogCapture log;
    doc.adjustment->setOpacity(0.75f);
    doc.render();
    EXPECT_EQ(log.countEndingWith("cache-> layer needs processing(1) op(4)"), 1u);
    EXPECT_EQ(log.countEndingWith("op(4) Blend (1)"), 1u) << "only the blend runs";
    EXPECT_EQ(log.countContaining("Compute"), 0u);
  }
  {
    test::LogCapture log;
    doc.adjustment->setEffectAmount(0.5f);
    doc.render();
    EXPECT_EQ(log.countEndingWith("op(4) BlendEffectAmount (1)"), 1u) << "the push is reused";
    EXPECT_EQ(log.countEndingWith("op(5) Blend (1)"), 1u);
    doc.processor.clearCache();
    doc.render();
    EXPECT_EQ(log.countEndingWith("op(1) PushBlend(effectAmount) (1)"), 1u);
  }
  {
    test::LogCapture log;
    doc.render(_Size<int>(20, 15));
    EXPECT_EQ(log.countEndingWith("cache-> rect wasn't cached(0) op(0)"), 1u);
  }
  {
    test::LogCapture log;
    doc.processor.clearCache();
    doc.render(_Size<int>(20, 15));
    EXPECT_EQ(log.countEndingWith("cache-> cache is empty(0) op(0)"), 1u);
  }
}

TEST(ImageProcessorCache, BudgetDropsTheOldestSteps) {
  test::DataStoreGuard guard("ImageProcessor.CacheMiB");
  DataStore::instance().set("ImageProcessor.CacheMiB", 0);
  Document doc(_Size<int>(40, 30));
  doc.adjustment->setOpacity(0.5f);
  const auto first = doc.render();
  ASSERT_TRUE(first);
  const std::shared_ptr<ImageDataRGBf> kept = std::make_shared<ImageDataRGBf>(*first);
  test::LogCapture log;
  doc.adjustment->setOpacity(0.6f);
  const auto second = doc.render();
  ASSERT_TRUE(second);
  EXPECT_EQ(log.countContaining("cache-> rect wasn't cached"), 1u) << "the bottom was dropped";
  doc.adjustment->setOpacity(0.5f);
  const auto third = doc.render();
  ASSERT_TRUE(third);
  EXPECT_TRUE(test::sameRGB(*third, *kept));
}

TEST(ImageProcessorRender, PreviewMatchesTheFullRenderShrunk) {
  Document doc(_Size<int>(120, 80));
  const auto full = doc.render();
  ASSERT_TRUE(full);
  const auto shrunk = full->resize(_Size<int>(30, 20));
  const auto preview = doc.render(_Size<int>(30, 20));
  ASSERT_TRUE(shrunk && preview);
  EXPECT_LT(test::maxDifference(*shrunk, *preview), 0.02f);
  const auto thumbnail = doc.processor.getLastResultThumbnail();
  ASSERT_TRUE(thumbnail);
  EXPECT_EQ(thumbnail->size(), _Size<int>(30, 20)) << "sized for the document, not the render";

  ImageProcessorSettings region;
  region.processingROI = _Rect<float>(60, 40, 60, 40);
  region.processingSize = _Size<int>(60, 40);
  doc.processor.startProcessing(region);
  const auto part = doc.processor.getLastResult();
  ASSERT_TRUE(part);
  const auto expected = full->copy(_Rect<int>(60, 40, 60, 40));
  ASSERT_TRUE(expected);
  // Vector kernels round a row's tail apart from its body, so a region may differ by an ulp.
  EXPECT_LT(test::maxDifference(*part, *expected), 1e-6f) << "a region of point effects";
}

TEST(ImageProcessorRender, SpatialEffectPreviewLooksLikeTheFullRender) {
  Document doc(_Size<int>(480, 320));
  doc.adjustment->pushBackEffect(test::makeEffect("VORNDehazeEffect", 60.0f));
  const auto full = doc.render();
  ASSERT_TRUE(full);
  const auto shrunk = full->resize(_Size<int>(120, 80));
  const auto preview = doc.render(_Size<int>(120, 80));
  ASSERT_TRUE(shrunk && preview);
  // The radius follows the render scale, so the preview is the export shrunk, not a sharper one.
  EXPECT_LT(test::maxDifference(*shrunk, *preview), 0.02f);
}

TEST(ImageProcessorRender, PlacedImageLayerShowsTheLayerBelowAroundIt) {
  Document doc(_Size<int>(40, 20));
  doc.processor.removeLayer(doc.adjustment);
  auto frame = std::make_shared<ImageFrame>(_Size<int>(40, 20), PixelRGB<float>(0.9f, 0.1f, 0.2f));
  auto top = std::make_shared<ImageLayer>(std::make_shared<Image>(
      std::make_shared<ImageSource>(frame, std::make_shared<ImageMetadata>())));
  ImageTransformSettings placed = top->transformSettings();
  placed.layerToCanvas = AffineTransform(0.5f, 0.0f, 0.0f, 0.5f, 0.0f, 0.0f);
  top->setTransform(placed);
  doc.processor.addLayer(top, 1);
  const auto result = doc.render();
  ASSERT_TRUE(result);
  const auto below = doc.imageLayer->getWorkingImage();
  // Bilinear weights may round a constant by an ulp.
  EXPECT_NEAR(result->at(5, 5).r, 0.9f, 1e-6f);
  EXPECT_NEAR(result->at(5, 5).b, 0.2f, 1e-6f);
  // A ramp shows where the layer is read: canvas pixel (5, 5) spans layer pixels 10..12.
  top->setImage(test::makePlainImage(_Size<int>(40, 20)), true);
  const auto ramp = doc.render();
  ASSERT_TRUE(ramp);
  EXPECT_NEAR(ramp->at(5, 5).r, 11.0f / 40.0f, 0.02f);
  EXPECT_NEAR(ramp->at(5, 5).g, 11.0f / 20.0f, 0.04f);
  EXPECT_EQ(result->at(30, 5), below->at(30, 5));
  EXPECT_EQ(result->at(5, 15), below->at(5, 15));

  // A smaller image left where it was placed: the region past it shows the layer below.
  auto small = std::make_shared<ImageLayer>(test::makePlainImage(_Size<int>(10, 10)));
  doc.processor.removeLayer(top);
  doc.processor.addLayer(small, 1);
  const auto smallResult = doc.render();
  ASSERT_TRUE(smallResult);
  EXPECT_EQ(smallResult->at(5, 5), small->getWorkingImage()->at(5, 5));
  EXPECT_EQ(smallResult->at(30, 15), below->at(30, 15));
}

TEST(ImageProcessorRender, EffectsSeeTheMetadataOfThePhotoBelowThem) {
  // A calibration whose as-shot white is far from D50: raw white balance starts from it.
  auto metadata = std::make_shared<ImageMetadata>();
  metadata->cameraColor.colorMatrix1 = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  metadata->cameraColor.illuminant1 = 21;
  metadata->cameraColor.asShotMultipliers = {1.6f, 1.0f, 1.3f};
  const auto frame = test::makePlainImage(_Size<int>(16, 8))->workingImage();
  const auto render = [&](std::shared_ptr<const ImageMetadata> withMetadata) {
    Document doc(_Size<int>(16, 8));
    doc.imageLayer->setImage(
        std::make_shared<Image>(std::make_shared<ImageSource>(frame, std::move(withMetadata))),
        true);
    while (doc.adjustment->removeEffectAtIndex(0)) {
    }
    doc.adjustment->pushBackEffect(test::makeEffect("VORNRawWhiteBalanceEffect", 70.0f));
    return doc.render();
  };
  const auto calibrated = render(metadata);
  const auto plain = render(std::make_shared<ImageMetadata>());
  ASSERT_TRUE(calibrated && plain);
  EXPECT_GT(test::maxDifference(*calibrated, *plain), 0.01f);
}

TEST(ImageProcessorRender, DevelopStepsAndTheStepsAfterThem) {
  test::LogCapture log;
  Document doc(_Size<int>(24, 16));
  const auto develop = EffectFactory::instance().makeEffectWithID("VORNDevelopCommonEffectID");
  ASSERT_TRUE(develop);
  ASSERT_FALSE(develop->parameters().empty());
  Parameter& first = develop->parameters()[0];
  first.setValue(first.value() == first.maxValue() ? first.minValue() : first.maxValue());
  ASSERT_TRUE(doc.adjustment->insertEffectAtIndex(develop, 0));
  ASSERT_TRUE(doc.render());
  EXPECT_EQ(log.countEndingWith("op(1) Develop (1)"), 1u);
  EXPECT_EQ(log.countEndingWith("op(2) Compute(after develop) (1)"), 1u);
  EXPECT_EQ(log.countEndingWith("op(3) Compute(after develop) (1)"), 1u);
}

TEST(ImageProcessorPost, OverlaysLeaveTheCacheAlone) {
  Document doc(_Size<int>(32, 16));
  doc.adjustment->effectAtIndex(0)->parameters()[0].setValue(100.0f);
  const auto clean = doc.render();
  ASSERT_TRUE(clean);
  const auto copy = std::make_shared<ImageDataRGBf>(*clean);
  doc.processor.setShowHotPixels(true);
  doc.processor.setShowColdPixels(true);
  const auto marked = doc.render();
  ASSERT_TRUE(marked);
  EXPECT_TRUE(test::sameRGB(*clean, *copy)) << "the cached render was not drawn on";
  int hot = 0;
  for (int y = 0; y < marked->height; ++y)
    for (int x = 0; x < marked->width; ++x) {
      const PixelRGB<float> in = clean->at(x, y), out = marked->at(x, y);
      const bool clipped = in.r >= 1.0f || in.g >= 1.0f || in.b >= 1.0f;
      if (clipped) {
        ++hot;
        EXPECT_EQ(out, PixelRGB<float>(1.0f, 0.0f, 0.0f));
      } else if (in.r <= 0.0f && in.g <= 0.0f && in.b <= 0.0f) {
        EXPECT_EQ(out, PixelRGB<float>(0.0f, 0.0f, 1.0f));
      } else {
        EXPECT_EQ(out, in);
      }
    }
  EXPECT_GT(hot, 0);

  doc.processor.setShowHotPixels(false);
  doc.processor.setShowColdPixels(false);
  doc.processor.setOverlayPixelsType(kOverlayPixelsBlackAndWhite);
  const auto bw = doc.render();
  ASSERT_TRUE(bw);
  for (int x = 0; x < bw->width; ++x) {
    const float v = bw->at(x, 8).r;
    EXPECT_TRUE(v == 0.0f || v == 0.5f || v == 1.0f);
  }
}

TEST(ImageProcessorPost, MaskDisplayAndDebugLines) {
  const char* keys[] = {"DebugDrawer.enable", "DebugDrawer.ProcessingTime",
                        "DebugDrawer.resolution", "DebugDrawer.RawLoadStatus",
                        "DebugDrawer.ImageProcessorSettings"};
  test::DataStoreGuard g0(keys[0]), g1(keys[1]), g2(keys[2]), g3(keys[3]), g4(keys[4]);
  for (const char* key : keys) DataStore::instance().set(key, true);
  Document doc(_Size<int>(200, 120));
  ASSERT_TRUE(doc.adjustment->createMaskWithSize(_Size<int>(200, 120), 0.0f));
  doc.adjustment->mask()->fillRect(1.0f, _Rect<int>(0, 0, 100, 120));
  doc.adjustment->resetMaskCache();
  doc.adjustment->setNeedReblend(true);
  const auto clean = std::make_shared<ImageDataRGBf>(*doc.render());
  doc.processor.setShowMaskLayer(doc.adjustment);
  const auto shown = doc.render();
  ASSERT_TRUE(shown);
  const auto& lines = doc.processor.debugLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0].rfind("ProcessingTime: ", 0), 0u);
  EXPECT_EQ(lines[1], "res: 200x120");
  EXPECT_EQ(lines[2], "=ImageProcessorSettings=");
  EXPECT_EQ(lines.back(), "Raw Load Status: FULL_LOADED");
  // Below the text: the masked half is tinted, the other half untouched.
  const PixelRGB<float> in = clean->at(50, 110), tinted = shown->at(50, 110);
  EXPECT_NEAR(tinted.r, in.r * 0.5f + 0.5f, 1e-5f);
  EXPECT_NEAR(tinted.g, in.g * 0.5f, 1e-5f);
  EXPECT_EQ(shown->at(150, 110), clean->at(150, 110));
}

TEST(ImageProcessorRender, SmallRendersReadTheReducedCopyOfTheFrame) {
  Document doc(_Size<int>(64, 48));
  ImageLayer& layer = *doc.imageLayer;
  const auto frame = layer.getWorkingImage();
  ASSERT_TRUE(frame);
  EXPECT_FALSE(layer.getReducedWorkingImage(3));
  const auto half = layer.getReducedWorkingImage(2);
  ASSERT_TRUE(half);
  const auto expected = frame->resize(_Size<int>(32, 24));
  ASSERT_TRUE(expected);
  EXPECT_TRUE(test::sameRGB(*half, *expected));
  layer.clearCache();
  EXPECT_EQ(layer.getReducedWorkingImage(2), half) << "kept across clearCache";

  // A region on the quarter grid at a quarter of the scale: the chain over the region's area
  // average, whichever copy it was read from.
  ImageProcessorSettings settings;
  settings.processingROI = _Rect<float>(16, 8, 32, 32);
  settings.processingSize = _Size<int>(8, 8);
  doc.processor.startProcessing(settings);
  const auto region = doc.processor.getLastResult();
  ASSERT_TRUE(region);
  const auto shrunk = frame->resize(_Size<int>(8, 8), _Rect<int>(16, 8, 32, 32));
  ASSERT_TRUE(shrunk);
  std::shared_ptr<ImageDataRGBf> byChain;
  EffectCallContext call(shrunk, byChain, {}, {}, {}, nullptr);
  ASSERT_EQ(runEffectChain(doc.adjustment->effects(), call).status, EffectChainStatus::Done);
  ASSERT_TRUE(call.destination);
  EXPECT_LT(test::maxDifference(*region, *call.destination), 1e-6f);

  // Sides that are no multiple of the factor have no reduced copy; the render reads the frame.
  layer.setImage(test::makePlainImage(_Size<int>(30, 22)), false);
  EXPECT_FALSE(layer.getReducedWorkingImage(4));
  const auto oddHalf = layer.getReducedWorkingImage(2);
  ASSERT_TRUE(oddHalf);
  EXPECT_EQ(oddHalf->size(), _Size<int>(15, 11)) << "made anew for the new frame";
  EXPECT_TRUE(doc.render(_Size<int>(7, 5)));
}

}  // namespace
}  // namespace vorn
