#include "vorn/effects/effect_factory.h"

#include <iostream>

#include "effects/tone/tone_tables.h"
#include "vorn/effects/color_effects.h"
#include "vorn/effects/creative_effects.h"
#include "vorn/effects/detail_effects.h"
#include "vorn/effects/face_effects.h"
#include "vorn/effects/grouped_effects.h"
#include "vorn/effects/lens_effects.h"
#include "vorn/effects/lut_effects.h"
#include "vorn/effects/tone_effects.h"

namespace vorn {

namespace {

template <class T>
std::shared_ptr<Effect> make() {
  return std::make_shared<T>();
}

}  // namespace

// One line per effect family that keeps tables between calls.
void EffectFactory::initializeEffects() {
  instance();
  detail::initializeToneEffects();
}

const EffectFactory& EffectFactory::instance() {
  static const EffectFactory factory;
  return factory;
}

// One line per identifier, in the order of the identifier table.
EffectFactory::EffectFactory()
    : creators_{
          {"VORNSimpleBlurEffect", make<BlurEffect>},
          {"VORNFillColorEffect", make<FillColorEffect>},
          {"VORNExposureEffect", make<ExposureEffect>},
          {"VORNContrastEffect", make<ContrastEffect>},
          {"VORNContrastLumaEffect", make<ContrastLumaEffect>},
          {"VORNContrastAutoEffect", make<ContrastAutoEffect>},
          {"VORNDynBrightnessEffect", make<DynBrightnessEffect>},
          {"VORNHighlightsEffect", make<HighlightsEffect>},
          {"VORNBlackWhiteEffect", make<BlackWhiteEffect>},
          {"VORNSaturationEffect", make<SaturationEffect>},
          {"VORNVibranceEffect", make<VibranceEffect>},
          {"VORNRamixSaturationEffect", make<RamixSaturationEffect>},
          {"VORNRamixVibranceEffect", make<RamixVibranceEffect>},
          {"VORNPolarizeEffect", make<PolarizeEffect>},
          {"VORNClarityEffect", make<ClarityEffect>},
          {"VORNStructureEffect", make<StructureEffect>},
          {"VORNStructureHDREffect", make<StructureHDREffect>},
          {"VORNWhiteBalanceEffect", make<WhiteBalanceEffect>},
          {"VORNVignetteEffect", make<VignetteEffect>},
          {"VORNFoliageEnhanceEffect", make<FoliageEnhanceEffect>},
          {"VORNDepthEffect", make<DepthEffect>},
          {"VORNToolGraduatedNaturalDensityEffect", make<ToolGraduatedNaturalDensityEffect>},
          {"VORNGlowEffect", make<GlowEffect>},
          {"VORNHighKeyEffect", make<HighKeyEffect>},
          {"VORNGrainNewEffect", make<GrainNewEffect>},
          {"VORNBWChannelsEffect", make<BWChannelsEffect>},
          {"VORNCurveEffect", make<CurveEffect>},
          {"VORNSplitToningEffect", make<SplitToningEffect>},
          {"VORNTextureOverlayEffect", make<TextureOverlayEffect>},
          {"VORNColorContrastEffect", make<ColorContrastEffect>},
          {"VORNRawWhiteBalanceEffect", make<RawWhiteBalanceEffect>},
          {"VORNSmartBlurEffect", make<SmartBlurEffect>},
          {"VORNChannelsEffect", make<ChannelsEffect>},
          {"VORNSmartContrastEffect", make<SmartContrastEffect>},
          {"VORNSharpenEffect", make<SharpenEffect>},
          {"VORNHighPassFilterEffect", make<HighPassFilterEffect>},
          {"VORNSplitWarmthEffect", make<SplitWarmthEffect>},
          {"VORNBiColorEffect", make<BiColorEffect>},
          {"VORNPhotoFilterEffect", make<PhotoFilterEffect>},
          {"VORNContrastColorRangeEffect", make<ContrastColorRangeEffect>},
          {"VORNColorsTintEffect", make<ColorsTintEffect>},
          {"VORNFocusBlurDevEffect", make<FocusBlurDevEffect>},
          {"VORNLensCorrectionEffect", make<LensCorrectionEffect>},
          {"VORNRemoveColorCastEffect", make<RemoveColorCastEffect>},
          {"VORNCrossProcessingEffect", make<CrossProcessingEffect>},
          {"VORNPhotoshopBrightnessEffect", make<PhotoshopBrightnessEffect>},
          {"VORNAdjustableGraduatedEffect", make<AdjustableGraduatedEffect>},
          {"VORNChannelMixerEffect", make<ChannelMixerEffect>},
          {"VORNRawDevelopEffect", make<RawDevelopEffect>},
          {"VORNDevelopCommonEffectID", make<DevelopCommonEffect>},
          {"VORNRawDevelopCommonEffectID", make<DevelopCommonEffectRaw>},
          {"VORNDodgeBurnEffect", make<DodgeBurnEffect>},
          {"VORNMicroStructureEffect", make<MicroStructureEffect>},
          {"VORNDenoiseLaplacianEffect", make<DenoiseLaplacianEffect>},
          {"VORNDenoiseLaplacianNLBEffect", make<DenoiseLaplacianNLBEffect>},
          {"VORNLensVignetteEffect", make<LensVignetteEffect>},
          {"VORNColorBalanceEffect", make<ColorBalanceEffect>},
          {"VORNComplexBleachEffect", make<ComplexBleachEffect>},
          {"VORNDenoiseCoarseEffect", make<DenoiseCoarseEffect>},
          {"VORNDenoiseEffect", make<DenoiseEffect>},
          {"VORNSmoothAreaEffect", make<SmoothAreaEffect>},
          {"VORNDenoiseStructureEffect", make<DenoiseStructureEffect>},
          {"VORNDenoiseDetailsEffect", make<DenoiseDetailsEffect>},
          {"VORNFogFilterEffect", make<FogFilterEffect>},
          {"VORNSoftFocusFilterEffect", make<SoftFocusFilterEffect>},
          {"VORNOrtonFilterEffect", make<OrtonFilterEffect>},
          {"VORNWarmSkylightEffect", make<WarmSkylightEffect>},
          {"VORNDehazeEffect", make<DehazeEffect>},
          {"VORNDetailsEffect", make<DetailsEffect>},
          {"VORNSunLightRaysEffect", make<SunLightRaysEffect>},
          {"VORNShadowsEffect", make<ShadowsEffect>},
          {"VORNApplyDetailsDEVELOPEffect", make<ApplyDetailsDEVELOPEffect>},
          {"VORNHDRBasicCommonEffectID", make<HDRBasicCommonEffect>},
          {"VORNHDRBasicCommonEffectRawID", make<HDRBasicCommonEffectRaw>},
          {"VORNBrillianceWarmthEffect", make<BrillianceWarmthEffect>},
          {"VORNLUTMappingEffect", make<LUTMappingEffect>},
          {"VORNFadeEffect", make<FadeEffect>},
          {"VORNHueShiftEffect", make<HueShiftEffect>},
          {"VORNSkyEnhancerEffect", make<SkyEnhancerEffect>},
          {"VORNSuperStructureEffect", make<SuperStructureEffect>},
          {"VORNDynamicContrastEffect", make<Accent20Effect>},
          {"VORNExposureEffectHDR", make<ExposureEffectHDR>},
          {"VORNDynBrightnessEffectHDR", make<DynBrightnessEffectHDR>},
          {"VORNHighlightsEffectHDR", make<HighlightsEffectHDR>},
          {"VORNContrastEffectHDR", make<ContrastEffectHDR>},
          {"VORNAdjustableGraduatedEffectHDR", make<AdjustableGraduatedEffectHDR>},
          {"VORNFaceEffect", make<FaceEffect>},
          {"VORNFaceSkinSoftenerEffect", make<FaceSkinSoftenerEffect>},
          {"VORNRamixDynamicContrastEffect", make<RamixDynamicContrastEffect>},
      } {
  for (const auto& entry : creators_) identifiers_.push_back(entry.first);
}

std::shared_ptr<Effect> EffectFactory::makeEffectWithID(
    const std::string& id, std::shared_ptr<const EffectParametersContext> context) const {
  const auto found = creators_.find(id);
  if (found == creators_.end()) {
    std::cerr << __PRETTY_FUNCTION__ << " Can't create effect. Effect isn't supported!"
              << std::endl;
    return {};
  }
  std::shared_ptr<Effect> effect = found->second();
  if (context) effect->setParametersContext(context);
  return effect;
}

}  // namespace vorn
