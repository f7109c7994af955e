#pragma once

#include "vorn/core/geometry.h"
#include "vorn/core/mask_image.h"
#include "vorn/pipeline/brush/brush_setting.h"

namespace vorn::detail {

/// Box radius of each of the three passes that together approximate a Gaussian of `sigma` px.
int featherBoxRadius(float sigma);
/// The box radius a setting gives on a mask whose canvas's shorter side is `shortSide` px.
int featherBoxRadius(const MaskSetting& setting, int shortSide);
/// How far the filter's value at one pixel reads, in pixels.
inline int featherReach(int boxRadius) {
  return 3 * boxRadius;
}

/// Writes the filtered source into `rect` of target (same size as source): three box blurs of
/// boxRadius with clamped edges, so the cost per pixel does not grow with the radius, then
/// scaled by density. Only source pixels within the reach of rect are read.
void featherAndDensity(const MaskImage& source, MaskImage& target, const _Rect<int>& rect,
                       int boxRadius, float density);

}  // namespace vorn::detail
