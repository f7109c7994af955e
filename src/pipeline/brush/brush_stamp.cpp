#include "brush_stamp.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "core/log_failure.h"
#include "vorn/core/float_compare.h"

namespace vorn::detail {
namespace {

bool isDefaultCrop(const CropDescription& crop) {
  const CropDescription none;
  return isFloatEqual(crop.rotation, none.rotation) && crop.cropRect == none.cropRect;
}

/// Dab side in mask pixels along one axis: the diameter on the canvas times mask over canvas.
int dabSide(float radius, int shortSide, int canvasSide, int maskSide) {
  const double side = 2.0 * radius * shortSide * maskSide / canvasSide;
  // Capped just above the mask so that a dab larger than the mask stays finite in memory.
  return static_cast<int>(std::clamp(std::lround(side), 1L, 2L * maskSide + 2L));
}

}  // namespace

std::shared_ptr<MaskImage> makeBaseStamp(float hardness) {
  auto stamp = std::make_shared<MaskImage>(_Size<int>(kBaseStampSide, kBaseStampSide));
  const float half = 0.5f * kBaseStampSide;
  const float soft = 1.0f - hardness;
  for (int y = 0; y < kBaseStampSide; ++y) {
    float* row = stamp->row(y);
    for (int x = 0; x < kBaseStampSide; ++x) {
      const float dx = (static_cast<float>(x) + 0.5f - half) / half;
      const float dy = (static_cast<float>(y) + 0.5f - half) / half;
      const float d = std::sqrt(dx * dx + dy * dy);
      float value = 0.0f;
      if (d <= hardness) {
        value = 1.0f;
      } else if (d < 1.0f && soft > 0.0f) {
        const float t = (d - hardness) / soft;
        value = (1.0f - t * t) * (1.0f - t * t);
      }
      row[x] = value;
    }
  }
  return stamp;
}

std::shared_ptr<MaskImage> makeStamp(const BrushSetting& setting, _Size<int> canvasSize,
                                     _Size<int> maskSize, const CropDescription& crop) {
  if (canvasSize.width < 1 || canvasSize.height < 1 || maskSize.width < 1 || maskSize.height < 1 ||
      !(setting.radius > 0.0f) || !std::isfinite(setting.radius)) {
    VORN_LOG_FAILURE("Error: could not create resized brush.");
    return nullptr;
  }
  try {
    const int shortSide = std::min(canvasSize.width, canvasSize.height);
    const int w = dabSide(setting.radius, shortSide, canvasSize.width, maskSize.width);
    const int h = dabSide(setting.radius, shortSide, canvasSize.height, maskSize.height);
    const std::shared_ptr<MaskImage> base = makeBaseStamp(setting.hardness);
    if (isDefaultCrop(crop)) {
      std::shared_ptr<_ImageData<float>> resized = base->resize(_Size<int>(w, h));
      if (!resized) {
        VORN_LOG_FAILURE("Error: could not create resized brush.");
        return nullptr;
      }
      return std::make_shared<MaskImage>(std::move(*resized));
    }
    // The stamp is seen the way the cropped view shows the canvas: the crop's own turn acts on
    // the base stamp before it is scaled to the dab, both about the stamp's centre.
    AffineTransform turn = crop.getAffineTransform();
    turn.tx = 0.0f;
    turn.ty = 0.0f;
    AffineTransform toDab;
    toDab.translate(0.5f * static_cast<float>(w), 0.5f * static_cast<float>(h));
    toDab.scale(static_cast<float>(w) / kBaseStampSide, static_cast<float>(h) / kBaseStampSide);
    toDab.prepend(turn);
    toDab.translate(-0.5f * kBaseStampSide, -0.5f * kBaseStampSide);
    std::shared_ptr<_ImageData<float>> dab = std::make_shared<MaskImage>(_Size<int>(w, h), 0.0f);
    base->copyAffineTransformedTo(
        dab, _Rect<float>(0.0f, 0.0f, static_cast<float>(w), static_cast<float>(h)), toDab);
    return std::make_shared<MaskImage>(std::move(*dab));
  } catch (const std::bad_alloc&) {
    VORN_LOG_FAILURE("Error: could not create resized brush.");
    return nullptr;
  }
}

std::shared_ptr<MaskImage> padStamp(const MaskImage& stamp) {
  auto padded = std::make_shared<MaskImage>(_Size<int>(stamp.width + 2, stamp.height + 2), 0.0f);
  for (int y = 0; y < stamp.height; ++y)
    std::copy_n(stamp.row(y), stamp.width, padded->row(y + 1) + 1);
  return padded;
}

}  // namespace vorn::detail
