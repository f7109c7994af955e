#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// Creative and blur effects: parameters are final; apart from the colour fill, processing
// arrives later (pixels pass through).
namespace vorn {

using detail::DeclaredParameter;
using detail::PassThroughEffect;

class BlurEffect final : public PassThroughEffect<BlurEffect> {
 public:
  static constexpr std::string_view kId = "VORNSimpleBlurEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Radius", 0, 100, 0}};
};

/// Covers the picture with one colour (Red, Green, Blue in 0..255) at Opacity percent; the
/// image processor blends the result through a mask to show that mask.
class FillColorEffect final : public detail::DeclaredEffect<FillColorEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNFillColorEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Opacity", 0, 100, 0}, {"Red", 0, 255, 128}, {"Green", 0, 255, 128}, {"Blue", 0, 255, 128}};

 protected:
  Kernel prepare(const Setup& setup) const override;
};

class VignetteEffect final : public PassThroughEffect<VignetteEffect> {
 public:
  static constexpr std::string_view kId = "VORNVignetteEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", -100, 100, 0},
                                                      {"Midpoint", 0, 100, 50},
                                                      {"Roundness", -100, 100, 0},
                                                      {"Feather", 0, 100, 50}};
};

class DepthEffect final : public PassThroughEffect<DepthEffect> {
 public:
  static constexpr std::string_view kId = "VORNDepthEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}, {"Focus", 0, 100, 50}};
};

class ToolGraduatedNaturalDensityEffect final
    : public PassThroughEffect<ToolGraduatedNaturalDensityEffect> {
 public:
  static constexpr std::string_view kId = "VORNToolGraduatedNaturalDensityEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Exposure", -100, 100, 0},
                                                      {"Rotation", -180, 180, 0},
                                                      {"Offset", -100, 100, 0},
                                                      {"Transition", 0, 100, 50}};
};

class GlowEffect final : public PassThroughEffect<GlowEffect> {
 public:
  static constexpr std::string_view kId = "VORNGlowEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Radius", 0, 100, 30}, {"Brightness", -100, 100, 0}};
};

class HighKeyEffect final : public PassThroughEffect<HighKeyEffect> {
 public:
  static constexpr std::string_view kId = "VORNHighKeyEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
};

class GrainNewEffect final : public PassThroughEffect<GrainNewEffect> {
 public:
  static constexpr std::string_view kId = "VORNGrainNewEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Size", 0, 100, 20}, {"Roughness", 0, 100, 30}};
};

class TextureOverlayEffect final : public PassThroughEffect<TextureOverlayEffect> {
 public:
  static constexpr std::string_view kId = "VORNTextureOverlayEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Opacity", 0, 100, 0}, {"Scale", 10, 400, 100}, {"Rotation", 0, 360, 0}};
};

class SmartBlurEffect final : public PassThroughEffect<SmartBlurEffect> {
 public:
  static constexpr std::string_view kId = "VORNSmartBlurEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Smooth", 0, 200, 100}, {"Boost", 0, 100, 0}};
};

class FocusBlurDevEffect final : public PassThroughEffect<FocusBlurDevEffect> {
 public:
  static constexpr std::string_view kId = "VORNFocusBlurDevEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Radius", 0, 100, 50}, {"Feather", 0, 100, 50}};
};

/// A graduated filter carrying its own adjustments; the gradient's placement is hidden (set by
/// the on-image handles).
inline constexpr DeclaredParameter kGraduatedParameters[] = {
    {"Exposure", -100, 100, 0},     {"Contrast", -100, 100, 0},
    {"Highlights", -100, 100, 0},   {"Shadows", -100, 100, 0},
    {"Saturation", -100, 100, 0},   {"Temperature", -100, 100, 0},
    {"Tint", -100, 100, 0},         {"Rotation", -180, 180, 0, true},
    {"Offset", -100, 100, 0, true}, {"Transition", 0, 100, 50, true}};

class AdjustableGraduatedEffect final : public PassThroughEffect<AdjustableGraduatedEffect> {
 public:
  static constexpr std::string_view kId = "VORNAdjustableGraduatedEffect";
  static constexpr const auto& kParameters = kGraduatedParameters;
};

class AdjustableGraduatedEffectHDR final : public PassThroughEffect<AdjustableGraduatedEffectHDR> {
 public:
  static constexpr std::string_view kId = "VORNAdjustableGraduatedEffectHDR";
  static constexpr const auto& kParameters = kGraduatedParameters;
};

class DodgeBurnEffect final : public PassThroughEffect<DodgeBurnEffect> {
 public:
  static constexpr std::string_view kId = "VORNDodgeBurnEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Dodge", 0, 100, 0}, {"Burn", 0, 100, 0}};
};

class FogFilterEffect final : public PassThroughEffect<FogFilterEffect> {
 public:
  static constexpr std::string_view kId = "VORNFogFilterEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Density", 0, 100, 50}};
};

class SoftFocusFilterEffect final : public PassThroughEffect<SoftFocusFilterEffect> {
 public:
  static constexpr std::string_view kId = "VORNSoftFocusFilterEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Radius", 0, 100, 30}};
};

class OrtonFilterEffect final : public PassThroughEffect<OrtonFilterEffect> {
 public:
  static constexpr std::string_view kId = "VORNOrtonFilterEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Blur", 0, 100, 50}, {"Brightness", -100, 100, 0}};
};

class SunLightRaysEffect final : public PassThroughEffect<SunLightRaysEffect> {
 public:
  static constexpr std::string_view kId = "VORNSunLightRaysEffect";
  // The sun's position is hidden: the on-image handle sets it.
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Length", 0, 100, 50},
                                                      {"Warmth", -100, 100, 0},
                                                      {"Position X", 0, 100, 50, true},
                                                      {"Position Y", 0, 100, 25, true}};
};

}  // namespace vorn
