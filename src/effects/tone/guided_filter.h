#pragma once

#include <cstddef>
#include <memory>

namespace vorn::detail {

/// A width x height plane of floats, row-major, stride = width, drawn uninitialised from the
/// pixel pool: fresh pages cost more than the filtering itself. std::bad_alloc when the pool
/// has no memory left.
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
  struct PoolFree {
    void operator()(float* block) const;
  };
  int width_ = 0;
  int height_ = 0;
  std::unique_ptr<float, PoolFree> values_;
};

/// Mean over the (2 radius + 1)^2 box around each value, mirrored at the borders.
void boxMean(const Plane& input, int radius, Plane& output);

/// The guided filter: output follows `input` smoothed within radius, keeping the edges of
/// `guide` whose local variance is well above eps. guide and input must be the same size.
void guidedFilter(const Plane& guide, const Plane& input, int radius, float eps, Plane& output);

}  // namespace vorn::detail
