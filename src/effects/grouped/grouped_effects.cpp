#include "vorn/effects/grouped_effects.h"

#include "vorn/effects/parameter.h"

namespace vorn {

// One line per group: its identifier and the identifiers it chains, in running order.
// clang-format off
// Basic tone of any photo: exposure, local brightness, highlights, black/white points, contrast.
DevelopCommonEffect::DevelopCommonEffect() : EffectsArray("VORNDevelopCommonEffectID", {"VORNExposureEffect", "VORNDynBrightnessEffect", "VORNHighlightsEffect", "VORNBlackWhiteEffect", "VORNContrastEffect"}) {}
// Raw development on the linear frame: black level, highlight recovery, camera profile.
DevelopCommonEffectRaw::DevelopCommonEffectRaw() : EffectsArray("VORNRawDevelopCommonEffectID", {"VORNRawDevelopEffect"}) {}
// The HDR look: the HDR tone variants, black/white points and HDR structure.
HDRBasicCommonEffect::HDRBasicCommonEffect() : EffectsArray("VORNHDRBasicCommonEffectID", {"VORNExposureEffectHDR", "VORNDynBrightnessEffectHDR", "VORNHighlightsEffectHDR", "VORNBlackWhiteEffect", "VORNContrastEffectHDR", "VORNStructureHDREffect"}) {}
// HDR from a raw frame: raw white balance before the HDR exposure and highlights.
HDRBasicCommonEffectRaw::HDRBasicCommonEffectRaw() : EffectsArray("VORNHDRBasicCommonEffectRawID", {"VORNRawWhiteBalanceEffect", "VORNExposureEffectHDR", "VORNHighlightsEffectHDR"}) {}
// Its own "Amount" routed: dehaze at half, polarise at full, highlights pulled down by 0.4, vibrance at 0.3.
SkyEnhancerEffect::SkyEnhancerEffect() : EffectsArray("VORNSkyEnhancerEffect", {"VORNDehazeEffect", "VORNPolarizeEffect", "VORNHighlightsEffect", "VORNVibranceEffect"}, {Parameter("Amount", 0, 100, 0, false)}, {{0, 0, 0, 0.5f}, {0, 1, 0, 1.0f}, {0, 2, 0, -0.4f}, {0, 3, 0, 0.3f}}) {}
// clang-format on

}  // namespace vorn
