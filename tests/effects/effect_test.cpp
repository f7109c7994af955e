#include "vorn/effects/effect.h"

#include <gtest/gtest.h>

#include "effects/effect_test_support.h"
#include "support/log_capture.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/effects/effects_array.h"

namespace vorn {
namespace {

const std::string kInvalidLine =
    "void vorn::Effect::setParameters(const std::vector<vorn::Parameter>&) Parameters is invalid! "
    "Effect will be processed with default parameters\n";

/// A minimal effect with two parameters whose processing can be told to fail.
class ProbeEffect : public Effect {
 public:
  ProbeEffect() { setParametersDefault(); }
  explicit ProbeEffect(const std::string& id) : Effect(id) { setParametersDefault(); }
  bool processImage(EffectCallContext&) override { return succeed; }
  std::vector<Parameter> declaredParameters() const override {
    return {Parameter("Amount", -100, 100, 0, false), Parameter("Size", 0, 10, 5, false)};
  }
  bool succeed = true;
};

TEST(EffectTest, DefaultConstructedEffect) {
  ProbeEffect effect;
  EXPECT_EQ(effect.id(), "VORNEffect");
  EXPECT_TRUE(effect.isNeedRecompute());
  EXPECT_FALSE(effect.isNeedProcessing());
  EXPECT_EQ(effect.getCurrentParameters().size(), 2u);
  EXPECT_EQ(effect.getInRectForOutRect(_Rect<int>(1, 2, 3, 4)), _Rect<int>(1, 2, 3, 4));
  EXPECT_EQ(effect.getOutRectForInRect(_Rect<int>(1, 2, 3, 4)), _Rect<int>(1, 2, 3, 4));
  EXPECT_FALSE(effect.needFaces());
  EXPECT_FALSE(effect.getPrarmetersContext());
}

TEST(EffectTest, SetParametersAppliesAMatchingList) {
  ProbeEffect effect;
  effect.setNeedRecompute(false);
  auto list = effect.getCurrentParameters();
  list[0].setValue(30);
  effect.setParameters(list);
  EXPECT_EQ(effect.parameters()[0].value(), 30);
  EXPECT_TRUE(effect.isNeedRecompute());
  EXPECT_TRUE(effect.isNeedProcessing());

  // The same values again still ask for recomputation.
  effect.setNeedRecompute(false);
  effect.setParameters(effect.getCurrentParameters());
  EXPECT_TRUE(effect.isNeedRecompute());
}

TEST(EffectTest, WrongListsFallBackToDefaultsWithOneLine) {
  ProbeEffect effect;
  auto tooMany = effect.getCurrentParameters();
  tooMany[0].setValue(30);
  tooMany.push_back(Parameter("Extra", 0, 1, 0, false));
  testing::internal::CaptureStderr();
  effect.setParameters(tooMany);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kInvalidLine);
  EXPECT_EQ(effect.parameters().size(), 2u);
  EXPECT_EQ(effect.parameters()[0].value(), 0);

  // Right length, another type at position 1.
  auto otherType = effect.getCurrentParameters();
  otherType[0].setValue(30);
  otherType[1] = Parameter("Size", 0, 10, 6, false);
  testing::internal::CaptureStderr();
  effect.setParameters(otherType);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kInvalidLine);
  EXPECT_EQ(effect.parameters()[0].value(), 0);

  // An empty list is a silent reset.
  auto changed = effect.getCurrentParameters();
  changed[1].setValue(9);
  effect.setParameters(changed);
  testing::internal::CaptureStderr();
  effect.setParameters({});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(effect.parameters()[1].value(), 5);
  EXPECT_FALSE(effect.isNeedProcessing());
}

TEST(EffectTest, MappedValueIsPiecewiseLinearAroundTheMidpoint) {
  ProbeEffect effect;
  const auto mapped = [&](float value) {
    effect.parameters()[0].setValue(value);
    return effect.mappedValue(0, 0.6f, 1.0f, 1.56f);
  };
  EXPECT_FLOAT_EQ(mapped(-100), 0.6f);
  EXPECT_FLOAT_EQ(mapped(-50), 0.8f);
  EXPECT_FLOAT_EQ(mapped(0), 1.0f);
  EXPECT_FLOAT_EQ(mapped(50), 1.28f);
  EXPECT_FLOAT_EQ(mapped(100), 1.56f);
  // "Size" 0 ... 10 has its midpoint at 5.
  effect.parameters()[1].setValue(2.5f);
  EXPECT_FLOAT_EQ(effect.mappedValue(1, -1, 0, 3), -0.5f);
  EXPECT_FLOAT_EQ(effect.mappedValue(7, -1, 0.25f, 3), 0.25f);
}

