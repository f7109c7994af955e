#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

#include "pipeline/brush/brush_test_support.h"
#include "pipeline/brush/mask_filter.h"
#include "pipeline/processor_test_support.h"
#include "support/log_capture.h"
#include "vorn/pipeline/brush/brush_controller.h"

namespace vorn {
namespace {

BrushSetting softBrush(float radius) {
  BrushSetting setting;
  setting.radius = radius;
  setting.hardness = 0.4f;
  return setting;
}

/// A diagonal stroke of `points` points across the canvas.
void strokeDiagonal(BaseBrushController& controller, int points, BrushSetting setting) {
  ASSERT_TRUE(controller.startStroke());
  for (int i = 0; i < points; ++i) {
    const float t = 0.2f + 0.6f * static_cast<float>(i) / static_cast<float>(points);
    ASSERT_TRUE(controller.stroke(_Point<float>(t, t), setting));
  }
  ASSERT_TRUE(controller.finishStroke());
}

std::shared_ptr<const MaskImage> paintedMask(BrushController& controller) {
  controller.waitMask();
  return controller.getQueue()->getContext()->mask();
}

TEST(BrushController, BadArgumentsAreRefusedWithTheirLines) {
  test::LogCapture capture;
  BaseBrushController zero(_Size<int>(0, 10));
  EXPECT_EQ(capture.countEndingWith(" Can't create BaseBrushController with zero size!"), 1u);
  EXPECT_FALSE(zero.isValid());
  EXPECT_FALSE(zero.startStroke());
  EXPECT_FALSE(zero.stroke(_Point<float>(0.5f, 0.5f), BrushSetting()));

  const auto layer = std::make_shared<AdjustmentLayer>(0);
  EXPECT_EQ(capture.countEndingWith(" Can't stroke! Stroke isn't beeing in progress!"), 1u);
  BrushController noSize(layer, _Size<int>(10, 0), false);
  EXPECT_EQ(capture.countEndingWith(" Can't create BrushController with zero size!"), 1u);
  BrushController noLayer(nullptr, _Size<int>(10, 10), false);
  EXPECT_EQ(capture.countEndingWith(" Can't create BrushController with layer equals null!"), 1u);
  EXPECT_FALSE(noLayer.isValid());
  EXPECT_FALSE(noLayer.clear());
  EXPECT_FALSE(noLayer.getMaskPreviewForTransformSettings(
      ImageTransformSettings::forCanvas(_Size<int>(10, 10))));

  BrushController controller(layer, _Size<int>(20, 20), true);
  ASSERT_TRUE(controller.isValid());
  EXPECT_FALSE(controller.stroke(_Point<float>(0.5f, 0.5f), BrushSetting()));
  EXPECT_EQ(capture.countEndingWith(" Can't stroke! Stroke isn't beeing in progress!"), 2u);
  EXPECT_FALSE(controller.finishStroke());
  ASSERT_TRUE(controller.startStroke());
  EXPECT_FALSE(controller.startStroke()) << "one stroke at a time";
  controller.setBrushMode(kBrushModeErase);
  EXPECT_EQ(capture.countEndingWith(" Can't change brush mode while stoke is beeing processed!"),
            1u);
  EXPECT_EQ(controller.getBrushMode(), kBrushModePaint);
  EXPECT_FALSE(controller.stroke(_Point<float>(NAN, 0.5f), BrushSetting()));
  EXPECT_FALSE(controller.stroke(_Point<float>(0.5f, 1e9f), BrushSetting()));
  EXPECT_FALSE(controller.stroke(_Point<float>(0.5f, 0.5f), softBrush(-1.0f)));
  EXPECT_FALSE(controller.setFill()) << "the mask is not swapped under a stroke";
  EXPECT_TRUE(controller.cancelStroke());
  EXPECT_FALSE(controller.appendGradient(NAN, {0.5f, 0.5f}, 0.1f, false, false));
  EXPECT_FALSE(controller.appendRadialGradient({0.5f, 0.5f}, 0.0f, 0.1f, 0.0f, 0.2f, false, false));
  EXPECT_FALSE(controller.setMaskSetting(MaskSetting{NAN, 1.0f}));
  EXPECT_EQ(*std::max_element(layer->mask()->data, layer->mask()->data + 400), 0.0f)
      << "nothing refused reached the mask";

  // A mode change queued behind a stroke start is refused by the worker as well.
  auto context = std::make_shared<BaseBrushContext>(nullptr, _Size<int>(8, 8));
  BrushQueue queue(context, true);
  queue.pushOperation(std::make_shared<StartStrokeOperation>());
  queue.pushOperation(std::make_shared<SetBrushModeOperation>(kBrushModeErase));
  EXPECT_EQ(context->brushMode(), kBrushModePaint);
  EXPECT_EQ(capture.countEndingWith(" Can't change brush mode while stoke is beeing processed!"),
            2u);
}

TEST(BrushController, StrokesReachTheLayerAndTheRenderEqualsAHandBlend) {
  test::Document doc(_Size<int>(96, 64));
  auto first = doc.render();
  ASSERT_TRUE(first);
  doc.adjustment->setNeedReblend(false);
  BrushController controller(doc.adjustment, _Size<int>(96, 64), false);
  ASSERT_TRUE(doc.adjustment->hasMask()) << "an empty mask of the canvas size is made";
  EXPECT_FALSE(controller.shouldCreateWorkingMask());
  EXPECT_FALSE(controller.shouldCreateMaskThumbnail()) << "96 px is below the thumbnail's side";
  doc.adjustment->setNeedReblend(false);

  ASSERT_TRUE(controller.startStroke());
  ASSERT_TRUE(controller.stroke({{0.3f, 0.4f}, {0.4f, 0.45f}}, softBrush(0.1f)));
  ASSERT_TRUE(controller.finishStroke());
  // No waitMask(): the render itself must wait for the queued dabs.
  const auto result = doc.render();
  ASSERT_TRUE(result);
  const auto expected = test::byHand(doc);
  ASSERT_TRUE(expected);
  EXPECT_TRUE(test::sameRGB(*result, *expected));
  EXPECT_TRUE(test::samePixels(*doc.adjustment->mask(), *paintedMask(controller)));
  EXPECT_GT(test::maxDifference(*result, *first), 0.01f) << "the stroke shows";

  // The next stroke's region, as the host would redraw it.
  doc.adjustment->setNeedReblend(false);
  ASSERT_TRUE(controller.startStroke());
  ASSERT_TRUE(controller.stroke(_Point<float>(0.8f, 0.8f), softBrush(0.05f)));
  ASSERT_TRUE(controller.finishStroke());
  controller.waitMask();
  EXPECT_TRUE(doc.adjustment->isNeedReblend());
  const _Rect<int> changed = doc.adjustment->getWorkingMaskUpdateRect();
  // A 6.4 px dab at (76.8, 51.2): its footprint starts at floor(76.8 - 3 + 1) = 74.
  EXPECT_EQ(changed, _Rect<int>(74, 49, 7, 7));
  const _Rect<int> redraw = doc.processor.getResultImageUpdateRectForUpdateRectInLayer(
      doc.adjustment, changed, _Rect<float>(0, 0, 96, 64), _Size<int>(48, 32));
  EXPECT_EQ(redraw, _Rect<int>(37, 24, 4, 4));
}

TEST(BrushController, CancelledStrokeLeavesTheLayerAsItWas) {
  test::Document doc(_Size<int>(80, 60));
  ASSERT_TRUE(doc.adjustment->createMaskWithSize(_Size<int>(80, 60), 0.25f));
  BrushController controller(doc.adjustment, _Size<int>(80, 60), false);
  const MaskImage before(*doc.adjustment->mask());
  ASSERT_TRUE(controller.startStroke());
  for (int i = 0; i < 30; ++i)
    ASSERT_TRUE(
        controller.stroke(_Point<float>(0.03f * static_cast<float>(i), 0.5f), softBrush(0.1f)));
  controller.waitMask();
  EXPECT_FALSE(test::samePixels(*doc.adjustment->mask(), before));
  ASSERT_TRUE(controller.cancelStroke());
  controller.waitMask();
  EXPECT_TRUE(test::samePixels(*doc.adjustment->mask(), before));
}

TEST(BrushController, FillClearInvertAndGradients) {
  const auto layer = std::make_shared<AdjustmentLayer>(0);
  BrushController controller(layer, _Size<int>(40, 20), true);
  const auto at = [&](int x, int y) { return layer->mask()->at(x, y); };
  ASSERT_TRUE(controller.setFill());
  EXPECT_EQ(layer->mask()->zeroPixelsCount(), 0u);
  EXPECT_EQ(at(5, 5), 1.0f);
  ASSERT_TRUE(controller.invert());
  EXPECT_EQ(layer->mask()->zeroPixelsCount(), 800u);
  ASSERT_TRUE(controller.setFill());
  ASSERT_TRUE(controller.clear());
  EXPECT_EQ(layer->mask()->zeroPixelsCount(), 800u);

  // Horizontal ramp 0.5 shorter sides (10 px) wide about x = 20.
  ASSERT_TRUE(controller.appendGradient(0.0f, {0.5f, 0.5f}, 0.5f, false, false));
  EXPECT_EQ(at(5, 10), 0.0f);
  EXPECT_EQ(at(35, 10), 1.0f);
  EXPECT_NEAR(at(19, 10), 0.5f - 0.5f * 0.147f, 0.02f);
  EXPECT_FLOAT_EQ(at(19, 3), at(19, 17)) << "constant across the ramp";
  ASSERT_TRUE(controller.appendGradient(0.0f, {0.5f, 0.5f}, 0.0f, true, true));
  EXPECT_EQ(at(5, 10), 1.0f) << "inverted and added";
  EXPECT_EQ(at(35, 10), 1.0f) << "added keeps the larger";

  ASSERT_TRUE(controller.appendRadialGradient({0.5f, 0.5f}, 0.5f, 0.25f, 0.0f, 0.0f, false, false));
  EXPECT_EQ(at(20, 10), 1.0f);
  EXPECT_EQ(at(29, 10), 1.0f) << "inside the 10 px radius";
  EXPECT_EQ(at(31, 10), 0.0f);
  EXPECT_EQ(at(20, 4), 0.0f) << "outside the 5 px radius";
  EXPECT_EQ(at(20, 6), 1.0f);
  ASSERT_TRUE(controller.appendRadialGradient({0.5f, 0.5f}, 0.5f, 0.25f, 0.0f, 0.0f, true, false));
  EXPECT_EQ(at(20, 10), 0.0f);
  EXPECT_EQ(at(0, 0), 1.0f);
}

TEST(BrushController, FeatherAndDensityKeepThePaintedMask) {
  const auto layer = std::make_shared<AdjustmentLayer>(0);
  const _Size<int> size(120, 80);
  BrushController controller(layer, size, true);
  BrushSetting hard = softBrush(0.15f);
  hard.hardness = 1.0f;
  strokeDiagonal(controller, 10, hard);
  const MaskImage painted(*layer->mask());
  ASSERT_TRUE(controller.setMaskSetting(MaskSetting{0.5f, 0.6f}));
  const MaskImage filtered(*layer->mask());
  EXPECT_LE(*std::max_element(filtered.data, filtered.data + filtered.area()), 0.6f + 1e-6f);
  EXPECT_GT(*std::max_element(filtered.data, filtered.data + filtered.area()), 0.55f);
  EXPECT_TRUE(test::samePixels(*paintedMask(controller), painted)) << "the painted mask stays";

  ASSERT_TRUE(controller.setDensityFeatherApplied(false));
  EXPECT_TRUE(test::samePixels(*layer->mask(), painted));
  ASSERT_TRUE(controller.forceDensityFeatherApplying());
  EXPECT_TRUE(test::samePixels(*layer->mask(), filtered));

  // A dab with the filter on refreshes only around itself, yet equals filtering it all.
  ASSERT_TRUE(controller.startStroke());
  ASSERT_TRUE(controller.stroke(_Point<float>(0.85f, 0.2f), softBrush(0.05f)));
  ASSERT_TRUE(controller.finishStroke());
  MaskImage whole(size);
  detail::featherAndDensity(*paintedMask(controller), whole, whole.rect(),
                            detail::featherSigma(MaskSetting{0.5f, 0.6f}, 80), 0.6f);
  // Running sums started at another column round differently: equal up to float noise.
  float worst = 0.0f;
  for (int y = 0; y < size.height; ++y)
    for (int x = 0; x < size.width; ++x)
      worst = std::max(worst, std::fabs(layer->mask()->at(x, y) - whole.at(x, y)));
  EXPECT_LT(worst, 1e-5f);

  // The preview through an identity transform is the shown mask itself.
  const auto preview =
      controller.getMaskPreviewForTransformSettings(ImageTransformSettings::forCanvas(size));
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->size(), size);
  EXPECT_NEAR(preview->at(60, 40), layer->mask()->at(60, 40), 1e-5f);
}

TEST(BrushFilter, FeatherKeepsConstantsAndItsSigmaScalesWithTheCanvas) {
  MaskImage flat(_Size<int>(50, 30), 0.75f);
  MaskImage out(flat.size());
  detail::featherAndDensity(flat, out, out.rect(), 6.0f, 0.5f);
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 50; ++x) ASSERT_NEAR(out.at(x, y), 0.375f, 1e-6f);

