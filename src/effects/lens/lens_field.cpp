#include "effects/lens/lens_field.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "core/parallel.h"

namespace vorn::detail {

int LensField::nodeOf(int v) const {
  // A floor division, right for negative positions too.
  return v >= 0 ? v / cell_ : -((-v + cell_ - 1) / cell_);
}

LensField::LensField(const LensModifier& modifier, _Size<int> frame, _Rect<int> area) {
  // The models are functions of the radius over the half diagonal: cells of a 320th of it keep
  // the error near a thousandth of a pixel and of a gain, with at most ~2e5 nodes.
  const double halfDiagonal = 0.5 * std::hypot(frame.width, frame.height);
  cell_ = std::max(1, static_cast<int>(halfDiagonal / 320.0));
  firstColumn_ = nodeOf(area.x);
  firstRow_ = nodeOf(area.y);
  columns_ = nodeOf(area.x + area.width - 1) - firstColumn_ + 2;
  const int rows = nodeOf(area.y + area.height - 1) - firstRow_ + 2;
  nodes_.resize(static_cast<std::size_t>(columns_) * static_cast<std::size_t>(rows) * kValues);
  parallelRows(rows, [&](int first, int end) {
    for (int j = first; j < end; ++j) {
      const int y = (firstRow_ + j) * cell_;
      float* node = nodes_.data() + static_cast<std::size_t>(j) * columns_ * kValues;
      for (int i = 0; i < columns_; ++i, node += kValues) {
        const int x = (firstColumn_ + i) * cell_;
        if (!modifier.sourceAt(x, y, node)) {
          for (int c = 0; c < 6; c += 2) {
            node[c] = static_cast<float>(x);
            node[c + 1] = static_cast<float>(y);
          }
        }
        node[6] = modifier.shadingGainAt(x, y);
      }
    }
  });
}

// Bilinear between the four nodes around each pixel: the two node rows are blended once per row.
void LensField::row(int x, int y, int count, float* coordinates, float* gains) const {
  const int j = nodeOf(y);
  const float ty = static_cast<float>(y - j * cell_) / static_cast<float>(cell_);
  const std::size_t width = static_cast<std::size_t>(columns_) * kValues;
  const float* above = nodes_.data() + static_cast<std::size_t>(j - firstRow_) * width;
  const float* below = above + width;
  thread_local std::vector<float> blended;
  blended.resize(width);
  for (std::size_t k = 0; k < width; ++k) blended[k] = above[k] + (below[k] - above[k]) * ty;
  for (int n = 0; n < count; ++n) {
    const int px = x + n;
    const int i = nodeOf(px);
    const float tx = static_cast<float>(px - i * cell_) / static_cast<float>(cell_);
    const float* left = blended.data() + static_cast<std::size_t>(i - firstColumn_) * kValues;
    const float* right = left + kValues;
    if (coordinates) {
      float* out = coordinates + 6 * static_cast<std::ptrdiff_t>(n);
      for (int c = 0; c < 6; ++c) out[c] = left[c] + (right[c] - left[c]) * tx;
    }
    if (gains) gains[n] = left[6] + (right[6] - left[6]) * tx;
  }
}

}  // namespace vorn::detail
