#include "vorn/pipeline/blend.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/image_data_internal.h"
#include "core/log_failure.h"
#include "core/parallel.h"
#include "pipeline/blend_row.h"

namespace vorn {

namespace {

using ImageRGBf = _ImageData<PixelRGB<float>>;

void copyRegion(const ImageRGBf& src, ImageRGBf& dst, const _Rect<int>& region) {
  if (&src == &dst) return;
  const std::size_t bytes = static_cast<std::size_t>(region.width) * sizeof(PixelRGB<float>);
  detail::parallelRows(region.height, [&](int first, int end) {
    for (int y = region.y + first; y < region.y + end; ++y)
      std::memcpy(dst.row(y) + region.x, src.row(y) + region.x, bytes);
  });
}

}  // namespace

void blendImages(std::shared_ptr<const ImageRGBf> top, std::shared_ptr<const ImageRGBf> bottom,
                 std::shared_ptr<ImageRGBf>& result, std::shared_ptr<const _ImageData<float>> mask,
                 float opacity, BlendModeType mode, _Rect<int> rect) {
  if (!top || !bottom) {
    VORN_LOG_FAILURE("Top or bottom image is missing");
    return;
  }
  if (!top->isSameType(*bottom)) {
    VORN_LOG_FAILURE("Images have different types");
    return;
  }
  if (mask && mask->size() != top->size()) {
    VORN_LOG_FAILURE("Mask has wrong size!");
    return;
  }
  if (result && !result->isSameType(*top)) {
    VORN_LOG_FAILURE("Result Image has wrong type");
    return;
  }
  if (mode < kBlendNormal || mode > kBlendColor) {
    VORN_LOG_FAILURE("Not implemented blending mode!");
    return;
  }
  if (std::isnan(opacity)) {
    VORN_LOG_FAILURE("Opacity is NaN");
    return;
  }
  const bool whole = rect.isZero() || rect == top->rect();
  if (!whole && (rect.width <= 0 || rect.height <= 0 || !detail::liesInside(rect, top->size()))) {
    VORN_LOG_FAILURE("Roi rect is outside the ImageData");
    return;
  }
  const _Rect<int> region = whole ? top->rect() : rect;
  opacity = std::clamp(opacity, 0.0f, 1.0f);

  if (!result) {
    result = std::make_shared<ImageRGBf>(top->size(), top->colorProfile);
    if (!whole) copyRegion(*bottom, *result, bottom->rect());
  }
  if (top->area() == 0) return;
  if (!mask && opacity == 0.0f) return copyRegion(*bottom, *result, region);
  if (!mask && opacity == 1.0f && mode == kBlendNormal) return copyRegion(*top, *result, region);

  const bool lab = mode >= kBlendLuminosity;
  ImageRGBf& out = *result;
  detail::parallelRows(region.height, [&](int first, int end) {
    detail::BlendRow row;
    row.opacity = opacity;
    row.pixels = static_cast<std::size_t>(region.width);
    for (int y = region.y + first; y < region.y + end; ++y) {
      row.top = &(top->row(y) + region.x)->r;
      row.bottom = &(bottom->row(y) + region.x)->r;
      row.mask = mask ? mask->row(y) + region.x : nullptr;
      row.out = &(out.row(y) + region.x)->r;
      if (lab)
        detail::blendLabRow(mode, row);
      else
        detail::blendChannelRow(mode, row);
    }
  });
}

}  // namespace vorn
