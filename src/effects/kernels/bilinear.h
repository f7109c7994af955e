#pragma once

#include "effects/kernels/mix.h"
#include "vorn/core/geometry.h"
#include "vorn/core/image_data.h"

// Bilinear reads of a picture at fractional positions, clamped to a rectangle of it: warps and
// rays read only the pixels their render window holds.
namespace vorn::detail {

/// The four pixels around a position and its weights, the position first clamped to bounds
/// (a NaN coordinate lands on the low edge).
struct BilinearTap {
  BilinearTap(_Rect<int> bounds, float x, float y) {
    const auto low = [](float v, float edge) { return v > edge ? v : edge; };
    const auto high = [](float v, float edge) { return v < edge ? v : edge; };
    x = high(low(x, static_cast<float>(bounds.x)), static_cast<float>(bounds.x + bounds.width - 1));
    y = high(low(y, static_cast<float>(bounds.y)),
             static_cast<float>(bounds.y + bounds.height - 1));
    x0 = static_cast<int>(x);
    y0 = static_cast<int>(y);
    x1 = x0 + 1 < bounds.x + bounds.width ? x0 + 1 : x0;
    y1 = y0 + 1 < bounds.y + bounds.height ? y0 + 1 : y0;
    tx = x - static_cast<float>(x0);
    ty = y - static_cast<float>(y0);
  }
  /// The tap's value of one channel (0 red, 1 green, 2 blue).
  template <typename Image>
  float channel(const Image& image, int c) const {
    const auto at = [&](int px, int py) { return (&image.row(py)[px].r)[c]; };
    return mix(mix(at(x0, y0), at(x1, y0), tx), mix(at(x0, y1), at(x1, y1), tx), ty);
  }
  /// The tap's pixel.
  template <typename Image>
  PixelRGB<float> pixel(const Image& image) const {
    return mix(mix(image.row(y0)[x0], image.row(y0)[x1], tx),
               mix(image.row(y1)[x0], image.row(y1)[x1], tx), ty);
  }

  int x0;
  int y0;
  int x1;
  int y1;
  float tx;
  float ty;
};

}  // namespace vorn::detail
