#include "io/raster/icc_profile.h"

#include <cstdint>
#include <cstring>

#include "io/raster/profile_match.h"
#include "vorn/core/log.h"

namespace vorn::detail {

std::shared_ptr<ColorProfile> profileFromIcc(const void* icc, std::size_t length,
                                             const std::string& name) {
  if (icc == nullptr || length == 0) return ColorProfileType::sRGB();
  // Bytes 16..19 of the ICC header name the data colour space; frames here are always RGB.
  constexpr std::size_t kHeaderBytes = 128;
  const auto* bytes = static_cast<const std::uint8_t*>(icc);
  if (length < kHeaderBytes || std::memcmp(bytes + 16, "RGB ", 4) != 0) {
    LogWarning("%s: embedded ICC profile dropped: not an RGB profile, sRGB assumed", name.c_str());
    return ColorProfileType::sRGB();
  }
  auto profile = std::make_shared<ColorProfile>(Blob(icc, length));
  if (!profile->isValid()) {
    LogWarning("%s: embedded ICC profile dropped: unreadable, sRGB assumed", name.c_str());
    return ColorProfileType::sRGB();
  }
  const auto srgb = ColorProfileType::sRGB();
  if (srgb && *profile == *srgb) return srgb;
  // A frame whose profile converts nowhere could be neither shown nor written.
  if (!profilesConvert(*profile, *srgb)) {
    LogWarning("%s: embedded ICC profile dropped: it converts to no other profile, sRGB assumed",
               name.c_str());
    return srgb;
  }
  return profile;
}

}  // namespace vorn::detail
