#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// Detail, structure and noise effects: sharpening and local contrast on luminance detail,
// structure and denoising on the shared a trous wavelet bands.
namespace vorn {

using detail::DeclaredParameter;

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

/// Structure: the mid-scale luminance bands of the a trous decomposition boosted or smoothed.
class StructureEffect final : public detail::DeclaredEffect<StructureEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNStructureEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", -100, 100, 0},
                                                      {"Softness", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Structure with a strong, halo-limited boost of the coarse bands (Boost) for the HDR look.
class StructureHDREffect final : public detail::DeclaredEffect<StructureHDREffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNStructureHDREffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", -100, 100, 0}, {"Softness", 0, 100, 50}, {"Boost", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
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

/// Structure of the finest luminance bands: texture, fabric, skin pores.
class MicroStructureEffect final
    : public detail::DeclaredEffect<MicroStructureEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNMicroStructureEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Softness", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Band-wise locally adaptive Wiener shrinkage; Detail gives back part of the luminance.
class DenoiseLaplacianEffect final
    : public detail::DeclaredEffect<DenoiseLaplacianEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseLaplacianEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Detail", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Laplacian luminance denoise with non-local means on half-resolution chroma (Boost).
class DenoiseLaplacianNLBEffect final
    : public detail::DeclaredEffect<DenoiseLaplacianNLBEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseLaplacianNLBEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Amount", 0, 100, 0}, {"Denoise", 0, 100, 10}, {"Boost", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Coarse (blotchy) noise: soft-thresholded middle wavelet bands, chroma more strongly.
class DenoiseCoarseEffect final
    : public detail::DeclaredEffect<DenoiseCoarseEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseCoarseEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Coarse", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Fine-grain denoise: soft-thresholded fine wavelet bands, chroma more strongly than luma.
class DenoiseEffect final : public detail::DeclaredEffect<DenoiseEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Fine", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
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

/// Denoise that keeps structure: only the finest bands are shrunk, the mid bands stay.
class DenoiseStructureEffect final
    : public detail::DeclaredEffect<DenoiseStructureEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseStructureEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Structure", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
};

/// Detail-keeping denoise: garrote shrinkage, part of the removed luminance given back.
class DenoiseDetailsEffect final
    : public detail::DeclaredEffect<DenoiseDetailsEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNDenoiseDetailsEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Details", 0, 100, 0}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
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

/// Structure of the coarse luminance bands: large-scale local contrast.
class SuperStructureEffect final
    : public detail::DeclaredEffect<SuperStructureEffect, StencilEffect> {
 public:
  static constexpr std::string_view kId = "VORNSuperStructureEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0},
                                                      {"Softness", 0, 100, 50}};

 protected:
  int reach(float spatialScale) const override;
  bool isIdentity() const override;
  void render(const Window& window) const override;
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
