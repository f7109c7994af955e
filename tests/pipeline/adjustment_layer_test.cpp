#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "pipeline/layer_test_support.h"
#include "support/log_capture.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/image_layer.h"

namespace vorn {
namespace {

std::shared_ptr<Effect> makeEffect(const std::string& id) {
  return EffectFactory::instance().makeEffectWithID(id);
}

TEST(AdjustmentLayerChain, OperationsAndBounds) {
  test::LogCapture log;
  AdjustmentLayer layer(1);
  const auto a = makeEffect("VORNSaturationEffect");
  const auto b = makeEffect("VORNVibranceEffect");
  const auto c = makeEffect("VORNPolarizeEffect");
  ASSERT_TRUE(a && b && c);
  EXPECT_FALSE(layer.hasEffects());
  EXPECT_TRUE(layer.pushBackEffect(a));
  EXPECT_TRUE(layer.pushBackEffect(c));
  EXPECT_TRUE(layer.insertEffectAtIndex(b, 1));
  EXPECT_EQ(layer.effectsCount(), 3u);
  EXPECT_EQ(layer.effectAtIndex(0), a);
  EXPECT_EQ(layer.effectAtIndex(1), b);
  EXPECT_EQ(layer.effectAtIndex(2), c);
  EXPECT_EQ(layer.effectIndex(c), 2);

  const auto stranger = makeEffect("VORNSaturationEffect");
  EXPECT_EQ(layer.effectIndex(stranger), -1);
  EXPECT_EQ(layer.effectIndex(nullptr), -1);
  EXPECT_FALSE(layer.effectAtIndex(3));
  EXPECT_TRUE(layer.getEffectParameters(3).empty());
  EXPECT_FALSE(layer.insertEffectAtIndex(stranger, 4));
  EXPECT_FALSE(layer.insertEffectAtIndex(nullptr, 0));
  EXPECT_FALSE(layer.pushBackEffect(nullptr));
  EXPECT_FALSE(layer.removeEffectAtIndex(3));
  EXPECT_FALSE(layer.removeEffect(stranger));
  EXPECT_FALSE(layer.removeEffect(nullptr));
  EXPECT_EQ(layer.effectsCount(), 3u) << "refused calls change nothing";
  EXPECT_GE(log.countContaining("AdjustmentLayer::"), 8u);

  ASSERT_TRUE(a->parameters().size() > 0);
  a->parameters()[0].setValue(a->parameters()[0].maxValue());
  const auto all = layer.getEffectsParameters();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0][0].value(), a->parameters()[0].maxValue());
  EXPECT_EQ(layer.getEffectParameters(2).size(), c->parameters().size());

  EXPECT_TRUE(layer.removeEffect(b));
  EXPECT_EQ(layer.effectIndex(c), 1);
  EXPECT_TRUE(layer.removeEffectAtIndex(0));
  EXPECT_EQ(layer.effectAtIndex(0), c);
  EXPECT_TRUE(layer.insertEffectAtIndex(a, 1)) << "the end is a valid place";
  EXPECT_EQ(layer.effectIndex(a), 1);
}

TEST(AdjustmentLayerChain, NeedProcessingFollowsEffects) {
  AdjustmentLayer layer(0);
  const auto effect = makeEffect("VORNSaturationEffect");
  ASSERT_TRUE(effect);
  layer.pushBackEffect(effect);
  layer.setNeedProcessing(false);
  effect->setNeedRecompute(true);
  EXPECT_TRUE(layer.isNeedProcessing());
  effect->setNeedRecompute(false);
  EXPECT_FALSE(layer.isNeedProcessing());
  layer.removeEffect(effect);
  EXPECT_TRUE(layer.isNeedProcessing()) << "a chain change needs processing";

  EXPECT_FALSE(layer.isLensCorrectionLayer());
  const auto lens = makeEffect("VORNLensCorrectionEffect");
  ASSERT_TRUE(lens);
  layer.pushBackEffect(makeEffect("VORNVibranceEffect"));
  layer.pushBackEffect(lens);
  EXPECT_FALSE(layer.isLensCorrectionLayer()) << "only the first effect counts";
  layer.insertEffectAtIndex(lens->clone(), 0);
  EXPECT_TRUE(layer.isLensCorrectionLayer());
}

