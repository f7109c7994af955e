#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "vorn/effects/declared_effect.h"

// Lens effects: the profile correction of the lens a photograph was taken with, and a radial
// vignette placed on the whole frame.
namespace vorn {

using detail::DeclaredParameter;

struct ImageMetadata;

/// The camera and lens a photograph was taken with, as its metadata names them; numbers are 0
/// when unknown.
struct LensShot {
  std::string cameraMaker;
  std::string cameraModel;
  std::string lensMaker;
  std::string lensModel;
  float focalLength = 0.0f;  ///< millimetres
  float aperture = 0.0f;     ///< f-number
  float distance = 0.0f;     ///< focus distance in metres
  float cropFactor = 0.0f;   ///< of the camera; 0 lets the camera's entry decide

  /// The shot of a photograph's metadata.
  static LensShot fromMetadata(const ImageMetadata& metadata);
  /// "key=value" fields joined by ';' (the form kept in the Distortion parameter's data).
  std::string toText() const;
  /// The shot of toText()'s form; nullopt for text that is not of that form.
  static std::optional<LensShot> fromText(const std::string& text);
  bool operator==(const LensShot&) const = default;
};

/// Corrects the lens's distortion, transverse chromatic aberration and vignetting from its
/// profile in the lens database; each slider scales its correction (0 off, 100 the profile).
/// The shot travels as the Distortion parameter's optional data (see setShot); without one, or
/// when the lens is not in the database, the picture is left unchanged.
class LensCorrectionEffect final
    : public detail::DeclaredEffect<LensCorrectionEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNLensCorrectionEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Distortion", -100, 100, 0}, {"Chromatic Aberration", 0, 100, 0}, {"Vignetting", 0, 100, 0}};

  /// Names the camera and lens to correct for (kept in the parameters, so clones and cache
  /// keys follow it).
  void setShot(const LensShot& shot);
  /// The shot set, if any.
  std::optional<LensShot> shot() const;
  /// True when the shot set matches a lens of the database.
  bool hasProfile() const;

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// A radial gain in linear light around the frame's centre: Amount < 0 darkens the corners,
/// > 0 lightens them; Midpoint moves where the falloff starts (outwards when positive).
class LensVignetteEffect final : public detail::DeclaredEffect<LensVignetteEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNLensVignetteEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", -100, 100, 0},
                                                      {"Midpoint", -100, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

}  // namespace vorn
