#pragma once

#include <cstddef>

#include "effects/kernels/mix.h"
#include "vorn/core/geometry.h"
#include "vorn/core/image_data.h"

// Bilinear reads of a picture at fractional positions, clamped to a rectangle of it: warps and
// rays read only the pixels their render window holds.
namespace vorn::detail {

/// v limited to [low, high] with selects, which vectorise and send NaN to low.
inline float clampedTo(float v, float low, float high) {
  v = v > low ? v : low;
  return v < high ? v : high;
}

/// The four pixels around a position and its weights, the position first clamped to bounds
/// (a NaN coordinate lands on the low edge).
struct BilinearTap {
  BilinearTap(_Rect<int> bounds, float x, float y) {
    x = clampedTo(x, static_cast<float>(bounds.x), static_cast<float>(bounds.x + bounds.width - 1));
    y = clampedTo(y, static_cast<float>(bounds.y),
                  static_cast<float>(bounds.y + bounds.height - 1));
    x0 = static_cast<int>(x);
    y0 = static_cast<int>(y);
    x1 = x0 + 1 < bounds.x + bounds.width ? x0 + 1 : x0;
    y1 = y0 + 1 < bounds.y + bounds.height ? y0 + 1 : y0;
    tx = x - static_cast<float>(x0);
    ty = y - static_cast<float>(y0);
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

/// Bilinear reads of single channels from one picture, clamped to bounds: the warps' inner loop,
/// with the bounds and the row pitch worked out once.
class ChannelSampler {
 public:
  template <typename Image>
  ChannelSampler(const Image& image, _Rect<int> bounds)
      : base_(&image.row(0)[0].r),
        pitch_(3 * static_cast<std::ptrdiff_t>(image.width)),
        left_(static_cast<float>(bounds.x)),
        top_(static_cast<float>(bounds.y)),
        right_(static_cast<float>(bounds.x + bounds.width - 1)),
        bottom_(static_cast<float>(bounds.y + bounds.height - 1)) {}

  /// Channel c (0 red, 1 green, 2 blue) at (x, y); a NaN coordinate lands on the low edge.
  float at(float x, float y, int c) const {
    x = clampedTo(x, left_, right_);
    y = clampedTo(y, top_, bottom_);
    const int ix = static_cast<int>(x);
    const int iy = static_cast<int>(y);
    const float tx = x - static_cast<float>(ix);
    const float ty = y - static_cast<float>(iy);
    const float* p = base_ + static_cast<std::ptrdiff_t>(iy) * pitch_ + 3 * ix + c;
    // At the far edges the neighbour is the pixel itself (its weight is then 0 anyway).
    const std::ptrdiff_t dx = static_cast<float>(ix) < right_ ? 3 : 0;
    const std::ptrdiff_t dy = static_cast<float>(iy) < bottom_ ? pitch_ : 0;
    const float a = p[0] + (p[dx] - p[0]) * tx;
    const float b = p[dy] + (p[dy + dx] - p[dy]) * tx;
    return a + (b - a) * ty;
  }

 private:
  const float* base_;
  std::ptrdiff_t pitch_;
  float left_;
  float top_;
  float right_;
  float bottom_;
};

}  // namespace vorn::detail