TEST(AdjustmentLayerCopy, EffectsAreClonedWithTheirValues) {
  auto image = std::make_shared<ImageLayer>(test::makePlainImage({8, 8}));
  AdjustmentLayer layer(2);
  layer.setBaseImageLayer(image);
  const auto effect = makeEffect("VORNSaturationEffect");
  ASSERT_TRUE(effect && !effect->parameters().empty());
  effect->parameters()[0].setValue(effect->parameters()[0].minValue());
  layer.pushBackEffect(effect);
  ASSERT_TRUE(layer.createMaskWithSize({8, 8}, 0.5f));
  layer.setTag("original");

  const auto copy = std::dynamic_pointer_cast<AdjustmentLayer>(layer.copy());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->level(), 2u);
  EXPECT_EQ(copy->getBaseImageLayer(), image) << "the link is kept";
  ASSERT_EQ(copy->effectsCount(), 1u);
  const auto cloned = copy->effectAtIndex(0);
  ASSERT_TRUE(cloned);
  EXPECT_NE(cloned, effect);
  EXPECT_EQ(cloned->id(), effect->id());
  EXPECT_EQ(cloned->parameters()[0].value(), effect->parameters()[0].minValue());

  cloned->parameters()[0].setValue(cloned->parameters()[0].maxValue());
  copy->removeEffectAtIndex(0);
  ASSERT_TRUE(copy->mask());
  copy->mask()->setFillWith(1.0f);
  copy->setTag("copy");
  EXPECT_EQ(layer.effectsCount(), 1u);
  EXPECT_EQ(effect->parameters()[0].value(), effect->parameters()[0].minValue());
  EXPECT_EQ(layer.mask()->at(3, 3), 0.5f);
  EXPECT_FALSE(layer.isTagPresent("copy"));

  // Neither layer keeps the other alive: the link back is weak.
  image.reset();
  EXPECT_FALSE(layer.getBaseImageLayer());
}

}  // namespace
}  // namespace vorn

namespace vorn {
namespace {

// A layer rendering part of the canvas tells its effects where that part lies, so an effect
// placed on the frame (a vignette) draws the part exactly as it draws it in the whole canvas.
TEST(AdjustmentLayerContext, AnEffectOnAPartOfTheCanvasRendersItAsInTheWhole) {
  const auto whole =
      std::make_shared<_ImageData<PixelRGB<float>>>(_Size<int>(200, 150), PixelRGB<float>(0.5f));
  const auto vignetteOn = [](const ImageTransformSettings& settings) {
    AdjustmentLayer layer(1);
    auto effect = makeEffect("VORNVignetteEffect");
    effect->parameters()[0].setValue(-100.0f);
    layer.pushBackEffect(effect);
    layer.setTransform(settings);
    return effect;
  };
  // The canvas is 400 x 300, rendered at half size: whole, then a 200 x 150 part of it.
  ImageTransformSettings full = ImageTransformSettings::forCanvas(_Size<int>(400, 300));
  full.outputSize = _Size<int>(200, 150);
  ImageTransformSettings part = full;
  part.roi = _Rect<float>(100.0f, 50.0f, 200.0f, 150.0f);
  part.outputSize = _Size<int>(100, 75);
  const auto wholeRender = std::make_shared<_ImageData<PixelRGB<float>>>(whole->size());
  EffectCallContext wholeCall(whole, wholeRender, nullptr, {}, nullptr, nullptr);
  ASSERT_TRUE(vignetteOn(full)->processImage(wholeCall));
  const auto crop = whole->copy(_Rect<int>(50, 25, 100, 75));
  ASSERT_TRUE(crop);
  const auto partRender = std::make_shared<_ImageData<PixelRGB<float>>>(crop->size());
  EffectCallContext partCall(crop, partRender, nullptr, {}, nullptr, nullptr);
  ASSERT_TRUE(vignetteOn(part)->processImage(partCall));
  float worst = 0.0f;
  for (int y = 0; y < 75; ++y)
    for (int x = 0; x < 100; ++x)
      worst =
          std::max(worst, std::fabs(partRender->at(x, y).g - wholeRender->at(50 + x, 25 + y).g));
  EXPECT_LE(worst, 1e-6f);
  // The part's corner is not the canvas's corner: it is darkened less.
  EXPECT_GT(partRender->at(0, 0).g, wholeRender->at(0, 0).g + 0.1f);
}

}  // namespace
}  // namespace vorn
