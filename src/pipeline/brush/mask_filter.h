#pragma once

#include "vorn/core/geometry.h"
#include "vorn/core/mask_image.h"
#include "vorn/pipeline/brush/brush_setting.h"

namespace vorn::detail {

/// The blur's sigma in pixels for a setting on a canvas whose shorter side is `shortSide` px.
float featherSigma(const MaskSetting& setting, int shortSide);
/// How far the filter's value at one pixel reads, in pixels: past the reach of the Gaussian's
/// kernel (exact or three boxes), so a region refreshed alone matches a whole refresh.
int featherReach(float sigma);

/// Writes the filtered source into `rect` of target (same size as source): a Gaussian blur of
/// `sigma` px whose cost does not grow with sigma, then scaled by density. Only source pixels
/// within the reach of rect are read.
void featherAndDensity(const MaskImage& source, MaskImage& target, const _Rect<int>& rect,
                       float sigma, float density);

}  // namespace vorn::detail
