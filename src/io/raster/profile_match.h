#pragma once

#include "vorn/core/color_profile.h"

namespace vorn::detail {

/// True when converting from `a` to `b` moves no colour of a 9 x 9 x 9 grid over [0, 1] by
/// more than `tolerance` in any channel: the two profiles describe the same colours at that
/// precision (an sRGB profile from another vendor, say), so converting would only cost time.
bool profilesMatch(const ColorProfile& a, const ColorProfile& b, float tolerance);

}  // namespace vorn::detail
