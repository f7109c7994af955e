#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// Colour effects: parameters are final, processing arrives later (pixels pass through).
namespace vorn {

using detail::DeclaredParameter;
using detail::PassThroughEffect;

class SaturationEffect final : public PassThroughEffect<SaturationEffect> {
 public:
  static constexpr std::string_view kId = "VORNSaturationEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Saturation", -100, 100, 0}};
};

class VibranceEffect final : public PassThroughEffect<VibranceEffect> {
 public:
  static constexpr std::string_view kId = "VORNVibranceEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Vibrance", -100, 100, 0}};
};

class RamixSaturationEffect final : public PassThroughEffect<RamixSaturationEffect> {
 public:
  static constexpr std::string_view kId = "VORNRamixSaturationEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Saturation", -100, 100, 0}};
};

class RamixVibranceEffect final : public PassThroughEffect<RamixVibranceEffect> {
 public:
  static constexpr std::string_view kId = "VORNRamixVibranceEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Vibrance", -100, 100, 0}};
};

class PolarizeEffect final : public PassThroughEffect<PolarizeEffect> {
 public:
  static constexpr std::string_view kId = "VORNPolarizeEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
};

class WhiteBalanceEffect final : public PassThroughEffect<WhiteBalanceEffect> {
 public:
  static constexpr std::string_view kId = "VORNWhiteBalanceEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Temperature", -100, 100, 0},
                                                      {"Tint", -100, 100, 0}};
};

class FoliageEnhanceEffect final : public PassThroughEffect<FoliageEnhanceEffect> {
 public:
  static constexpr std::string_view kId = "VORNFoliageEnhanceEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
};

/// Black and white by channel weights, blended in by "Amount" (0 keeps the colour picture).
class BWChannelsEffect final : public PassThroughEffect<BWChannelsEffect> {
 public:
  static constexpr std::string_view kId = "VORNBWChannelsEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0},    {"Red", -100, 100, 0},  {"Yellow", -100, 100, 0},
      {"Green", -100, 100, 0},  {"Cyan", -100, 100, 0}, {"Blue", -100, 100, 0},
      {"Magenta", -100, 100, 0}};
};

class SplitToningEffect final : public PassThroughEffect<SplitToningEffect> {
 public:
  static constexpr std::string_view kId = "VORNSplitToningEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Highlights Hue", 0, 360, 45},
                                                      {"Highlights Saturation", 0, 100, 0},
                                                      {"Shadows Hue", 0, 360, 220},
                                                      {"Shadows Saturation", 0, 100, 0},
                                                      {"Balance", -100, 100, 0}};
};

class ColorContrastEffect final : public PassThroughEffect<ColorContrastEffect> {
 public:
  static constexpr std::string_view kId = "VORNColorContrastEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", -100, 100, 0}};
};

class RawWhiteBalanceEffect final : public PassThroughEffect<RawWhiteBalanceEffect> {
 public:
  static constexpr std::string_view kId = "VORNRawWhiteBalanceEffect";
  // Relative to the camera's as-shot balance, so 0 is the camera's own rendering.
  static constexpr DeclaredParameter kParameters[] = {{"Temperature", -100, 100, 0},
                                                      {"Tint", -100, 100, 0}};
};

class ChannelsEffect final : public PassThroughEffect<ChannelsEffect> {
 public:
  static constexpr std::string_view kId = "VORNChannelsEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Red", -100, 100, 0}, {"Green", -100, 100, 0}, {"Blue", -100, 100, 0}};
};

class SplitWarmthEffect final : public PassThroughEffect<SplitWarmthEffect> {
 public:
  static constexpr std::string_view kId = "VORNSplitWarmthEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Highlights Warmth", -100, 100, 0},
                                                      {"Shadows Warmth", -100, 100, 0}};
};

class BiColorEffect final : public PassThroughEffect<BiColorEffect> {
 public:
  static constexpr std::string_view kId = "VORNBiColorEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Top Hue", 0, 360, 210},
                                                      {"Bottom Hue", 0, 360, 30},
                                                      {"Rotation", -180, 180, 0, true},
                                                      {"Transition", 0, 100, 50, true}};
};

class PhotoFilterEffect final : public PassThroughEffect<PhotoFilterEffect> {
 public:
  static constexpr std::string_view kId = "VORNPhotoFilterEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Hue", 0, 360, 30}, {"Preserve Luminosity", 0, 1, 1}};
};

class ContrastColorRangeEffect final : public PassThroughEffect<ContrastColorRangeEffect> {
 public:
  static constexpr std::string_view kId = "VORNContrastColorRangeEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", -100, 100, 0}, {"Hue", 0, 360, 0}, {"Range", 0, 100, 30}};
};

class ColorsTintEffect final : public PassThroughEffect<ColorsTintEffect> {
 public:
  static constexpr std::string_view kId = "VORNColorsTintEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}, {"Hue", 0, 360, 30}};
};

class RemoveColorCastEffect final : public PassThroughEffect<RemoveColorCastEffect> {
 public:
  static constexpr std::string_view kId = "VORNRemoveColorCastEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
};

class CrossProcessingEffect final : public PassThroughEffect<CrossProcessingEffect> {
 public:
  static constexpr std::string_view kId = "VORNCrossProcessingEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
};

/// Output channel from input channels in percent; the defaults are the identity matrix.
class ChannelMixerEffect final : public PassThroughEffect<ChannelMixerEffect> {
 public:
  static constexpr std::string_view kId = "VORNChannelMixerEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Red from Red", -200, 200, 100},     {"Red from Green", -200, 200, 0},
      {"Red from Blue", -200, 200, 0},      {"Green from Red", -200, 200, 0},
      {"Green from Green", -200, 200, 100}, {"Green from Blue", -200, 200, 0},
      {"Blue from Red", -200, 200, 0},      {"Blue from Green", -200, 200, 0},
      {"Blue from Blue", -200, 200, 100}};
};

class RawDevelopEffect final : public PassThroughEffect<RawDevelopEffect> {
 public:
  static constexpr std::string_view kId = "VORNRawDevelopEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Highlight Recovery", 0, 100, 0},
                                                      {"Black Level", -100, 100, 0},
                                                      {"Profile Strength", 0, 100, 100}};
};

class ColorBalanceEffect final : public PassThroughEffect<ColorBalanceEffect> {
 public:
  static constexpr std::string_view kId = "VORNColorBalanceEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Cyan Red", -100, 100, 0}, {"Magenta Green", -100, 100, 0}, {"Yellow Blue", -100, 100, 0}};
};

class ComplexBleachEffect final : public PassThroughEffect<ComplexBleachEffect> {
 public:
  static constexpr std::string_view kId = "VORNComplexBleachEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Saturation", -100, 100, 0}};
};

class WarmSkylightEffect final : public PassThroughEffect<WarmSkylightEffect> {
 public:
  static constexpr std::string_view kId = "VORNWarmSkylightEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Color correction", -100, 100, 0}};
};

class BrillianceWarmthEffect final : public PassThroughEffect<BrillianceWarmthEffect> {
 public:
  static constexpr std::string_view kId = "VORNBrillianceWarmthEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Brilliance", -100, 100, 0},
                                                      {"Warmth", -100, 100, 0}};
};

class HueShiftEffect final : public PassThroughEffect<HueShiftEffect> {
 public:
  static constexpr std::string_view kId = "VORNHueShiftEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Hue", -180, 180, 0}};
};

}  // namespace vorn
