#pragma once

#include <memory>

#include "vorn/core/crop_description.h"
#include "vorn/core/geometry.h"
#include "vorn/core/mask_image.h"
#include "vorn/pipeline/brush/brush_setting.h"

namespace vorn::detail {

/// Side of the square the dab profile is drawn at before it is resized to the dab.
inline constexpr int kBaseStampSide = 256;

/// The dab profile at kBaseStampSide: 1 inside hardness * radius, then (1 - t^2)^2 down to 0
/// at the radius, a falloff without a visible edge.
std::shared_ptr<MaskImage> makeBaseStamp(float hardness);
/// The dab in mask pixels for a mask of maskSize over a canvas of canvasSize, the crop's
/// transform applied when it is not the default; null with a log line when it cannot be made.
std::shared_ptr<MaskImage> makeStamp(const BrushSetting& setting, _Size<int> canvasSize,
                                     _Size<int> maskSize, const CropDescription& crop);
/// The stamp with a one-pixel zero border on every side, so the bilinear split reads no
/// out-of-range neighbour.
std::shared_ptr<MaskImage> padStamp(const MaskImage& stamp);

}  // namespace vorn::detail