  // A feather of 0.4 on a 200 px shorter side: sigma 4 px, so an impulse spreads that far.
  const float sigma = detail::featherSigma(MaskSetting{0.4f, 1.0f}, 200);
  EXPECT_FLOAT_EQ(sigma, 4.0f);
  MaskImage impulse(_Size<int>(101, 1), 0.0f);
  impulse.at(50, 0) = 1.0f;
  MaskImage spread(impulse.size());
  detail::featherAndDensity(impulse, spread, spread.rect(), sigma, 1.0f);
  double total = 0.0, variance = 0.0;
  for (int x = 0; x < 101; ++x) {
    total += spread.at(x, 0);
    variance += spread.at(x, 0) * (x - 50.0) * (x - 50.0);
  }
  EXPECT_NEAR(total, 1.0, 1e-5);
  EXPECT_NEAR(std::sqrt(variance), sigma, 0.4);
  EXPECT_EQ(detail::featherReach(0.0f), 0);
  EXPECT_EQ(detail::featherReach(NAN), 0);
}

TEST(BrushConcurrency, ThreadsPushWhileTheProcessorRenders) {
  test::Document doc(_Size<int>(64, 48));
  BrushController controller(doc.adjustment, _Size<int>(64, 48), false);
  ASSERT_TRUE(controller.startStroke());
  auto log = std::make_shared<test::ExecutionLog>();
  constexpr int kThreads = 4, kPerThread = 40;
  std::vector<std::thread> pushers;
  for (int t = 0; t < kThreads; ++t) {
    pushers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        const float x = 0.1f + 0.8f * static_cast<float>(i) / kPerThread;
        controller.getQueue()->pushOperation(std::make_shared<test::RecordingStroke>(
            "s", log, _Point<float>(x, 0.2f + 0.2f * static_cast<float>(t)), softBrush(0.04f)));
      }
    });
  }
  for (int r = 0; r < 4; ++r) ASSERT_TRUE(doc.render());
  for (std::thread& pusher : pushers) pusher.join();
  ASSERT_TRUE(controller.finishStroke());
  const auto result = doc.render();
  ASSERT_TRUE(result);
  EXPECT_EQ(log->get().size(), static_cast<std::size_t>(kThreads * kPerThread))
      << "no stroke is dropped without a clear or fill after it";
  const auto expected = test::byHand(doc);
  ASSERT_TRUE(expected);
  EXPECT_TRUE(test::sameRGB(*result, *expected));
  EXPECT_GT(std::count_if(doc.adjustment->mask()->data,
                          doc.adjustment->mask()->data + doc.adjustment->mask()->area(),
                          [](float v) { return v > 0.0f; }),
            100);
}

}  // namespace
}  // namespace vorn
