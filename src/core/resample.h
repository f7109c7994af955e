#pragma once

#include "vorn/core/image_data.h"

namespace vorn::detail {

/// Resamples roi of src (whole image when all-zero) into the whole of dst: the exact area
/// average when no side grows; bilinear, or Lanczos with highQuality, when enlarging. False
/// when roi is not inside src or either side is empty.
template <typename T>
bool resampleImage(const _ImageData<T>& src, const _Rect<int>& roi, _ImageData<T>& dst,
                   bool highQuality);

}  // namespace vorn::detail
