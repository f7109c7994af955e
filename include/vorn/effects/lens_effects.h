#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// Lens effects: parameters are final, processing arrives later (pixels pass through).
namespace vorn {

using detail::DeclaredParameter;
using detail::PassThroughEffect;

class LensCorrectionEffect final : public PassThroughEffect<LensCorrectionEffect> {
 public:
  static constexpr std::string_view kId = "VORNLensCorrectionEffect";
  static constexpr DeclaredParameter kParameters[] = {
      {"Distortion", -100, 100, 0}, {"Chromatic Aberration", 0, 100, 0}, {"Vignetting", 0, 100, 0}};
};

class LensVignetteEffect final : public PassThroughEffect<LensVignetteEffect> {
 public:
  static constexpr std::string_view kId = "VORNLensVignetteEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", -100, 100, 0},
                                                      {"Midpoint", -100, 100, 0}};
};

}  // namespace vorn