TEST(EffectTest, WrapperLogsAFailureOnce) {
  test::LogCapture log;
  const std::size_t modules = enabledLogModules();
  LOG_SYSTEMS(modules | static_cast<std::size_t>(ModuleName::Memory));
  ProbeEffect effect("VORNProbe");
  auto source = test::makeTestImage(40, 30);
  EffectCallContext call(source, std::make_shared<test::ImageRGBf>(source->size()), nullptr, {},
                         nullptr, nullptr);
  EXPECT_TRUE(effect.processImageWrapper(call));
  EXPECT_EQ(log.countContaining("image failed!"), 0u);
  effect.succeed = false;
  EXPECT_FALSE(effect.processImageWrapper(call));
  Logger::LogInstance().Flush();
  EXPECT_EQ(log.countEndingWith("VORNProbe processing 40 x 30 image failed!"), 1u);
  for (const LogMessage& message : log.messages()) {
    if (message.text.find("image failed!") == std::string::npos) continue;
    EXPECT_EQ(message.type, LogMessageType::CriticalError);
    EXPECT_EQ(message.module, ModuleName::Memory);
  }
  LOG_SYSTEMS(modules);
}

TEST(EffectTest, CloneKeepsIdValuesAndParametersContextButNotContext) {
  const auto parametersContext = std::make_shared<const EffectParametersContext>();
  auto effect =
      EffectFactory::instance().makeEffectWithID("VORNHighlightsEffect", parametersContext);
  ASSERT_TRUE(effect);
  // The context is observable through the reach of this neighbourhood effect.
  auto context = std::make_shared<EffectContext>();
  context->scale = 0.1f;
  effect->setContext(context);
  auto list = effect->getCurrentParameters();
  list[1].setValue(-35);
  effect->setParameters(list);

  const auto copy = effect->clone();
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->id(), "VORNHighlightsEffect");
  EXPECT_EQ(copy->parameters()[1].value(), -35);
  EXPECT_TRUE(copy->parameters()[1].isNonDefault());
  EXPECT_EQ(copy->getPrarmetersContext(), parametersContext);
  const _Rect<int> out(100, 100, 10, 10);
  EXPECT_NE(copy->getInRectForOutRect(out), effect->getInRectForOutRect(out));
  copy->setContext(context);
  EXPECT_EQ(copy->getInRectForOutRect(out), effect->getInRectForOutRect(out));
}

TEST(EffectTest, GroupRunsItsChainInOrder) {
  const EffectFactory& factory = EffectFactory::instance();
  auto group = factory.makeEffectWithID("VORNDevelopCommonEffectID", nullptr);
  // Parameters: Exposure, Smart Tone, Highlights, Shadows, Whites, Blacks, Contrast.
  ASSERT_EQ(group->parameters().size(), 7u);
  group->parameters()[0].setValue(50);
  group->parameters()[6].setValue(-30);
  auto exposure = factory.makeEffectWithID("VORNExposureEffect", nullptr);
  exposure->parameters()[0].setValue(50);
  auto contrast = factory.makeEffectWithID("VORNContrastEffect", nullptr);
  contrast->parameters()[0].setValue(-30);

  const auto source = test::makeTestImage();
  const auto chained = test::render(*contrast, test::render(*exposure, source));
  EXPECT_EQ(test::maxDifference(*test::render(*group, source), *chained), 0.0f);
}

TEST(EffectTest, GroupRoutesItsOwnParameters) {
  auto sky = std::dynamic_pointer_cast<EffectsArrayBase>(
      EffectFactory::instance().makeEffectWithID("VORNSkyEnhancerEffect", nullptr));
  sky->parameters()[0].setValue(80);
  const auto inner = sky->configuredInnerEffects();
  ASSERT_EQ(inner.size(), 4u);
  EXPECT_EQ(inner[0]->id(), "VORNDehazeEffect");
  EXPECT_FLOAT_EQ(inner[0]->parameters()[0].value(), 40);
  EXPECT_FLOAT_EQ(inner[2]->parameters()[0].value(), -32);
  EXPECT_EQ(inner[2]->parameters()[1].value(), 0);
}

}  // namespace
}  // namespace vorn
