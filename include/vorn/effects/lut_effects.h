#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// LUT mapping: colour lookup tables read from .cube files.
namespace vorn {

using detail::DeclaredEffect;
using detail::DeclaredParameter;

/// A .cube table (1D or 3D) named in the optional data of "Amount", mixed with the input by
/// Amount; without a usable file (the reason is logged once) nothing changes.
class LUTMappingEffect final : public DeclaredEffect<LUTMappingEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = "VORNLUTMappingEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 100}};
  Kernel prepare(const Setup& setup) const override;
};

}  // namespace vorn
