#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// Colour effects: point-wise, on sRGB-encoded pixels, judging colour in linear light or Oklab.
// Raw white balance and raw develop work on the developed raw frame's ProPhoto primaries.
namespace vorn {

using detail::DeclaredEffect;
using detail::DeclaredParameter;
using detail::PassThroughEffect;

class SaturationEffect final : public DeclaredEffect<SaturationEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNSaturationEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Saturation", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class VibranceEffect final : public DeclaredEffect<VibranceEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNVibranceEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Vibrance", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class RamixSaturationEffect final : public DeclaredEffect<RamixSaturationEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNRamixSaturationEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Saturation", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class RamixVibranceEffect final : public DeclaredEffect<RamixVibranceEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNRamixVibranceEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Vibrance", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class PolarizeEffect final : public DeclaredEffect<PolarizeEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNPolarizeEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class WhiteBalanceEffect final : public DeclaredEffect<WhiteBalanceEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNWhiteBalanceEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Temperature", -100, 100, 0},
                                                      {"Tint", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class FoliageEnhanceEffect final : public DeclaredEffect<FoliageEnhanceEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNFoliageEnhanceEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

/// Black and white by channel weights, blended in by "Amount" (0 keeps the colour picture).
class BWChannelsEffect final : public DeclaredEffect<BWChannelsEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNBWChannelsEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0},    {"Red", -100, 100, 0},  {"Yellow", -100, 100, 0},
      {"Green", -100, 100, 0},  {"Cyan", -100, 100, 0}, {"Blue", -100, 100, 0},
      {"Magenta", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class SplitToningEffect final : public DeclaredEffect<SplitToningEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNSplitToningEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Highlights Hue", 0, 360, 45},
                                                      {"Highlights Saturation", 0, 100, 0},
                                                      {"Shadows Hue", 0, 360, 220},
                                                      {"Shadows Saturation", 0, 100, 0},
                                                      {"Balance", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class ColorContrastEffect final : public DeclaredEffect<ColorContrastEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNColorContrastEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class RawWhiteBalanceEffect final : public DeclaredEffect<RawWhiteBalanceEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNRawWhiteBalanceEffect";
  // Relative to the camera's as-shot balance, so 0 is the camera's own rendering.
  static constexpr DeclaredParameter kParameters[] = {{"Temperature", -100, 100, 0},
                                                      {"Tint", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class ChannelsEffect final : public DeclaredEffect<ChannelsEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNChannelsEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Red", -100, 100, 0}, {"Green", -100, 100, 0}, {"Blue", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class SplitWarmthEffect final : public DeclaredEffect<SplitWarmthEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNSplitWarmthEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Highlights Warmth", -100, 100, 0},
                                                      {"Shadows Warmth", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

/// Two graduated colour filters meeting across the frame, top and bottom.
class BiColorEffect final : public DeclaredEffect<BiColorEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNBiColorEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Top Hue", 0, 360, 210},
                                                      {"Bottom Hue", 0, 360, 30},
                                                      {"Rotation", -180, 180, 0, true},
                                                      {"Transition", 0, 100, 50, true}};
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

class PhotoFilterEffect final : public DeclaredEffect<PhotoFilterEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNPhotoFilterEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Hue", 0, 360, 30}, {"Preserve Luminosity", 0, 1, 1}};
  Kernel prepare(const Setup& setup) const override;
};

class ContrastColorRangeEffect final
    : public DeclaredEffect<ContrastColorRangeEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNContrastColorRangeEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", -100, 100, 0}, {"Hue", 0, 360, 0}, {"Range", 0, 100, 30}};
  Kernel prepare(const Setup& setup) const override;
};

class ColorsTintEffect final : public DeclaredEffect<ColorsTintEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNColorsTintEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}, {"Hue", 0, 360, 30}};
  Kernel prepare(const Setup& setup) const override;
};

class RemoveColorCastEffect final : public DeclaredEffect<RemoveColorCastEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNRemoveColorCastEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
  bool measuresPicture() const override { return true; }
};

class CrossProcessingEffect final : public DeclaredEffect<CrossProcessingEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNCrossProcessingEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

/// Output channel from input channels in percent; the defaults are the identity matrix.
class ChannelMixerEffect final : public DeclaredEffect<ChannelMixerEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNChannelMixerEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Red from Red", -200, 200, 100},     {"Red from Green", -200, 200, 0},
      {"Red from Blue", -200, 200, 0},      {"Green from Red", -200, 200, 0},
      {"Green from Green", -200, 200, 100}, {"Green from Blue", -200, 200, 0},
      {"Blue from Red", -200, 200, 0},      {"Blue from Green", -200, 200, 0},
      {"Blue from Blue", -200, 200, 100}};
  Kernel prepare(const Setup& setup) const override;
};

class RawDevelopEffect final : public DeclaredEffect<RawDevelopEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNRawDevelopEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Highlight Recovery", 0, 100, 0},
                                                      {"Black Level", -100, 100, 0},
                                                      {"Profile Strength", 0, 100, 100}};
  Kernel prepare(const Setup& setup) const override;
};

class ColorBalanceEffect final : public DeclaredEffect<ColorBalanceEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNColorBalanceEffect";
  // The first three balance the midtones (gamma); the others lift shadows and scale highlights.
  static constexpr DeclaredParameter kParameters[] = {{"Cyan Red", -100, 100, 0},
                                                      {"Magenta Green", -100, 100, 0},
                                                      {"Yellow Blue", -100, 100, 0},
                                                      {"Shadows Cyan Red", -100, 100, 0},
                                                      {"Shadows Magenta Green", -100, 100, 0},
                                                      {"Shadows Yellow Blue", -100, 100, 0},
                                                      {"Highlights Cyan Red", -100, 100, 0},
                                                      {"Highlights Magenta Green", -100, 100, 0},
                                                      {"Highlights Yellow Blue", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class ComplexBleachEffect final : public DeclaredEffect<ComplexBleachEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNComplexBleachEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Saturation", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class WarmSkylightEffect final : public DeclaredEffect<WarmSkylightEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNWarmSkylightEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Color correction", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class BrillianceWarmthEffect final : public DeclaredEffect<BrillianceWarmthEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNBrillianceWarmthEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Brilliance", -100, 100, 0},
                                                      {"Warmth", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

class HueShiftEffect final : public DeclaredEffect<HueShiftEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNHueShiftEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Hue", -180, 180, 0}};
  Kernel prepare(const Setup& setup) const override;
};

}  // namespace vorn
