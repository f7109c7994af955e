#pragma once

#include <cstdint>
#include <memory>

#include "vorn/core/color_profile.h"

namespace vorn::detail {

/// Codes of the profiles a blob can name.
enum ColorProfileCode : std::uint32_t {
  kProfileSRGB = 0,
  kProfileSRGBLinear = 1,
  kProfileMelissaRGB = 2,
  kProfileProPhotoRGB = 3,
  kProfileNone = 7,
};

/// The code of a profile; throws CompressorException for a profile that has none.
std::uint32_t to_colorProfileCode(const std::shared_ptr<ColorProfile>& profile);
/// The profile of a code; false for a code no profile has.
bool from_colorProfileCode(std::uint32_t code, std::shared_ptr<ColorProfile>& profile);

}  // namespace vorn::detail
