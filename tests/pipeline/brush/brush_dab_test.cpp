#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numeric>

#include "pipeline/brush/brush_stamp.h"
#include "pipeline/brush/brush_test_support.h"
#include "pipeline/layer_test_support.h"
#include "support/log_capture.h"
#include "vorn/pipeline/brush/brush_queue.h"
#include "vorn/pipeline/brush/brush_utils.h"

namespace vorn {
namespace {

double sum(const MaskImage& mask) {
  double total = 0.0;
  for (int y = 0; y < mask.height; ++y)
    for (int x = 0; x < mask.width; ++x) total += mask.at(x, y);
  return total;
}

float maxValue(const MaskImage& mask) {
  return *std::max_element(mask.data, mask.data + mask.area());
}

/// A context ready to lay dabs: stroke started, buffers prepared.
std::shared_ptr<BrushContext> strokingContext(_Size<int> size) {
  auto context = test::makeContext(size);
  context->prepareStroke();
  context->startStroke();
  return context;
}

TEST(BrushDabs, PlacementFollowsTheSpacingAndKeepsTheRemainder) {
  test::LogCapture capture;
  BaseBrushContext context(nullptr, _Size<int>(200, 100));
  BrushSetting setting;
  setting.radius = 0.1f;
  setting.spacing = 0.5f;  // s = 0.4 * 0.1 * 1.5 = 0.06 shorter sides = 6 px
  EXPECT_TRUE(BrushUtils::generateStrokeBrushes({0.5f, 0.5f}, setting, &context).empty());
  EXPECT_EQ(capture.countEndingWith(" Can't stroke! Stroke isn't beeing in progress!"), 1u);

  context.startStroke();
  EXPECT_TRUE(context.hasNoLastPosition());
  auto dabs = BrushUtils::generateStrokeBrushes({0.5f, 0.5f}, setting, &context);
  ASSERT_EQ(dabs.size(), 1u);
  EXPECT_EQ(dabs[0], _Point<float>(0.5f, 0.5f)) << "the first point is the first dab";

  // 0.02 of a 200 px width is 4 px, below the 6 px spacing: nothing, the last dab stays.
  EXPECT_TRUE(BrushUtils::generateStrokeBrushes({0.52f, 0.5f}, setting, &context).empty());
  EXPECT_EQ(context.lastPosition(), _Point<float>(0.5f, 0.5f));

  // 20 px away: three dabs 6 px (0.03 of the width) apart, 2 px left pending.
  dabs = BrushUtils::generateStrokeBrushes({0.6f, 0.5f}, setting, &context);
  ASSERT_EQ(dabs.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(dabs[static_cast<std::size_t>(i)].x, 0.53f + 0.03f * static_cast<float>(i), 1e-6f);
    EXPECT_NEAR(dabs[static_cast<std::size_t>(i)].y, 0.5f, 1e-6f);
  }
  // The pending 2 px plus 4 more reach the next dab exactly.
  dabs = BrushUtils::generateStrokeBrushes({0.62f, 0.5f}, setting, &context);
  ASSERT_EQ(dabs.size(), 1u);
  EXPECT_NEAR(dabs[0].x, 0.62f, 1e-6f);
  // Vertically the 100 px height counts: 0.12 is 12 px, two dabs.
  dabs = BrushUtils::generateStrokeBrushes({0.62f, 0.62f}, setting, &context);
  ASSERT_EQ(dabs.size(), 2u);
  EXPECT_NEAR(dabs[0].y, 0.56f, 1e-6f);
  EXPECT_NEAR(dabs[1].y, 0.62f, 1e-6f);

  context.finishStroke();
  EXPECT_TRUE(context.hasNoLastPosition());
}

TEST(BrushDabs, BilinearSplitConservesTheStampSumAndClipsAtTheEdge) {
  const _Size<int> size(64, 64);
  BrushSetting setting;
  setting.radius = 0.1f;  // 12.8 px across: a 13 px stamp
  setting.hardness = 0.3f;
  const auto stamp = detail::makeStamp(setting, size, size, CropDescription());
  ASSERT_TRUE(stamp);
  ASSERT_EQ(stamp->size(), _Size<int>(13, 13));
  const double stampSum = sum(*stamp);
  for (const _Point<float> offset :
       {_Point<float>(0.0f, 0.0f), _Point<float>(0.3f, 0.7f), _Point<float>(0.5f, 0.25f)}) {
    auto context = strokingContext(size);
    const _Point<float> centre((32.0f + offset.x) / 64.0f, (30.0f + offset.y) / 64.0f);
    _Rect<int> changed;
    ASSERT_TRUE(BrushUtils::processStroke(centre, setting, context.get(), changed));
    EXPECT_NEAR(sum(*context->mask()), stampSum, 1e-3) << offset.x << "," << offset.y;
    // The corner is at centre - 6.5 + 1; its floor is where the 14 x 14 footprint begins.
    const int left = static_cast<int>(std::floor(32.0f + offset.x - 5.5f));
    const int top = static_cast<int>(std::floor(30.0f + offset.y - 5.5f));
    EXPECT_EQ(changed, _Rect<int>(left, top, 14, 14));
  }
  // Half the dab off the left edge: clipped, so less than the stamp, nothing written outside.
  auto context = strokingContext(size);
  _Rect<int> changed;
  ASSERT_TRUE(BrushUtils::processStroke({0.0f, 0.5f}, setting, context.get(), changed));
  EXPECT_EQ(changed.x, 0);
  EXPECT_EQ(changed.width, 8);
  EXPECT_LT(sum(*context->mask()), stampSum * 0.75);
  EXPECT_GT(sum(*context->mask()), stampSum * 0.25);
  // Far off the canvas: no footprint, nothing written.
  context = strokingContext(size);
  ASSERT_TRUE(BrushUtils::processStroke({-50.0f, 80.0f}, setting, context.get(), changed));
  EXPECT_TRUE(changed.isZero());
  EXPECT_EQ(sum(*context->mask()), 0.0);
}

TEST(BrushDabs, OneStrokeStopsAtItsOpacityAndEraseMirrorsPaint) {
  const _Size<int> size(48, 48);
  BrushSetting setting;
  setting.radius = 0.2f;
  setting.hardness = 1.0f;
  setting.opacity = 0.5f;
  setting.flow = 0.7f;
  auto context = strokingContext(size);
  _Rect<int> changed;
  for (int i = 0; i < 40; ++i)
    BrushUtils::processStroke({0.5f + 0.01f * static_cast<float>(i % 2), 0.5f}, setting,
                              context.get(), changed);
  EXPECT_NEAR(maxValue(*context->mask()), 0.5f, 1e-6f) << "reached, never passed";
  context->finishStroke();
  context->startStroke();
  for (int i = 0; i < 40; ++i)
    BrushUtils::processStroke({0.5f + 0.01f * static_cast<float>(i % 2), 0.5f}, setting,
                              context.get(), changed);
  EXPECT_NEAR(context->mask()->at(24, 24), 0.75f, 1e-6f) << "a second stroke adds its share";
  context->finishStroke();
  context->setBrushMode(kBrushModeErase);
  context->startStroke();
  setting.opacity = 1.0f;
  setting.flow = 1.0f;
  BrushUtils::processStroke({0.5f, 0.5f}, setting, context.get(), changed);
  EXPECT_EQ(context->mask()->at(24, 24), 0.0f);
  EXPECT_EQ(context->mask()->at(0, 0), 0.0f);
}

TEST(BrushDabs, CancelRestoresTheMaskExactly) {
  const _Size<int> size(150, 130);  // not a multiple of the snapshot block
  auto context = test::makeContext(size);
  test::fillNoise(*context->mask(), 7);
  ASSERT_TRUE(context->prepareStroke());
  BrushSetting setting;
  setting.radius = 0.15f;
  const auto strokeAcross = [&](float y) {
    context->startStroke();
    _Rect<int> changed;
    for (int i = 0; i <= 20; ++i)
      BrushUtils::processStroke({0.05f * static_cast<float>(i), y}, setting, context.get(),
                                changed);
  };
  strokeAcross(0.3f);
  context->finishStroke();
  const MaskImage afterFirst(*context->mask());
  strokeAcross(0.9f);
  EXPECT_FALSE(test::samePixels(*context->mask(), afterFirst));
  _Rect<int> restored;
  ASSERT_TRUE(BrushUtils::processCancelStroke(context.get(), restored));
  EXPECT_TRUE(test::samePixels(*context->mask(), afterFirst));
  EXPECT_EQ(restored.y + restored.height, size.height) << "the touched blocks reach the edge";
  EXPECT_EQ(restored.width, size.width);
}

/// The same lined-up stroke sequence, on a synchronous or a threaded queue.
std::shared_ptr<MaskImage> paintSequence(bool synchronous) {
  auto context = test::makeContext(_Size<int>(120, 90));
  test::fillNoise(*context->mask(), 3);
  BrushQueue queue(context, synchronous);
  BrushSetting setting;
  setting.radius = 0.08f;
  setting.flow = 0.6f;
  setting.opacity = 0.8f;
  for (BrushMode mode : {kBrushModePaint, kBrushModeErase}) {
    queue.pushOperation(std::make_shared<SetBrushModeOperation>(mode));
    queue.pushOperation(std::make_shared<StartStrokeOperation>());
    queue.pushOperation(std::make_shared<BrushPrepareStrokeOperation>());
    queue.pushOperation(std::make_shared<BrushBeginChangeMaskOperation>());
    for (int i = 0; i < 60; ++i) {
      const float t = static_cast<float>(i) / 60.0f;
      queue.pushOperation(std::make_shared<StrokeOperation>(
          _Point<float>(t,
                        0.5f + 0.3f * std::sin(7.0f * t + (mode == kBrushModeErase ? 1.0f : 0.0f))),
          setting));
    }
    queue.pushOperation(std::make_shared<FinishStrokeOperation>());
  }
  queue.wait();
  return context->mask();
}

TEST(BrushDabs, SynchronousAndThreadedQueuesPaintTheSameBits) {
  const auto direct = paintSequence(true);
  const auto threaded = paintSequence(false);
  ASSERT_TRUE(direct && threaded);
  EXPECT_TRUE(test::samePixels(*direct, *threaded));
  MaskImage untouched(direct->size());
  test::fillNoise(untouched, 3);
  EXPECT_FALSE(test::samePixels(*direct, untouched)) << "the sequence must paint something";
}

TEST(BrushDabs, BadStrokeInputIsRefused) {
  test::LogCapture capture;
  auto context = test::makeContext(_Size<int>(32, 32));
  context->startStroke();
  BrushSetting setting;
  _Rect<int> changed(1, 2, 3, 4);
  EXPECT_FALSE(BrushUtils::processStroke({0.5f, 0.5f}, setting, context.get(), changed));
  EXPECT_EQ(capture.countEndingWith(" Incosistence in fbuffers sizes."), 1u);
  EXPECT_TRUE(changed.isZero());
  ASSERT_TRUE(context->prepareStroke());

  setting.radius = 0.0f;
  EXPECT_FALSE(BrushUtils::processStroke({0.5f, 0.5f}, setting, context.get(), changed));
  EXPECT_EQ(capture.countEndingWith(" The brush radius must be positive"), 1u);
  setting.radius = NAN;
  EXPECT_FALSE(BrushUtils::processStroke({0.5f, 0.5f}, setting, context.get(), changed));
  setting.radius = 0.1f;
  setting.flow = INFINITY;
  EXPECT_FALSE(BrushUtils::processStroke({0.5f, 0.5f}, setting, context.get(), changed));
  EXPECT_EQ(capture.countEndingWith(" The brush setting has a field that is not finite"), 2u);
  setting.flow = 1.0f;
  EXPECT_TRUE(BrushUtils::processStroke({NAN, 0.5f}, setting, context.get(), changed));
  EXPECT_TRUE(changed.isZero()) << "a NaN point places no dab";
  EXPECT_TRUE(context->hasNoLastPosition());

  // A radius beyond the canvas is clamped to it; the dab covers the canvas.
  setting.radius = 50.0f;
  setting.hardness = 1.0f;
  EXPECT_TRUE(BrushUtils::processStroke({0.5f, 0.5f}, setting, context.get(), changed));
  EXPECT_EQ(changed, _Rect<int>(0, 0, 32, 32));
  EXPECT_EQ(context->mask()->at(16, 16), 1.0f);

  // A point a million canvases away after one on the canvas: bounded work, no crash.
  setting.radius = 0.01f;
  EXPECT_TRUE(BrushUtils::processStroke({1e6f, 1e6f}, setting, context.get(), changed));
  EXPECT_EQ(capture.countContaining("A stroke segment was cut at"), 1u);

  _Rect<int> restored;
  EXPECT_FALSE(BrushUtils::processCancelStroke(nullptr, restored));
}

}  // namespace
}  // namespace vorn
