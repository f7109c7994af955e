#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "effects/kernels/cloned_loop.h"
#include "effects/kernels/mix.h"
#include "effects/kernels/window_blur.h"

// Smooth effects (lens blur, light rays) work on a decimated copy of their window: blocks are
// aligned on the frame, so a region render decimates exactly as a whole one does.
namespace vorn::detail {

/// The block grid of a window decimated by `factor`.
class DecimationGrid {
 public:
  DecimationGrid(const StencilWindow& window, int factor)
      : window_(window),
        factor_(factor),
        originX_(origin(window.input.x, window.frame.x, factor)),
        originY_(origin(window.input.y, window.frame.y, factor)),
        width_((window.input.width - originX_ + factor - 1) / factor),
        height_((window.input.height - originY_ + factor - 1) / factor) {}

  int factor() const { return factor_; }
  /// Where the first block starts, in window coordinates (0 or negative).
  float originX() const { return static_cast<float>(originX_); }
  float originY() const { return static_cast<float>(originY_); }
  _Size<int> size() const { return _Size<int>(width_, height_); }

  /// The mean of prepare(pixel) over each block (its part inside the window), pixels made
  /// spreadable first.
  template <typename Prepare>
  ImageRGBf decimate(const Prepare& prepare) const {
    ImageRGBf small(size());
    const int width = window_.input.width;
    parallelRows(height_, [&](int first, int end) {
      // A source row is prepared whole in a loop that vectorises, then summed block by block
      // in the order a block's own loops would take.
      thread_local std::vector<PixelRGB<float>> prepared;
      thread_local std::vector<PixelRGB<float>> sums;
      prepared.resize(static_cast<std::size_t>(width));
      sums.resize(static_cast<std::size_t>(width_));
      PixelRGB<float>* values = prepared.data();
      for (int by = first; by < end; ++by) {
        const int y0 = std::max(0, originY_ + by * factor_);
        const int y1 = std::min(window_.input.height, originY_ + (by + 1) * factor_);
        std::fill(sums.begin(), sums.end(), PixelRGB<float>(0.0f));
        for (int y = y0; y < y1; ++y) {
          const PixelRGB<float>* row = window_.source.row(window_.input.y + y) + window_.input.x;
          clonedLoop([=](std::size_t x) { values[x] = prepare(spreadable(row[x])); },
                     static_cast<std::size_t>(width));
          for (int bx = 0; bx < width_; ++bx) {
            PixelRGB<float> sum = sums[static_cast<std::size_t>(bx)];
            const int x1 = std::min(width, originX_ + (bx + 1) * factor_);
            for (int x = std::max(0, originX_ + bx * factor_); x < x1; ++x) {
              const PixelRGB<float>& p = values[x];
              sum = PixelRGB<float>(sum.r + p.r, sum.g + p.g, sum.b + p.b);
            }
            sums[static_cast<std::size_t>(bx)] = sum;
          }
        }
        for (int bx = 0; bx < width_; ++bx) {
          const int x0 = std::max(0, originX_ + bx * factor_);
          const int x1 = std::min(width, originX_ + (bx + 1) * factor_);
          small.at(bx, by) = scaled(sums[static_cast<std::size_t>(bx)],
                                    1.0f / static_cast<float>((y1 - y0) * (x1 - x0)));
        }
      }
    });
    window_.control.checkpoint();
    return small;
  }

  /// The two blocks an image column or row is interpolated between, and the weight of the second.
  struct Tap {
    int first;
    int second;
    float weight;
  };
  /// The tap of image column x, and of image row y.
  Tap columnTap(int x) const { return tap(x - window_.input.x - originX_, width_); }
  Tap rowTap(int y) const { return tap(y - window_.input.y - originY_, height_); }
  /// The taps of image columns x0 ... x0 + count - 1, worked out once for the rows of a render.
  std::vector<Tap> columnTaps(int x0, std::size_t count) const {
    std::vector<Tap> taps(count);
    for (std::size_t i = 0; i < count; ++i) taps[i] = columnTap(x0 + static_cast<int>(i));
    return taps;
  }

  /// Bilinear sample of a decimated image between the blocks of a column and a row tap: block
  /// centres sit at the middle of their blocks.
  static PixelRGB<float> sample(const ImageRGBf& small, const Tap& column, const Tap& row) {
    const PixelRGB<float>* top = small.row(row.first);
    const PixelRGB<float>* bottom = small.row(row.second);
    return mix(mix(top[column.first], top[column.second], column.weight),
               mix(bottom[column.first], bottom[column.second], column.weight), row.weight);
  }
  /// The same at image pixel (x, y).
  PixelRGB<float> sample(const ImageRGBf& small, int x, int y) const {
    return sample(small, columnTap(x), rowTap(y));
  }

  /// Source pixels beyond the output that one block sample reads: the margin to add to a reach.
  int margin() const { return 2 * factor_; }

 private:
  /// Where the first block starts in window coordinates (0 or negative): blocks start at
  /// frame.x + k factor.
  static int origin(int windowStart, int frameStart, int factor) {
    int offset = (frameStart - windowStart) % factor;
    if (offset > 0) offset -= factor;
    return offset;
  }

  /// The tap of a pixel `offset` pixels past the first block's start, over `blocks` blocks.
  Tap tap(int offset, int blocks) const {
    const float inverse = 1.0f / static_cast<float>(factor_);
    const float f = (static_cast<float>(offset) + 0.5f) * inverse - 0.5f;
    const int first = std::clamp(static_cast<int>(std::floor(f)), 0, blocks - 1);
    return Tap{first, std::min(first + 1, blocks - 1), unitClamp(f - static_cast<float>(first))};
  }

  const StencilWindow& window_;
  int factor_;
  int originX_;
  int originY_;
  int width_;
  int height_;
};

}  // namespace vorn::detail
