#pragma once

#include <cstddef>
#include <memory>

#include "core/parallel.h"
#include "vorn/core/image_data.h"

namespace vorn::detail {

/// Gives a plane's block back to where it came from.
struct PlaneFree {
  bool pooled = true;
  void operator()(float* block) const;
};

/// A width x height plane of floats, row-major, stride = width, drawn uninitialised from the
/// pixel pool (small ones from the heap): fresh pages cost more than the filtering itself.
/// std::bad_alloc when no memory is left.
class Plane {
 public:
  Plane() = default;
  Plane(int planeWidth, int planeHeight);

  int width() const { return width_; }
  int height() const { return height_; }
  std::size_t size() const {
    return static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_);
  }
  float* data() { return values_.get(); }
  const float* data() const { return values_.get(); }
  float* row(int y) { return data() + static_cast<std::size_t>(y) * width_; }
  const float* row(int y) const { return data() + static_cast<std::size_t>(y) * width_; }

 private:
  int width_ = 0;
  int height_ = 0;
  std::unique_ptr<float, PlaneFree> values_;
};

/// A plane of rect's size holding value(pixel) for every pixel of rect of image.
template <typename Value>
Plane planeOf(const _ImageData<PixelRGB<float>>& image, _Rect<int> rect, const Value& value) {
  Plane plane(rect.width, rect.height);
  parallelRows(rect.height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const PixelRGB<float>* in = image.row(rect.y + y) + rect.x;
      float* out = plane.row(y);
      for (int x = 0; x < rect.width; ++x) out[x] = value(in[x]);
    }
  });
  return plane;
}

/// out = op(a, b, c, d) value by value, rows in parallel; all planes of out's size.
template <typename Op>
void combinePlanes(Plane& out, const Plane& a, const Plane& b, const Plane& c, const Plane& d,
                   Op op) {
  parallelRows(out.height(), [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      float* o = out.row(y);
      const float* pa = a.row(y);
      const float* pb = b.row(y);
      const float* pc = c.row(y);
      const float* pd = d.row(y);
      for (int x = 0; x < out.width(); ++x) o[x] = op(pa[x], pb[x], pc[x], pd[x]);
    }
  });
}

}  // namespace vorn::detail
