#pragma once

#include <algorithm>

#include "vorn/core/geometry.h"

namespace vorn::detail {

/// rect clipped to a size; all-zero when nothing is left.
inline _Rect<int> clipRect(const _Rect<int>& rect, _Size<int> size) {
  const long long x0 = std::max<long long>(rect.x, 0), y0 = std::max<long long>(rect.y, 0);
  const long long x1 = std::min<long long>(static_cast<long long>(rect.x) + rect.width, size.width);
  const long long y1 =
      std::min<long long>(static_cast<long long>(rect.y) + rect.height, size.height);
  if (x1 <= x0 || y1 <= y0) return {};
  return _Rect<int>(static_cast<int>(x0), static_cast<int>(y0), static_cast<int>(x1 - x0),
                    static_cast<int>(y1 - y0));
}

/// The smallest rectangle holding both; an all-zero rectangle holds nothing.
inline _Rect<int> uniteRects(const _Rect<int>& a, const _Rect<int>& b) {
  if (a.isZero()) return b;
  if (b.isZero()) return a;
  const int x0 = std::min(a.x, b.x), y0 = std::min(a.y, b.y);
  const int x1 = std::max(a.x + a.width, b.x + b.width);
  const int y1 = std::max(a.y + a.height, b.y + b.height);
  return _Rect<int>(x0, y0, x1 - x0, y1 - y0);
}

}  // namespace vorn::detail
