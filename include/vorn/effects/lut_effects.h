#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// LUT mapping: parameters are final, processing arrives later (pixels pass through).
namespace vorn {

using detail::DeclaredParameter;
using detail::PassThroughEffect;

/// The LUT file name travels in the optional data of "Amount"; without one nothing changes.
class LUTMappingEffect final : public PassThroughEffect<LUTMappingEffect> {
 public:
  static constexpr std::string_view kId = "VORNLUTMappingEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 100}};
};

}  // namespace vorn
