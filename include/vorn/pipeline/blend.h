#pragma once

#include <cstdint>
#include <memory>

#include "vorn/core/geometry.h"
#include "vorn/core/image_data.h"
#include "vorn/core/pixel.h"

namespace vorn {

/// How a top layer combines with the pixels beneath it; the values are stored in documents.
enum BlendModeType : std::int32_t {
  kBlendNormal = 0,
  kBlendMultiply = 1,
  kBlendColorBurn = 2,
  kBlendScreen = 3,
  kBlendOverlay = 4,
  kBlendSoftLight = 5,
  kBlendDarken = 6,
  kBlendHardLight = 7,
  kBlendLighten = 8,
  kBlendDifference = 9,
  kBlendSubtract = 10,
  kBlendLuminosity = 11,
  kBlendHue = 12,
  kBlendColor = 13,
};

/// Blends top over bottom into result with weight opacity x mask per pixel: Normal as
/// (t - b) * w + b, the other modes as f(t, b) * w + b * (1 - w), in RGB for every mode.
///
/// - Per-channel modes are not clamped: values above 1 pass through. SoftLight reads a
///   negative b as 0 under its square root.
/// - Luminosity, Hue and Color work in CIE L*a*b* (sRGB primaries, D65) of both pixels clamped
///   to [0, 1]; the colour converted back is clamped to [0, 1], then weighted in RGB as above.
/// - Hue takes the hue angle of top with L* and chroma of bottom; a top of chroma below 0.01
///   has no hue, so the pixel becomes the bottom's L* at zero chroma (grey).
/// - opacity is limited to [0, 1]; a NaN opacity is refused. Without a mask, opacity 0 copies
///   bottom and Normal at opacity 1 copies top, exactly.
/// - A NaN in a pixel or a mask value never reaches another pixel: the formulas carry it into
///   its own result pixel, except that the L*a*b* conversion reads a NaN channel as 0.
/// - rect (0, 0, 0, 0) is the whole image; otherwise it must lie inside the image with
///   positive sides, and only its pixels are written. A result made here starts as a copy of
///   bottom, so its pixels outside rect are bottom's.
/// - result, when not empty, must be of top's type; it may be top or bottom itself.
/// On any failure an error line is logged and no pixel is written.
void blendImages(std::shared_ptr<const _ImageData<PixelRGB<float>>> top,
                 std::shared_ptr<const _ImageData<PixelRGB<float>>> bottom,
                 std::shared_ptr<_ImageData<PixelRGB<float>>>& result,
                 std::shared_ptr<const _ImageData<float>> mask, float opacity, BlendModeType mode,
                 _Rect<int> rect);

}  // namespace vorn
