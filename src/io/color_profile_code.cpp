#include "io/color_profile_code.h"

#include "vorn/io/image_compressor.h"

namespace vorn::detail {

std::uint32_t to_colorProfileCode(const std::shared_ptr<ColorProfile>& profile) {
  if (profile == ColorProfileType::None()) return kProfileNone;
  if (*profile == *ColorProfileType::sRGB()) return kProfileSRGB;
  if (*profile == *ColorProfileType::sRGBLinear()) return kProfileSRGBLinear;
  if (*profile == *ColorProfileType::melissaRGB()) return kProfileMelissaRGB;
  if (*profile == *ColorProfileType::proPhotoRGB()) return kProfileProPhotoRGB;
  throw ImageCompressorLosslessZlib::CompressorException(
      "Undefined to_colorProfileCode() conversion");
}

bool from_colorProfileCode(std::uint32_t code, std::shared_ptr<ColorProfile>& profile) {
  switch (code) {
    case kProfileSRGB:
      profile = ColorProfileType::sRGB();
      return true;
    case kProfileSRGBLinear:
      profile = ColorProfileType::sRGBLinear();
      return true;
    case kProfileMelissaRGB:
      profile = ColorProfileType::melissaRGB();
      return true;
    case kProfileProPhotoRGB:
      profile = ColorProfileType::proPhotoRGB();
      return true;
    case kProfileNone:
      profile = ColorProfileType::None();
      return true;
    default:
      return false;
  }
}

}  // namespace vorn::detail
