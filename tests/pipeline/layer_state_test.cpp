#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "pipeline/layer_test_support.h"
#include "support/log_capture.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/image_layer.h"
#include "vorn/pipeline/layer_conversion.h"

namespace vorn {
namespace {

TEST(LayerState, DefaultsAndTypes) {
  AdjustmentLayer adjustment(3);
  EXPECT_EQ(adjustment.type(), kAdjustmentLayer);
  EXPECT_EQ(static_cast<int>(adjustment.type()), 2);
  EXPECT_EQ(adjustment.level(), 3u);
  ImageLayer image(test::makePlainImage({40, 30}));
  EXPECT_EQ(static_cast<int>(image.type()), 1);
  EXPECT_EQ(image.level(), 0u);
  for (BaseLayer* layer : {static_cast<BaseLayer*>(&adjustment), static_cast<BaseLayer*>(&image)}) {
    EXPECT_TRUE(layer->isEnabled());
    EXPECT_EQ(layer->blendMode(), kBlendNormal);
    EXPECT_EQ(layer->opacity(), 1.0f);
    EXPECT_EQ(layer->getEffectAmount(), 1.0f);
    EXPECT_TRUE(layer->isUseMask());
    EXPECT_TRUE(layer->isNeedProcessing());
    EXPECT_FALSE(layer->isNeedReblend());
    EXPECT_FALSE(layer->isNeedProcessAmount());
    EXPECT_FALSE(layer->hasMask());
    EXPECT_FALSE(layer->maskThumbnail());
    EXPECT_TRUE(layer->getTags().empty());
    EXPECT_FALSE(layer->isNeedBlend());
  }
  EXPECT_EQ(image.transformSettings(), ImageTransformSettings::forCanvas({40, 30}));
}

TEST(LayerState, NeedBlendRuleAndReblendFlag) {
  AdjustmentLayer layer(0);
  layer.setOpacity(0.5f);
  EXPECT_TRUE(layer.isNeedBlend());
  EXPECT_TRUE(layer.isNeedReblend()) << "an opacity change only needs a reblend";
  layer.setOpacity(1.0f);
  layer.setNeedReblend(false);
  EXPECT_FALSE(layer.isNeedBlend());

  layer.setBlendMode(static_cast<BlendModeType>(5));
  EXPECT_TRUE(layer.isNeedBlend());
  layer.setBlendMode(kBlendNormal);
  layer.setNeedReblend(false);
  EXPECT_FALSE(layer.isNeedBlend());

  ASSERT_TRUE(layer.createMaskWithSize({8, 8}, 1.0f));
  EXPECT_TRUE(layer.isNeedBlend());
  layer.setNeedReblend(false);
  layer.setUseMask(false);
  EXPECT_TRUE(layer.isNeedReblend());
  layer.setNeedReblend(false);
  EXPECT_FALSE(layer.isNeedBlend()) << "an unused mask does not blend";
  layer.setNeedReblend(true);
  EXPECT_TRUE(layer.isNeedBlend());
}

TEST(LayerState, BadValuesAreClampedOrRefused) {
  test::LogCapture log;
  AdjustmentLayer layer(0);
  layer.setOpacity(0.25f);
  layer.setOpacity(std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(layer.opacity(), 0.25f);
  layer.setOpacity(7.0f);
  EXPECT_EQ(layer.opacity(), 1.0f);
  layer.setOpacity(-std::numeric_limits<float>::infinity());
  EXPECT_EQ(layer.opacity(), 0.0f);

  layer.setEffectAmount(std::nanf(""));
  EXPECT_EQ(layer.getEffectAmount(), 1.0f);
  EXPECT_FALSE(layer.isNeedProcessAmount()) << "a refused value changes nothing";
  layer.setEffectAmount(-2.0f);
  EXPECT_EQ(layer.getEffectAmount(), 0.0f);
  EXPECT_TRUE(layer.isNeedProcessAmount());
  layer.setNeedProcessAmount(false);
  EXPECT_FALSE(layer.isNeedProcessAmount());
  layer.setNeedProcessAmount(true);
  EXPECT_TRUE(layer.isNeedProcessAmount());

  layer.setBlendMode(static_cast<BlendModeType>(14));
  layer.setBlendMode(static_cast<BlendModeType>(-1));
  EXPECT_EQ(layer.blendMode(), kBlendNormal);
  EXPECT_FALSE(layer.createMaskWithSize({0, 10}, 0.5f));
  EXPECT_FALSE(layer.createMaskWithSize({10, -1}, 0.5f));
  EXPECT_FALSE(layer.hasMask());
  ASSERT_TRUE(layer.createMaskWithSize({3, 2}, std::nanf("")));
  ASSERT_TRUE(layer.mask());
  EXPECT_EQ(layer.mask()->at(2, 1), 0.0f);
  layer.setTag("");
  EXPECT_TRUE(layer.getTags().empty());
  EXPECT_EQ(log.countContaining("is NaN; the value is kept"), 2u);
  EXPECT_EQ(log.countContaining("Unknown blend mode"), 2u);
  EXPECT_EQ(log.countContaining("BaseLayer::createMaskWithSize("), 2u);
}

TEST(LayerState, TagsAndMaskOwnership) {
  AdjustmentLayer layer(0);
  layer.setTag("sky");
  layer.setTag("sky");
  layer.setTag("portrait");
  EXPECT_EQ(layer.getTags(), (std::vector<std::string>{"sky", "portrait"})) << "no duplicates";

  auto shared = std::make_shared<MaskImage>(_Size<int>(4, 4), 0.5f);
  layer.setMask(shared);
  EXPECT_EQ(layer.mask(), shared) << "a mutable mask is taken, not copied";
  layer.setMask(std::shared_ptr<const MaskImage>(shared));
  ASSERT_TRUE(layer.mask());
  EXPECT_NE(layer.mask(), shared) << "a const mask is copied";
  EXPECT_TRUE(test::samePixels(*layer.mask(), *shared));
  layer.setMask(nullptr);
  EXPECT_FALSE(layer.hasMask());
}

TEST(LayerState, TransformSettings) {
  ImageTransformSettings settings = ImageTransformSettings::forCanvas({400, 200});
  settings.layerToCanvas.translate(10.0f, 20.0f);
  settings.roi = _Rect<float>(100.0f, 50.0f, 200.0f, 100.0f);
  settings.outputSize = _Size<int>(100, 50);
  const _Point<float> p = settings.layerToOutput().transformPoint({90.0f, 30.0f});
  EXPECT_FLOAT_EQ(p.x, 0.0f);
  EXPECT_FLOAT_EQ(p.y, 0.0f);
  const _Point<float> q = settings.layerToOutput().transformPoint({290.0f, 130.0f});
  EXPECT_FLOAT_EQ(q.x, 100.0f);
  EXPECT_FLOAT_EQ(q.y, 50.0f);

  AdjustmentLayer layer(0);
  layer.setNeedProcessing(false);
  layer.setTransform(settings);
  EXPECT_TRUE(layer.isNeedProcessing());
  EXPECT_EQ(layer.transformSettings(), settings);
  layer.setNeedProcessing(false);
  layer.setTransform(settings);
  EXPECT_FALSE(layer.isNeedProcessing()) << "the same settings again change nothing";
}

TEST(LayerConversion, StateCarriesOverBothWays) {
  test::LogCapture log;
  auto adjustment = std::make_shared<AdjustmentLayer>(2);
  adjustment->setEnabled(false);
  adjustment->setBlendMode(static_cast<BlendModeType>(3));
  adjustment->setOpacity(0.4f);
  adjustment->setEffectAmount(0.7f);
  ASSERT_TRUE(adjustment->createMaskWithSize({20, 10}, 0.3f));
  adjustment->setUseMask(false);
  adjustment->setTag("kept");
  ImageTransformSettings settings = ImageTransformSettings::forCanvas({20, 10});
  settings.outputSize = _Size<int>(10, 5);
  adjustment->setTransform(settings);
  auto saturation = EffectFactory::instance().makeEffectWithID("VORNSaturationEffect");
  ASSERT_TRUE(saturation);
  adjustment->pushBackEffect(saturation);

  const auto image = convertLayer(adjustment, test::makePlainImage({20, 10}));
  ASSERT_TRUE(image);
  const auto back = convertLayer(std::shared_ptr<const ImageLayer>(image));
  ASSERT_TRUE(back);
  for (const BaseLayer* layer :
       {static_cast<const BaseLayer*>(image.get()), static_cast<const BaseLayer*>(back.get())}) {
    EXPECT_FALSE(layer->isEnabled());
    EXPECT_EQ(layer->level(), 2u);
    EXPECT_EQ(layer->blendMode(), 3);
    EXPECT_EQ(layer->opacity(), 0.4f);
    EXPECT_EQ(layer->getEffectAmount(), 0.7f);
    EXPECT_FALSE(layer->isUseMask());
    EXPECT_TRUE(layer->isTagPresent("kept"));
    EXPECT_EQ(layer->transformSettings(), settings);
    ASSERT_TRUE(layer->mask());
    EXPECT_NE(layer->mask(), adjustment->mask()) << "the mask is copied";
    EXPECT_TRUE(test::samePixels(*layer->mask(), *adjustment->mask()));
  }
  EXPECT_FALSE(back->hasEffects()) << "effects stay behind";

  EXPECT_FALSE(
      convertLayer(std::shared_ptr<const AdjustmentLayer>(), test::makePlainImage({2, 2})));
  EXPECT_FALSE(convertLayer(adjustment, nullptr));
  EXPECT_FALSE(convertLayer(std::shared_ptr<const ImageLayer>()));
  EXPECT_EQ(log.countContaining("convertLayer("), 3u);
}

}  // namespace
}  // namespace vorn
