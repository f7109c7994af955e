#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// Detail, structure and noise effects: parameters are final, processing arrives later (pixels pass
// through).
namespace vorn {

using detail::DeclaredParameter;
using detail::PassThroughEffect;

/// Midtone local contrast: luminance detail around an edge-preserving base is amplified.
class ClarityEffect final : public detail::DeclaredEffect<ClarityEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNClarityEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Clarity", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

class StructureEffect final : public PassThroughEffect<StructureEffect> {
 public:
  static constexpr std::string_view kId = "VORNStructureEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", -100, 100, 0},
                                                      {"Softness", 0, 100, 50}};
};

class StructureHDREffect final : public PassThroughEffect<StructureHDREffect> {
 public:
  static constexpr std::string_view kId = "VORNStructureHDREffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", -100, 100, 0}, {"Softness", 0, 100, 50}, {"Boost", 0, 100, 50}};
};

/// Unsharp masking of the luminance, limited to edges by Masking.
class SharpenEffect final : public detail::DeclaredEffect<SharpenEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNSharpenEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Radius", 0, 100, 30}, {"Masking", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Each channel minus its Gaussian blur of Radius reference pixels, around mid grey.
class HighPassFilterEffect final
    : public detail::DeclaredEffect<HighPassFilterEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNHighPassFilterEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Radius", 0, 30, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

class MicroStructureEffect final : public PassThroughEffect<MicroStructureEffect> {
 public:
  static constexpr std::string_view kId = "VORNMicroStructureEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Softness", 0, 100, 50}};
};

class DenoiseLaplacianEffect final : public PassThroughEffect<DenoiseLaplacianEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseLaplacianEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Detail", 0, 100, 50}};
};

class DenoiseLaplacianNLBEffect final : public PassThroughEffect<DenoiseLaplacianNLBEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseLaplacianNLBEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Denoise", 0, 100, 10}, {"Boost", 0, 100, 50}};
};

class DenoiseCoarseEffect final : public PassThroughEffect<DenoiseCoarseEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseCoarseEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Coarse", 0, 100, 0}};
};

class DenoiseEffect final : public PassThroughEffect<DenoiseEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Fine", 0, 100, 0}};
};

/// Edge-preserving smoothing of the luminance where the picture is flat.
class SmoothAreaEffect final : public detail::DeclaredEffect<SmoothAreaEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNSmoothAreaEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Radius", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

class DenoiseStructureEffect final : public PassThroughEffect<DenoiseStructureEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseStructureEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Structure", 0, 100, 0}};
};

class DenoiseDetailsEffect final : public PassThroughEffect<DenoiseDetailsEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseDetailsEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Details", 0, 100, 0}};
};

/// Luminance detail at three scales (fine, medium, coarse) boosted or softened.
class DetailsEffect final : public detail::DeclaredEffect<DetailsEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDetailsEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Small", -100, 100, 0}, {"Medium", -100, 100, 0}, {"Large", -100, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Capture sharpening: a few deconvolution steps on the luminance, limited to edges by Masking.
class ApplyDetailsDEVELOPEffect final
    : public detail::DeclaredEffect<ApplyDetailsDEVELOPEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNApplyDetailsDEVELOPEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Radius", 0, 100, 50}, {"Masking", 0, 100, 35}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

class SuperStructureEffect final : public PassThroughEffect<SuperStructureEffect> {
 public:
  static constexpr std::string_view kId = "VORNSuperStructureEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Softness", 0, 100, 50}};
};

/// Local contrast at a fine and a coarse scale, kept from clipping highlights and shadows.
class RamixDynamicContrastEffect final
    : public detail::DeclaredEffect<RamixDynamicContrastEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNRamixDynamicContrastEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

}  // namespace vorn
