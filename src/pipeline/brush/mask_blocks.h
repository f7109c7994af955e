#pragma once

#include <cstring>

#include "pipeline/rect_utils.h"
#include "vorn/core/mask_image.h"

namespace vorn::detail {

/// Copies `rect` of one mask into the same place of another of the same size.
inline void copyRegion(const MaskImage& from, MaskImage& to, const _Rect<int>& rect) {
  const std::size_t bytes = static_cast<std::size_t>(rect.width) * sizeof(float);
  for (int y = rect.y; y < rect.y + rect.height; ++y)
    std::memcpy(to.row(y) + rect.x, from.row(y) + rect.x, bytes);
}

}  // namespace vorn::detail
