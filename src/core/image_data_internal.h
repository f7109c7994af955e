#pragma once

#include <optional>

#include "vorn/core/geometry.h"

namespace vorn::detail {

/// roi intersected with the image; nullopt when less than one pixel wide or high remains.
std::optional<_Rect<int>> clipToImage(const _Rect<int>& roi, _Size<int> size);
/// Whether roi lies wholly inside an image of that size.
bool liesInside(const _Rect<int>& roi, _Size<int> size);

}  // namespace vorn::detail
