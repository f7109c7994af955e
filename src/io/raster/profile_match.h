#pragma once

#include "core/color_engine.h"
#include "vorn/core/color_profile.h"

namespace vorn::detail {

/// The colour engine's float RGB conversion from `a` to `b`, perceptual, safe to share between
/// threads; null when either profile cannot take part in one.
TransformHandle floatTransform(const ColorProfile& a, const ColorProfile& b);

/// True when converting from `a` to `b` moves no colour of a 9 x 9 x 9 grid over [0, 1] by
/// more than `tolerance` in any channel: the two profiles describe the same colours at that
/// precision (an sRGB profile from another vendor, say), so converting would only cost time.
bool profilesMatch(const ColorProfile& a, const ColorProfile& b, float tolerance);

/// True when the colour engine can build a float conversion from `a` to `b`: a profile can be
/// readable and still lack what a conversion needs (a damaged tag table, say).
bool profilesConvert(const ColorProfile& a, const ColorProfile& b);

}  // namespace vorn::detail
