#pragma once

#include <type_traits>

namespace vorn {

/// A position in image pixels; y grows downwards from a top-left origin.
template <typename T>
struct _Point {
  T x{};
  T y{};

  constexpr _Point() = default;
  constexpr _Point(T px, T py) : x(px), y(py) {}
  constexpr bool operator==(const _Point&) const = default;
};

/// A width and a height in pixels.
template <typename T>
struct _Size {
  T width{};
  T height{};

  constexpr _Size() = default;
  constexpr _Size(T w, T h) : width(w), height(h) {}

  /// Product in T: for int it deliberately wraps like the 32-bit original instead of widening.
  constexpr T area() const {
    if constexpr (std::is_same_v<T, int>) {
      return static_cast<T>(static_cast<unsigned>(width) * static_cast<unsigned>(height));
    } else {
      return width * height;
    }
  }
  constexpr bool operator==(const _Size& o) const { return width == o.width && height == o.height; }
  constexpr bool operator!=(const _Size& o) const { return width != o.width || height != o.height; }
};

/// An axis-aligned rectangle; (x, y) is its top-left corner. All-zero means "whole image".
template <typename T>
struct _Rect {
  T x{};
  T y{};
  T width{};
  T height{};

  constexpr _Rect() = default;
  constexpr _Rect(T px, T py, T w, T h) : x(px), y(py), width(w), height(h) {}

  constexpr _Size<T> size() const { return _Size<T>(width, height); }
  /// Shrinks by dx, dy on every side (negative grows); the result is not clamped.
  constexpr _Rect inset(T dx, T dy) const {
    return _Rect(x + dx, y + dy, width - 2 * dx, height - 2 * dy);
  }
  constexpr bool isZero() const { return x == T{} && y == T{} && width == T{} && height == T{}; }
  constexpr bool operator==(const _Rect&) const = default;
};

using Point = _Point<int>;
using PointF = _Point<float>;
using Size = _Size<int>;
using SizeF = _Size<float>;
using Rect = _Rect<int>;
using RectF = _Rect<float>;

}  // namespace vorn
