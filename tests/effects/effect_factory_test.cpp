#include "vorn/effects/effect_factory.h"
#include "vorn/effects/effect_ids.h"

#include <gtest/gtest.h>

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include "vorn/effects/creative_effects.h"
#include "vorn/effects/effects_array.h"
#include "vorn/effects/tone_effects.h"

namespace vorn {
namespace {

const std::string kUnsupportedLine =
    "std::shared_ptr<vorn::Effect> vorn::EffectFactory::makeEffectWithID(const std::string&, "
    "std::shared_ptr<const vorn::EffectParametersContext>) const Can't create effect. Effect "
    "isn't supported!\n";

// The identifier table in registration order, with the class each identifier makes.
const std::vector<std::pair<std::string, std::string>> kRegistry = {
    {"VORNSimpleBlurEffect", "BlurEffect"},
    {"VORNFillColorEffect", "FillColorEffect"},
    {"VORNExposureEffect", "ExposureEffect"},
    {"VORNContrastEffect", "ContrastEffect"},
    {"VORNContrastLumaEffect", "ContrastLumaEffect"},
    {"VORNContrastAutoEffect", "ContrastAutoEffect"},
    {"VORNDynBrightnessEffect", "DynBrightnessEffect"},
    {"VORNHighlightsEffect", "HighlightsEffect"},
    {"VORNBlackWhiteEffect", "BlackWhiteEffect"},
    {"VORNSaturationEffect", "SaturationEffect"},
    {"VORNVibranceEffect", "VibranceEffect"},
    {"VORNRamixSaturationEffect", "RamixSaturationEffect"},
    {"VORNRamixVibranceEffect", "RamixVibranceEffect"},
    {"VORNPolarizeEffect", "PolarizeEffect"},
    {"VORNClarityEffect", "ClarityEffect"},
    {"VORNStructureEffect", "StructureEffect"},
    {"VORNStructureHDREffect", "StructureHDREffect"},
    {"VORNWhiteBalanceEffect", "WhiteBalanceEffect"},
    {"VORNVignetteEffect", "VignetteEffect"},
    {"VORNFoliageEnhanceEffect", "FoliageEnhanceEffect"},
    {"VORNDepthEffect", "DepthEffect"},
    {"VORNToolGraduatedNaturalDensityEffect", "ToolGraduatedNaturalDensityEffect"},
    {"VORNGlowEffect", "GlowEffect"},
    {"VORNHighKeyEffect", "HighKeyEffect"},
    {"VORNGrainNewEffect", "GrainNewEffect"},
    {"VORNBWChannelsEffect", "BWChannelsEffect"},
    {"VORNCurveEffect", "CurveEffect"},
    {"VORNSplitToningEffect", "SplitToningEffect"},
    {"VORNTextureOverlayEffect", "TextureOverlayEffect"},
    {"VORNColorContrastEffect", "ColorContrastEffect"},
    {"VORNRawWhiteBalanceEffect", "RawWhiteBalanceEffect"},
    {"VORNSmartBlurEffect", "SmartBlurEffect"},
    {"VORNChannelsEffect", "ChannelsEffect"},
    {"VORNSmartContrastEffect", "SmartContrastEffect"},
    {"VORNSharpenEffect", "SharpenEffect"},
    {"VORNHighPassFilterEffect", "HighPassFilterEffect"},
    {"VORNSplitWarmthEffect", "SplitWarmthEffect"},
    {"VORNBiColorEffect", "BiColorEffect"},
    {"VORNPhotoFilterEffect", "PhotoFilterEffect"},
    {"VORNContrastColorRangeEffect", "ContrastColorRangeEffect"},
    {"VORNColorsTintEffect", "ColorsTintEffect"},
    {"VORNFocusBlurDevEffect", "FocusBlurDevEffect"},
    {"VORNLensCorrectionEffect", "LensCorrectionEffect"},
    {"VORNRemoveColorCastEffect", "RemoveColorCastEffect"},
    {"VORNCrossProcessingEffect", "CrossProcessingEffect"},
    {"VORNPhotoshopBrightnessEffect", "PhotoshopBrightnessEffect"},
    {"VORNAdjustableGraduatedEffect", "AdjustableGraduatedEffect"},
    {"VORNChannelMixerEffect", "ChannelMixerEffect"},
    {"VORNRawDevelopEffect", "RawDevelopEffect"},
    {"VORNDevelopCommonEffectID", "DevelopCommonEffect"},
    {"VORNRawDevelopCommonEffectID", "DevelopCommonEffectRaw"},
    {"VORNDodgeBurnEffect", "DodgeBurnEffect"},
    {"VORNMicroStructureEffect", "MicroStructureEffect"},
    {"VORNDenoiseLaplacianEffect", "DenoiseLaplacianEffect"},
    {"VORNDenoiseLaplacianNLBEffect", "DenoiseLaplacianNLBEffect"},
    {"VORNLensVignetteEffect", "LensVignetteEffect"},
    {"VORNColorBalanceEffect", "ColorBalanceEffect"},
    {"VORNComplexBleachEffect", "ComplexBleachEffect"},
    {"VORNDenoiseCoarseEffect", "DenoiseCoarseEffect"},
    {"VORNDenoiseEffect", "DenoiseEffect"},
    {"VORNSmoothAreaEffect", "SmoothAreaEffect"},
    {"VORNDenoiseStructureEffect", "DenoiseStructureEffect"},
    {"VORNDenoiseDetailsEffect", "DenoiseDetailsEffect"},
    {"VORNFogFilterEffect", "FogFilterEffect"},
    {"VORNSoftFocusFilterEffect", "SoftFocusFilterEffect"},
    {"VORNOrtonFilterEffect", "OrtonFilterEffect"},
    {"VORNWarmSkylightEffect", "WarmSkylightEffect"},
    {"VORNDehazeEffect", "DehazeEffect"},
    {"VORNDetailsEffect", "DetailsEffect"},
    {"VORNSunLightRaysEffect", "SunLightRaysEffect"},
    {"VORNShadowsEffect", "ShadowsEffect"},
    {"VORNApplyDetailsDEVELOPEffect", "ApplyDetailsDEVELOPEffect"},
    {"VORNHDRBasicCommonEffectID", "HDRBasicCommonEffect"},
    {"VORNHDRBasicCommonEffectRawID", "HDRBasicCommonEffectRaw"},
    {"VORNBrillianceWarmthEffect", "BrillianceWarmthEffect"},
    {"VORNLUTMappingEffect", "LUTMappingEffect"},
    {"VORNFadeEffect", "FadeEffect"},
    {"VORNHueShiftEffect", "HueShiftEffect"},
    {"VORNSkyEnhancerEffect", "SkyEnhancerEffect"},
    {"VORNSuperStructureEffect", "SuperStructureEffect"},
    {"VORNDynamicContrastEffect", "Accent20Effect"},
    {"VORNExposureEffectHDR", "ExposureEffectHDR"},
    {"VORNDynBrightnessEffectHDR", "DynBrightnessEffectHDR"},
    {"VORNHighlightsEffectHDR", "HighlightsEffectHDR"},
    {"VORNContrastEffectHDR", "ContrastEffectHDR"},
    {"VORNAdjustableGraduatedEffectHDR", "AdjustableGraduatedEffectHDR"},
    {"VORNFaceEffect", "FaceEffect"},
    {"VORNFaceSkinSoftenerEffect", "FaceSkinSoftenerEffect"},
    {"VORNRamixDynamicContrastEffect", "RamixDynamicContrastEffect"},
};

std::string className(const Effect& effect) {
  int status = 0;
  char* name = abi::__cxa_demangle(typeid(effect).name(), nullptr, nullptr, &status);
  std::string text = status == 0 ? name : typeid(effect).name();
  std::free(name);
  return text.rfind("vorn::", 0) == 0 ? text.substr(6) : text;
}

TEST(EffectFactoryTest, RegistersExactlyTheTableSortedWithItsClasses) {
  const auto ids = EffectFactory::instance().supportedEffects();
  std::vector<std::string> expected;
  for (const auto& [id, cls] : kRegistry) expected.push_back(id);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(ids, expected);
  for (const auto& [id, cls] : kRegistry) {
    const auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
    ASSERT_TRUE(effect) << id;
    EXPECT_EQ(className(*effect), cls) << id;
  }
  EXPECT_EQ(&EffectFactory::instance(), &EffectFactory::instance());
}

TEST(EffectFactoryTest, EveryEffectCarriesItsIdentifierAndDefaults) {
  for (const std::string& id : EffectFactory::instance().supportedEffects()) {
    SCOPED_TRACE(id);
    const auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
    ASSERT_TRUE(effect);
    EXPECT_EQ(effect->id(), id);
    EXPECT_FALSE(effect->isNeedProcessing());
    EXPECT_FALSE(effect->getPrarmetersContext());
  }
}

TEST(EffectFactoryTest, UnknownAndWrongCaseIdentifiersAreRefused) {
  const std::vector<std::string> unregistered = {"VORNAutoCTEffect",
                                                 "VORNBlackAndWhiteOverlayPixelsEffect",
                                                 "VORNColorsInversionEffect",
                                                 "VORNDynamicContrastOldEffect",
                                                 "VORNFillWithColorEffect",
                                                 "VORNFocusBlurFastEffect",
                                                 "VORNGaussianBlurEffect",
                                                 "VORNGradientBlurEffect",
                                                 "VORNHotAndColdPixelsEffect",
                                                 "VORNImageSoftenerEffect",
                                                 "VORNRamixAccentAIExpertEffect",
                                                 "VORNMotionBlurEffect",
                                                 "VORNRawDevelopDenoiseEffect",
                                                 "VORNSegmentationEffect",
                                                 "VORNSimpleFocusBlurEffect",
                                                 "VORNZoomBlurEffect"};
  EXPECT_EQ(
      std::vector<std::string>(effect_ids::kUnregistered.begin(), effect_ids::kUnregistered.end()),
      unregistered);
  // The defined-but-unregistered identifiers, wrong case and the empty string.
  std::vector<std::string> refused = unregistered;
  refused.insert(refused.end(), {"vornexposureeffect", "VORNEXPOSUREEFFECT", ""});
  for (const std::string& id : refused) {
    SCOPED_TRACE(id);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(EffectFactory::instance().makeEffectWithID(id, nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kUnsupportedLine);
  }
}

TEST(EffectFactoryTest, IdentifiersWhoseClassNamesDiffer) {
  const auto context = std::make_shared<const EffectParametersContext>();
  const auto accent =
      EffectFactory::instance().makeEffectWithID("VORNDynamicContrastEffect", context);
  EXPECT_TRUE(std::dynamic_pointer_cast<Accent20Effect>(accent));
  EXPECT_TRUE(std::dynamic_pointer_cast<DynamicContrastEffect>(accent));
  EXPECT_EQ(accent->getPrarmetersContext(), context);
  EXPECT_TRUE(std::dynamic_pointer_cast<BlurEffect>(
      EffectFactory::instance().makeEffectWithID("VORNSimpleBlurEffect", nullptr)));
  const auto sky = EffectFactory::instance().makeEffectWithID("VORNSkyEnhancerEffect", nullptr);
  EXPECT_TRUE(std::dynamic_pointer_cast<EffectsArray<4>>(sky));
}

TEST(EffectFactoryTest, GroupsHoldTheirNumberOfEffects) {
  const std::pair<const char*, std::size_t> groups[] = {{"VORNDevelopCommonEffectID", 5},
                                                        {"VORNRawDevelopCommonEffectID", 1},
                                                        {"VORNHDRBasicCommonEffectID", 6},
                                                        {"VORNHDRBasicCommonEffectRawID", 3},
                                                        {"VORNSkyEnhancerEffect", 4}};
  for (const auto& [id, size] : groups) {
    SCOPED_TRACE(id);
    const auto group = std::dynamic_pointer_cast<EffectsArrayBase>(
        EffectFactory::instance().makeEffectWithID(id, nullptr));
    ASSERT_TRUE(group);
    EXPECT_EQ(group->innerEffectIds().size(), size);
  }
}

// The lists the identifier table fixes, name by name.
TEST(EffectFactoryTest, DeclaredParametersOfTheFixedLists) {
  struct Expected {
    const char* name;
    float min, max, defaultValue;
  };
  const std::vector<std::pair<std::string, std::vector<Expected>>> table = {
      {"VORNExposureEffect", {{"Exposure", -100, 100, 0}}},
      {"VORNDynBrightnessEffect", {{"Smart Tone", -100, 100, 0}}},
      {"VORNHighlightsEffect", {{"Highlights", -100, 100, 0}, {"Shadows", -100, 100, 0}}},
      {"VORNBlackWhiteEffect", {{"Whites", -100, 100, 0}, {"Blacks", -100, 100, 0}}},
      {"VORNPolarizeEffect", {{"Amount", 0, 100, 0}}},
      {"VORNClarityEffect", {{"Clarity", 0, 100, 0}}},
      {"VORNStructureHDREffect",
       {{"Amount", -100, 100, 0}, {"Softness", 0, 100, 50}, {"Boost", 0, 100, 50}}},
      {"VORNWhiteBalanceEffect", {{"Temperature", -100, 100, 0}, {"Tint", -100, 100, 0}}},
      {"VORNGrainNewEffect",
       {{"Amount", 0, 100, 0}, {"Size", 0, 100, 20}, {"Roughness", 0, 100, 30}}},
      {"VORNSmartBlurEffect",
       {{"Amount", 0, 100, 0}, {"Smooth", 0, 200, 100}, {"Boost", 0, 100, 0}}},
      {"VORNHighPassFilterEffect", {{"Radius", 0, 30, 0}}},
      {"VORNPhotoshopBrightnessEffect", {{"Brightness", -100, 100, 0}}},
      {"VORNMicroStructureEffect", {{"Amount", 0, 100, 0}, {"Softness", 0, 100, 50}}},
      {"VORNDenoiseLaplacianNLBEffect",
       {{"Amount", 0, 100, 0}, {"Denoise", 0, 100, 10}, {"Boost", 0, 100, 50}}},
      {"VORNLensVignetteEffect", {{"Amount", -100, 100, 0}, {"Midpoint", -100, 100, 0}}},
      {"VORNDenoiseCoarseEffect", {{"Coarse", 0, 100, 0}}},
      {"VORNDenoiseEffect", {{"Fine", 0, 100, 0}}},
      {"VORNWarmSkylightEffect", {{"Amount", 0, 100, 0}, {"Color correction", -100, 100, 0}}},
      {"VORNDehazeEffect", {{"Amount", 0, 100, 0}}},
      {"VORNShadowsEffect", {{"Shadows", -100, 100, 0}}},
      {"VORNApplyDetailsDEVELOPEffect",
       {{"Amount", 0, 100, 0}, {"Radius", 0, 100, 50}, {"Masking", 0, 100, 35}}},
      {"VORNSkyEnhancerEffect", {{"Amount", 0, 100, 0}}},
      {"VORNDynamicContrastEffect", {{"Boost", 0, 100, 0}}},
      {"VORNExposureEffectHDR", {{"Exposure", -100, 100, 0}}},
      {"VORNDynBrightnessEffectHDR", {{"Smart Tone", -100, 100, 0}}},
  };
  for (const auto& [id, expected] : table) {
    SCOPED_TRACE(id);
    const auto declared =
        EffectFactory::instance().makeEffectWithID(id, nullptr)->declaredParameters();
    ASSERT_EQ(declared.size(), expected.size());
    for (std::size_t i = 0; i < declared.size(); ++i) {
      EXPECT_EQ(declared[i].name(), expected[i].name);
      EXPECT_EQ(declared[i].minValue(), expected[i].min);
      EXPECT_EQ(declared[i].maxValue(), expected[i].max);
      EXPECT_EQ(declared[i].defaultValue(), expected[i].defaultValue);
      EXPECT_FALSE(declared[i].isHidden());
    }
  }
  const auto hdr = EffectFactory::instance().makeEffectWithID("VORNHighlightsEffectHDR", nullptr);
  EXPECT_EQ(hdr->parameters()[0].name(), "Highlights Color");
  EXPECT_TRUE(hdr->parameters()[0].isHidden());
  EXPECT_EQ(hdr->parameters()[1].name(), "Shadows");
  EXPECT_EQ(hdr->parameters()[1].maxValue(), 100);
}

// Several threads ask the singleton for effects at the same time.
TEST(EffectFactoryTest, ConcurrentCreation) {
  std::atomic<int> made{0};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const EffectFactory& factory = EffectFactory::instance();
      const auto ids = factory.supportedEffects();
      for (int round = 0; round < 3; ++round) {
        for (std::size_t k = 0; k < ids.size(); ++k) {
          const std::string& id = ids[(k + static_cast<std::size_t>(t) * 17) % ids.size()];
          const auto effect = factory.makeEffectWithID(id, nullptr);
          (effect && effect->id() == id ? made : wrong)++;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(made.load(), 4 * 3 * 89);
}

}  // namespace
}  // namespace vorn
