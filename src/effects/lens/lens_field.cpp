#include "effects/lens/lens_field.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "core/parallel.h"
#include "effects/kernels/cloned_loop.h"

namespace vorn::detail {
namespace {

// The arithmetic of ChannelSampler::at, with the clamps as selects and the offset in a type
// narrow enough (when it fits) for the clones to gather a whole vector of pixels.
template <typename Offset>
VORN_DISPATCH_TEMPLATE void readChannel(const WarpSource& source, int c, const float* __restrict xs,
                                        const float* __restrict ys, float* __restrict out,
                                        std::size_t count) {
  const float* __restrict channel = source.base + c;
  const auto pitch = static_cast<Offset>(source.pitch);
  const int top = source.top;
  const float left = source.left;
  const float right = source.right;
  const float topEdge = source.topEdge;
  const float bottom = source.bottom;
  const float frameX = source.frameX;
  const float frameY = source.frameY;
  for (std::size_t n = 0; n < count; ++n) {
    float x = xs[n] + frameX;
    float y = ys[n] + frameY;
    x = x > left ? x : left;
    x = x < right ? x : right;
    y = y > topEdge ? y : topEdge;
    y = y < bottom ? y : bottom;
    const int ix = static_cast<int>(x);
    const int iy = static_cast<int>(y);
    const float tx = x - static_cast<float>(ix);
    const float ty = y - static_cast<float>(iy);
    const Offset at = static_cast<Offset>(iy - top) * pitch + static_cast<Offset>(3 * ix);
    // At the far edges the neighbour is the pixel itself (its weight is then 0 anyway).
    const Offset dx = static_cast<float>(ix) < right ? 3 : 0;
    const Offset dy = static_cast<float>(iy) < bottom ? pitch : 0;
    const float a = channel[at] + (channel[at + dx] - channel[at]) * tx;
    const float b = channel[at + dy] + (channel[at + dy + dx] - channel[at + dy]) * tx;
    out[n] = a + (b - a) * ty;
  }
}

}  // namespace

void WarpSource::read(int c, const float* xs, const float* ys, float* out,
                      std::size_t count) const {
  if (narrow)
    readChannel<std::int32_t>(*this, c, xs, ys, out, count);
  else
    readChannel<std::ptrdiff_t>(*this, c, xs, ys, out, count);
}

void scaleSource(float* source, float x, float y, const LensAmounts& amounts) {
  const float gx = x + amounts.distortion * (source[2] - x);
  const float gy = y + amounts.distortion * (source[3] - y);
  for (int c = 0; c < 6; c += 4) {
    source[c] = gx + amounts.aberration * (source[c] - source[2]);
    source[c + 1] = gy + amounts.aberration * (source[c + 1] - source[3]);
  }
  source[2] = gx;
  source[3] = gy;
}

int LensField::nodeOf(int v) const {
  // A floor division, right for negative positions too.
  return v >= 0 ? v / cell_ : -((-v + cell_ - 1) / cell_);
}

LensField::LensField(const LensModifier& modifier, _Size<int> frame, _Rect<int> area,
                     const LensAmounts& amounts) {
  // The models are functions of the radius over the half diagonal: cells of a 320th of it keep
  // the error near a thousandth of a pixel and of a gain, with at most ~2e5 nodes.
  const double halfDiagonal = 0.5 * std::hypot(frame.width, frame.height);
  cell_ = std::max(1, static_cast<int>(halfDiagonal / 320.0));
  areaX_ = area.x;
  firstColumn_ = nodeOf(area.x);
  firstRow_ = nodeOf(area.y);
  columns_ = nodeOf(area.x + area.width - 1) - firstColumn_ + 2;
  rows_ = nodeOf(area.y + area.height - 1) - firstRow_ + 2;
  const auto plane = static_cast<std::size_t>(columns_) * static_cast<std::size_t>(rows_);
  nodes_.resize(plane * kLensPlanes);
  parallelRows(rows_, [&](int first, int end) {
    for (int j = first; j < end; ++j) {
      const int y = (firstRow_ + j) * cell_;
      for (int i = 0; i < columns_; ++i) {
        const int x = (firstColumn_ + i) * cell_;
        float node[kLensPlanes];
        if (modifier.sourceAt(x, y, node)) {
          scaleSource(node, static_cast<float>(x), static_cast<float>(y), amounts);
        } else {
          for (int c = 0; c < 6; c += 2) {
            node[c] = static_cast<float>(x);
            node[c + 1] = static_cast<float>(y);
          }
        }
        // Clamped to the gains a lens can ask for (a sane profile never leaves them); NaN to
        // the low end.
        float gain = 1.0f + amounts.vignetting * (modifier.shadingGainAt(x, y) - 1.0f);
        gain = gain > 0.25f ? gain : 0.25f;
        node[kGain] = gain < 8.0f ? gain : 8.0f;
        node[kGainRoot] = std::pow(node[kGain], 1.0f / 2.4f);
        const std::size_t at = static_cast<std::size_t>(j) * columns_ + i;
        for (int k = 0; k < kLensPlanes; ++k) nodes_[k * plane + at] = node[k];
      }
    }
  });
  columnNode_.resize(static_cast<std::size_t>(area.width));
  columnWeight_.resize(static_cast<std::size_t>(area.width));
  for (int n = 0; n < area.width; ++n) {
    const int i = nodeOf(area.x + n);
    columnNode_[n] = i - firstColumn_;
    columnWeight_[n] = static_cast<float>(area.x + n - i * cell_) / static_cast<float>(cell_);
  }
}

// The two node rows around y are blended over the columns the pixels need, then each pixel
// reads its node and the step to the next one: a value depends on its frame position alone.
void LensField::row(int x, int y, int count, float* const* planes) const {
  if (count <= 0) return;
  // Rows outside the area read its edge nodes rather than past the grid.
  const int j = std::clamp(nodeOf(y) - firstRow_, 0, rows_ - 2);
  const float ty = static_cast<float>(y - (firstRow_ + j) * cell_) / static_cast<float>(cell_);
  const int* node = columnNode_.data() + (x - areaX_);
  const float* weight = columnWeight_.data() + (x - areaX_);
  const int firstNode = node[0];
  const int lastNode = node[count - 1] + 1;
  const auto plane = static_cast<std::size_t>(columns_) * static_cast<std::size_t>(rows_);
  thread_local std::vector<float> blended;
  blended.resize(2 * static_cast<std::size_t>(columns_));
  float* left = blended.data();
  float* step = left + columns_;
  for (int k = 0; k < kLensPlanes; ++k) {
    if (!planes[k]) continue;
    const float* above = nodes_.data() + k * plane + static_cast<std::size_t>(j) * columns_;
    const float* below = above + columns_;
    for (int i = firstNode; i <= lastNode; ++i) left[i] = above[i] + (below[i] - above[i]) * ty;
    for (int i = firstNode; i < lastNode; ++i) step[i] = left[i + 1] - left[i];
    clonedTableLoop([left, step, node, weight, out = planes[k]](
                        std::size_t n) { out[n] = left[node[n]] + step[node[n]] * weight[n]; },
                    static_cast<std::size_t>(count));
  }
}

}  // namespace vorn::detail
