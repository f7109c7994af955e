#pragma once

#include "vorn/core/image_data.h"

namespace vorn::detail {

/// Resamples roi of src (whole image when all-zero) into the whole of dst: the exact area
/// average when no side grows; bilinear, or Lanczos with highQuality, when enlarging. False
/// when roi is not inside src or either side is empty.
template <typename T>
bool resampleImage(const _ImageData<T>& src, const _Rect<int>& roi, _ImageData<T>& dst,
                   bool highQuality);

/// Writes only the outputs `part` of the exact area average of the whole src into dst, each
/// pixel bit-equal to what this function makes of the whole part (and within rounding of
/// resampleImage); the rest of dst is left alone. False when dst is larger than src on a side
/// or part is not inside dst.
template <typename T>
bool areaAverageRegion(const _ImageData<T>& src, _ImageData<T>& dst, const _Rect<int>& part);

/// The outputs of an area average from sourceSize to outputSize that read any pixel of
/// sourceRect; all-zero when none does.
_Rect<int> areaAverageFootprint(_Size<int> sourceSize, _Size<int> outputSize,
                                const _Rect<int>& sourceRect);

}  // namespace vorn::detail
