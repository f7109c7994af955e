#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// Creative and blur effects. Spatial sizes are in reference pixels (see EffectContext); effects
// placed on the frame measure against the whole picture, so region renders agree with whole ones.
namespace vorn {

using detail::DeclaredParameter;

/// Gaussian blur; Radius is its standard deviation in reference pixels.
class BlurEffect final : public detail::DeclaredEffect<BlurEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNSimpleBlurEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Radius", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
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

/// Corners darkened (Amount < 0) or lightened around the centre: Midpoint places the falloff,
/// Roundness bends the frame-shaped ellipse into a circle or a rounded rectangle, Feather
/// widens it; highlights keep their brightness when darkening.
class VignetteEffect final : public detail::DeclaredEffect<VignetteEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNVignetteEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", -100, 100, 0},
                                                      {"Midpoint", 0, 100, 50},
                                                      {"Roundness", -100, 100, 0},
                                                      {"Feather", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Shallow depth of field: the picture blurs with its distance from a sharp horizontal band
/// whose height Focus sets (0 top, 100 bottom).
class DepthEffect final : public detail::DeclaredEffect<DepthEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDepthEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}, {"Focus", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// A graduated neutral-density filter: Exposure in stops (±2) on the side the line's normal
/// points to (the top at Rotation 0), Offset moving the line, Transition its feather.
class ToolGraduatedNaturalDensityEffect final
    : public detail::DeclaredEffect<ToolGraduatedNaturalDensityEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNToolGraduatedNaturalDensityEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Exposure", -100, 100, 0},
                                                      {"Rotation", -180, 180, 0},
                                                      {"Offset", -100, 100, 0},
                                                      {"Transition", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// The picture screened with its own Gaussian blur, Brightness scaling the glow.
class GlowEffect final : public detail::DeclaredEffect<GlowEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNGlowEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Radius", 0, 100, 30}, {"Brightness", -100, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// A high-key look: brighter, lower-contrast, lightly desaturated, with a soft glow.
class HighKeyEffect final : public detail::DeclaredEffect<HighKeyEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNHighKeyEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Film grain whose size follows the frame and whose strength peaks in the midtones; the
/// optional data of Amount holds the seed (its first value, 0 when absent).
class GrainNewEffect final : public detail::DeclaredEffect<GrainNewEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNGrainNewEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Size", 0, 100, 20}, {"Roughness", 0, 100, 30}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// A canvas-and-paper texture, drawn procedurally on the frame at Scale percent and turned by
/// Rotation degrees, overlay-blended at Opacity.
class TextureOverlayEffect final
    : public detail::DeclaredEffect<TextureOverlayEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNTextureOverlayEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Opacity", 0, 100, 0}, {"Scale", 10, 400, 100}, {"Rotation", 0, 360, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Edge-preserving blur of the luminance (a self-guided filter), Amount setting the contrast
/// below which detail is smoothed, Smooth the radius and Boost how firmly edges are kept.
class SmartBlurEffect final : public detail::DeclaredEffect<SmartBlurEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNSmartBlurEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Smooth", 0, 200, 100}, {"Boost", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Lens blur outside a sharp centre: Amount sets the bokeh disc's size, Radius the sharp area
/// (a frame-shaped ellipse) and Feather its transition; highlights bloom into bright discs.
class FocusBlurDevEffect final : public detail::DeclaredEffect<FocusBlurDevEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNFocusBlurDevEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Radius", 0, 100, 50}, {"Feather", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// A graduated filter carrying its own adjustments; the gradient's placement is hidden (set by
/// the on-image handles).
inline constexpr DeclaredParameter kGraduatedParameters[] = {
    {"Exposure", -100, 100, 0},     {"Contrast", -100, 100, 0},
    {"Highlights", -100, 100, 0},   {"Shadows", -100, 100, 0},
    {"Saturation", -100, 100, 0},   {"Temperature", -100, 100, 0},
    {"Tint", -100, 100, 0},         {"Rotation", -180, 180, 0, true},
    {"Offset", -100, 100, 0, true}, {"Transition", 0, 100, 50, true}};

/// Tone and colour adjustments faded in across a graduated line.
class AdjustableGraduatedEffect final
    : public detail::DeclaredEffect<AdjustableGraduatedEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNAdjustableGraduatedEffect";
  static constexpr const auto& kParameters = kGraduatedParameters;

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// AdjustableGraduatedEffect for scene-referred values: contrast around middle grey, nothing
/// clipped.
class AdjustableGraduatedEffectHDR final
    : public detail::DeclaredEffect<AdjustableGraduatedEffectHDR, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNAdjustableGraduatedEffectHDR";
  static constexpr const auto& kParameters = kGraduatedParameters;

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Dodge lightens the midtones, burn deepens the lower midtones, each by up to a stop.
class DodgeBurnEffect final : public detail::DeclaredEffect<DodgeBurnEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNDodgeBurnEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Dodge", 0, 100, 0}, {"Burn", 0, 100, 0}};

 protected:
  Kernel prepare(const Setup& setup) const override;
};

/// Fog: the picture softened and veiled by a bright haze, Density the haze's opacity.
class FogFilterEffect final : public detail::DeclaredEffect<FogFilterEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNFogFilterEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Density", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// A diffusion filter: highlights bleed into their darker surroundings (lighten with the blur)
/// while the sharp picture stays underneath.
class SoftFocusFilterEffect final
    : public detail::DeclaredEffect<SoftFocusFilterEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNSoftFocusFilterEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Radius", 0, 100, 30}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// The Orton sandwich: an overexposed copy multiplied with its own blur.
class OrtonFilterEffect final : public detail::DeclaredEffect<OrtonFilterEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNOrtonFilterEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Blur", 0, 100, 50}, {"Brightness", -100, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Light rays streaming from the sun's position (hidden, set by the on-image handle): the
/// picture's bright parts smeared along the lines through it, Length long, tinted by Warmth and
/// screened over the picture.
class SunLightRaysEffect final : public detail::DeclaredEffect<SunLightRaysEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNSunLightRaysEffect";
  // The sun's position is hidden: the on-image handle sets it.
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Length", 0, 100, 50},
                                                      {"Warmth", -100, 100, 0},
                                                      {"Position X", 0, 100, 50, true},
                                                      {"Position Y", 0, 100, 25, true}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

}  // namespace vorn
