#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "vorn/core/color_profile.h"

namespace vorn::detail {

/// The frame profile for a file's embedded ICC bytes: sRGB when there are none; a damaged or
/// non-RGB profile is dropped for sRGB with a warning naming `name`. A profile named like the
/// shared sRGB one is that shared object.
std::shared_ptr<ColorProfile> profileFromIcc(const void* icc, std::size_t length,
                                             const std::string& name);

}  // namespace vorn::detail
