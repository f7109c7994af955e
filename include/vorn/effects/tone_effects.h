#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "vorn/effects/declared_effect.h"

// Tone effects: brightness distributions changed without moving pixels. Per-value curves are
// tabulated once per call and applied by the shared lookup kernels; local ones key a curve's
// gain by an edge-preserving base luminance.
namespace vorn {

using detail::DeclaredEffect;
using detail::DeclaredParameter;

/// Neighbourhood tone effects: a tone curve applied as a gain on all channels, keyed by an
/// edge-preserving (self-guided) base luminance, so local contrast and colour survive.
class LocalToneEffect : public StencilEffect {
 protected:
  /// The curve of the current values; empty when they leave the picture unchanged.
  virtual std::function<float(float)> toneCurve() const = 0;
  /// True for scene-referred data: the curve then works on b / (1 + b) of the base b.
  virtual bool sceneReferred() const { return false; }

  int reach(float spatialScale) const override;
  bool isIdentity() const override { return !toneCurve(); }
  void render(const Window& window) const override;
};

/// Exposure through the shared tone tables with the factor 0.6 ... 1 ... 1.56.
class ExposureEffect final : public DeclaredEffect<ExposureEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNExposureEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Exposure", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
  /// The multiplier k in the space of table A.
  float factor() const { return mappedValue(0, 0.6f, 1.0f, 1.56f); }
};

/// Exposure in stops of scene light (-2 ... +2 EV), never clipped.
class ExposureEffectHDR final : public DeclaredEffect<ExposureEffectHDR, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNExposureEffectHDR";
  static constexpr DeclaredParameter kParameters[] = {{"Exposure", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
  float stops() const { return mappedValue(0, -2.0f, 0.0f, 2.0f); }
};

/// Smart tone: a midtone brightness curve applied as a gain keyed by local base luminance.
class DynBrightnessEffect final : public DeclaredEffect<DynBrightnessEffect, LocalToneEffect> {
 public:
  static constexpr std::string_view kId = "VORNDynBrightnessEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Smart Tone", -100, 100, 0}};
  std::function<float(float)> toneCurve() const override;
  /// v * 0.01 from 0 up, (v + 100) * 0.008 - 0.8 below: -0.8 ... 1.
  float amount() const { return mappedValue(0, -0.8f, 0.0f, 1.0f); }
};

/// Smart tone on scene-referred data: symmetric amount, curve in the b / (1 + b) domain.
class DynBrightnessEffectHDR final
    : public DeclaredEffect<DynBrightnessEffectHDR, LocalToneEffect> {
 public:
  static constexpr std::string_view kId = "VORNDynBrightnessEffectHDR";
  static constexpr DeclaredParameter kParameters[] = {{"Smart Tone", -100, 100, 0}};
  std::function<float(float)> toneCurve() const override;
  bool sceneReferred() const override { return true; }
};

/// Highlights and shadows as one local curve; copies the input when both are 0.
class HighlightsEffect final : public DeclaredEffect<HighlightsEffect, LocalToneEffect> {
 public:
  static constexpr std::string_view kId = "VORNHighlightsEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Highlights", -100, 100, 0},
                                                      {"Shadows", -100, 100, 0}};
  std::function<float(float)> toneCurve() const override;
};

/// HighlightsEffect in the b / (1 + b) domain. "Highlights Color" is hidden: it is the
/// colour-preserving highlight amount the HDR panel sets from its own control.
class HighlightsEffectHDR final : public DeclaredEffect<HighlightsEffectHDR, LocalToneEffect> {
 public:
  static constexpr std::string_view kId = "VORNHighlightsEffectHDR";
  static constexpr DeclaredParameter kParameters[] = {{"Highlights Color", -100, 100, 0, true},
                                                      {"Shadows", -100, 100, 0}};
  std::function<float(float)> toneCurve() const override;
  bool sceneReferred() const override { return true; }
};

/// Shadows alone, as the local curve of HighlightsEffect.
class ShadowsEffect final : public DeclaredEffect<ShadowsEffect, LocalToneEffect> {
 public:
  static constexpr std::string_view kId = "VORNShadowsEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Shadows", -100, 100, 0}};
  std::function<float(float)> toneCurve() const override;
};

/// Whites and blacks: per-channel bumps near each end of the range, 0 and 1 fixed.
class BlackWhiteEffect final : public DeclaredEffect<BlackWhiteEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNBlackWhiteEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Whites", -100, 100, 0},
                                                      {"Blacks", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

/// Midtone brightness, a rational per-channel curve whose darkening undoes its brightening.
class PhotoshopBrightnessEffect final
    : public DeclaredEffect<PhotoshopBrightnessEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNPhotoshopBrightnessEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Brightness", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

/// Dynamic contrast: low-contrast detail around an edge-preserving base is amplified.
class Accent20Effect final : public DeclaredEffect<Accent20Effect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDynamicContrastEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Boost", 0, 100, 0}};
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};
/// The tone family's name for the same class.
using DynamicContrastEffect = Accent20Effect;

/// Haze removal by the dark-channel prior with a guided-filter refined transmission.
class DehazeEffect final : public DeclaredEffect<DehazeEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDehazeEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Contrast of the midtones and of the shadows around movable pivots, colour-preserving.
class SmartContrastEffect final : public DeclaredEffect<SmartContrastEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNSmartContrastEffect";
  // Strengths -100 ... 100; "MiddleM" moves the midtone pivot 0.3 ... 0.5 ... 0.7 and
  // "MiddleS" the shadow pivot 0.1 ... 0.2 ... 0.3.
  static constexpr DeclaredParameter kParameters[] = {{"Midtones", -100, 100, 0},
                                                      {"MiddleM", -100, 100, 0},
                                                      {"Shadows", -100, 100, 0},
                                                      {"MiddleS", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

/// A point curve: the optional data of "RGB" holds points x0, y0, x1, y1, ... (a monotone
/// spline through them); the value itself places the midtone point at 0.1 ... 0.5 ... 0.9.
class CurveEffect final : public DeclaredEffect<CurveEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNCurveEffect";
  static constexpr DeclaredParameter kParameters[] = {{"RGB", 0, 100, 50}};
  Kernel prepare(const Setup& setup) const override;
};

/// Per-channel S-curve contrast around the middle.
class ContrastEffect final : public DeclaredEffect<ContrastEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNContrastEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Contrast", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

/// The contrast S-curve on luminance only, so saturation and hue are kept.
class ContrastLumaEffect final : public DeclaredEffect<ContrastLumaEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNContrastLumaEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Contrast", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

/// Levels from the image's own luminance histogram (0.1 % and 99.9 % points), blended by
/// "Amount"; the histogram comes from the call's reference when there is one.
class ContrastAutoEffect final : public DeclaredEffect<ContrastAutoEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNContrastAutoEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
  bool measuresPicture() const override { return true; }
  Kernel prepare(const Setup& setup) const override;
};

/// Contrast of scene-referred luminance around middle grey, in the b / (1 + b) domain.
class ContrastEffectHDR final : public DeclaredEffect<ContrastEffectHDR, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNContrastEffectHDR";
  static constexpr DeclaredParameter kParameters[] = {{"Contrast", -100, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

/// A faded, matte look: blacks lifted, whites lowered a little.
class FadeEffect final : public DeclaredEffect<FadeEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNFadeEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
  Kernel prepare(const Setup& setup) const override;
};

}  // namespace vorn
