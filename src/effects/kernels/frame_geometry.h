#pragma once

#include <cmath>
#include <cstddef>

#include "effects/render.h"

// Positions on the whole frame for effects placed on it: vignettes, gradients, grain.
namespace vorn::detail {

/// body(in, out, count, index, x0, y) for every output row: (x0, y) is the row's first output
/// pixel in source coordinates, index its place in window planes.
template <typename Body>
void forPlacedRows(const StencilWindow& window, Body&& body) {
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        const int y =
            window.input.y + static_cast<int>(index / static_cast<std::size_t>(window.input.width));
        body(in, out, count, index, window.output.x, y);
      });
}

/// A pixel's centre relative to the frame's centre, in pixels.
struct FrameCentre {
  explicit FrameCentre(_Rect<int> frame)
      : x(static_cast<float>(frame.x) + 0.5f * static_cast<float>(frame.width)),
        y(static_cast<float>(frame.y) + 0.5f * static_cast<float>(frame.height)),
        halfWidth(0.5f * static_cast<float>(frame.width)),
        halfHeight(0.5f * static_cast<float>(frame.height)) {}
  float dx(int px) const { return static_cast<float>(px) + 0.5f - x; }
  float dy(int py) const { return static_cast<float>(py) + 0.5f - y; }
  float x;
  float y;
  float halfWidth;
  float halfHeight;
};

/// A straight gradient across the frame: 1 on the side the normal points to, 0 on the other,
/// a smooth step of the given width between (widths and offset in units of the frame's half
/// extent along the normal, so the line crosses the frame for offsets in -1 ... 1).
class FrameGradient {
 public:
  /// Rotation in degrees: 0 puts the covered side at the top, positive turns it clockwise.
  FrameGradient(_Rect<int> frame, float rotationDegrees, float offset, float width)
      : centre_(frame), offset_(offset), halfWidth_(0.5f * width) {
    const float radians = rotationDegrees * 3.14159265f / 180.0f;
    const float nx = std::sin(radians);
    const float ny = -std::cos(radians);
    const float extent =
        std::fabs(nx) * centre_.halfWidth + std::fabs(ny) * centre_.halfHeight + 1e-6f;
    nx_ = nx / extent;
    ny_ = ny / extent;
  }
  /// Where pixel (px, py) lies across the transition: 0 where it begins, 1 where it ends, linear
  /// in both coordinates and unclamped.
  float across(int px, int py) const {
    const float s = nx_ * centre_.dx(px) + ny_ * centre_.dy(py) - offset_;
    return (s + halfWidth_) / (2.0f * halfWidth_);
  }
  /// The covered fraction at pixel (px, py).
  float at(int px, int py) const {
    // Selects rather than fmin/fmax (library calls on the baseline); NaN lands on 0.
    float t = across(px, py);
    t = t > 0.0f ? t : 0.0f;
    t = t < 1.0f ? t : 1.0f;
    return t * t * (3.0f - 2.0f * t);
  }

 private:
  FrameCentre centre_;
  float offset_;
  float halfWidth_;
  float nx_ = 0.0f;
  float ny_ = 0.0f;
};

}  // namespace vorn::detail
