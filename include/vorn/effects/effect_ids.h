#pragma once

#include <array>
#include <string_view>

// Identifiers the library defines but the factory does not register: documents may name them,
// and asking the factory for one gives the "Effect isn't supported!" line and no effect. The
// image processor makes the two overlay effects itself.
namespace vorn::effect_ids {

inline constexpr std::string_view kAutoCT = "VORNAutoCTEffect";
inline constexpr std::string_view kBlackAndWhiteOverlayPixels =
    "VORNBlackAndWhiteOverlayPixelsEffect";
inline constexpr std::string_view kColorsInversion = "VORNColorsInversionEffect";
inline constexpr std::string_view kDynamicContrastOld = "VORNDynamicContrastOldEffect";
inline constexpr std::string_view kFillWithColor = "VORNFillWithColorEffect";
inline constexpr std::string_view kFocusBlurFast = "VORNFocusBlurFastEffect";
inline constexpr std::string_view kGaussianBlur = "VORNGaussianBlurEffect";
inline constexpr std::string_view kGradientBlur = "VORNGradientBlurEffect";
inline constexpr std::string_view kHotAndColdPixels = "VORNHotAndColdPixelsEffect";
inline constexpr std::string_view kImageSoftener = "VORNImageSoftenerEffect";
inline constexpr std::string_view kRamixAccentAIExpert = "VORNRamixAccentAIExpertEffect";
inline constexpr std::string_view kMotionBlur = "VORNMotionBlurEffect";
inline constexpr std::string_view kRawDevelopDenoise = "VORNRawDevelopDenoiseEffect";
inline constexpr std::string_view kSegmentation = "VORNSegmentationEffect";
inline constexpr std::string_view kSimpleFocusBlur = "VORNSimpleFocusBlurEffect";
inline constexpr std::string_view kZoomBlur = "VORNZoomBlurEffect";

/// All sixteen, in the order above.
inline constexpr std::array<std::string_view, 16> kUnregistered = {kAutoCT,
                                                                   kBlackAndWhiteOverlayPixels,
                                                                   kColorsInversion,
                                                                   kDynamicContrastOld,
                                                                   kFillWithColor,
                                                                   kFocusBlurFast,
                                                                   kGaussianBlur,
                                                                   kGradientBlur,
                                                                   kHotAndColdPixels,
                                                                   kImageSoftener,
                                                                   kRamixAccentAIExpert,
                                                                   kMotionBlur,
                                                                   kRawDevelopDenoise,
                                                                   kSegmentation,
                                                                   kSimpleFocusBlur,
                                                                   kZoomBlur};

}  // namespace vorn::effect_ids
