// The one resampling pass from a render of canvas cells to the picture shown.
#include <algorithm>
#include <cmath>
#include <utility>

#include "core/parallel.h"
#include "core/pixel_traits.h"
#include "pipeline/display_geometry.h"

namespace vorn {
namespace {

/// The x in [first, end) with lo <= p0 + k * x < hi, as a sub-range (the set is an interval).
std::pair<int, int> insideSpan(double p0, double k, double lo, double hi, int first, int end) {
  const auto inside = [&](int x) {
    const double p = p0 + k * static_cast<double>(x);
    return p >= lo && p < hi;
  };
  if (k == 0.0) return inside(first) ? std::make_pair(first, end) : std::make_pair(first, first);
  double a = (lo - p0) / k;
  double b = (hi - p0) / k;
  if (k < 0.0) std::swap(a, b);
  const auto limited = [&](double v) {
    return static_cast<int>(
        std::clamp(std::ceil(v), static_cast<double>(first), static_cast<double>(end)));
  };
  // Rounding in the division may leave an end one pixel off: widen by one, then shrink.
  int s0 = std::max(first, limited(a) - 1);
  int s1 = std::min(end, limited(b) + 1);
  while (s0 < s1 && !inside(s0)) ++s0;
  while (s1 > s0 && !inside(s1 - 1)) --s1;
  return {s0, s1};
}

/// Rounds down without a library call (the baseline has no rounding instruction).
int floorToInt(double v) {
  const int i = static_cast<int>(v);
  return v < static_cast<double>(i) ? i - 1 : i;
}

/// Bilinear lookup at a pixel-centred position, the edge pixels repeated past the edge; the
/// position lies within a pixel of the image.
template <typename T>
T bilinear(const _ImageData<T>& src, double px, double py) {
  using Channel = typename detail::PixelTraits<T>::Channel;
  constexpr int C = detail::PixelTraits<T>::kChannels;
  const int ix = floorToInt(px), iy = floorToInt(py);
  const auto fx = static_cast<float>(px - ix);
  const auto fy = static_cast<float>(py - iy);
  int x0 = ix, x1 = ix + 1, y0 = iy, y1 = iy + 1;
  if (ix < 0 || iy < 0 || x1 >= src.width || y1 >= src.height) {
    x0 = std::clamp(x0, 0, src.width - 1);
    x1 = std::clamp(x1, 0, src.width - 1);
    y0 = std::clamp(y0, 0, src.height - 1);
    y1 = std::clamp(y1, 0, src.height - 1);
  }
  const Channel* p00 = detail::channels(src.row(y0) + x0);
  const Channel* p10 = detail::channels(src.row(y0) + x1);
  const Channel* p01 = detail::channels(src.row(y1) + x0);
  const Channel* p11 = detail::channels(src.row(y1) + x1);
  T out{};
  Channel* o = detail::channels(&out);
  for (int c = 0; c < C; ++c) {
    const float top = p00[c] + (p10[c] - p00[c]) * fx;
    const float bottom = p01[c] + (p11[c] - p01[c]) * fx;
    o[c] = top + (bottom - top) * fy;
  }
  return out;
}

}  // namespace

template <typename T>
std::shared_ptr<_ImageData<T>> DisplayGeometry::presentAny(
    const _ImageData<T>& render, const _Rect<int>& cells,
    std::shared_ptr<_ImageData<T>> into) const {
  std::shared_ptr<_ImageData<T>> out = std::move(into);
  if (!out || out->size() != output_ || out.get() == &render)
    out = std::make_shared<_ImageData<T>>(output_, render.colorProfile);
  out->colorProfile = render.colorProfile;
  out->loadState = render.loadState;
  const PlaneMap m = outputToRender(cells);
  // Output pixels whose centre falls off the canvas are black; a whole-pixel copy also never
  // reads past the render.
  const _Rect<int> canvas(canvasCells_.x - cells.x, canvasCells_.y - cells.y, canvasCells_.width,
                          canvasCells_.height);
  _Rect<int> readable = canvas;
  if (wholePixel_) {
    const int x0 = std::max(canvas.x, 0), y0 = std::max(canvas.y, 0);
    const int x1 = std::min(canvas.x + canvas.width, render.width);
    const int y1 = std::min(canvas.y + canvas.height, render.height);
    readable = _Rect<int>(x0, y0, std::max(x1 - x0, 0), std::max(y1 - y0, 0));
  }
  const double loX = readable.x - 0.5, hiX = readable.x + readable.width - 0.5;
  const double loY = readable.y - 0.5, hiY = readable.y + readable.height - 0.5;
  const auto ia = std::lround(m.a), ic = std::lround(m.c);
  // Bands of rows walked in short chunks: a turned copy reads down source columns, and a chunk
  // keeps those reads within a few cache lines.
  constexpr int kBand = 32;
  constexpr int kChunk = 64;
  const int bands = (output_.height + kBand - 1) / kBand;
  detail::parallelRows(bands, [&](int firstBand, int endBand) {
    for (int band = firstBand; band < endBand; ++band) {
      const int y0 = band * kBand;
      const int y1 = std::min(y0 + kBand, output_.height);
      for (int x0 = 0; x0 < output_.width; x0 += kChunk) {
        const int x1 = std::min(x0 + kChunk, output_.width);
        for (int y = y0; y < y1; ++y) {
          const double px = m.b * y + m.tx;
          const double py = m.d * y + m.ty;
          const auto [ax, bx] = insideSpan(px, m.a, loX, hiX, x0, x1);
          const auto [s0, s1] = insideSpan(py, m.c, loY, hiY, ax, bx);
          T* row = out->row(y);
          std::fill(row + x0, row + s0, T{});
          std::fill(row + s1, row + x1, T{});
          if (s0 == s1) continue;
          if (wholePixel_) {
            const long sx = std::lround(px) + ia * s0;
            const long sy = std::lround(py) + ic * s0;
            const T* from = render.data + sy * render.width + sx;
            const long step = ic * render.width + ia;
            for (int x = s0; x < s1; ++x, from += step) row[x] = *from;
          } else {
            for (int x = s0; x < s1; ++x) row[x] = bilinear(render, px + m.a * x, py + m.c * x);
          }
        }
      }
    }
  });
  return out;
}

std::shared_ptr<_ImageData<PixelRGB<float>>> DisplayGeometry::present(
    const _ImageData<PixelRGB<float>>& render, const _Rect<int>& cells,
    std::shared_ptr<_ImageData<PixelRGB<float>>> into) const {
  return presentAny(render, cells, std::move(into));
}

std::shared_ptr<_ImageData<float>> DisplayGeometry::present(const _ImageData<float>& render,
                                                            const _Rect<int>& cells) const {
  return presentAny(render, cells, std::shared_ptr<_ImageData<float>>());
}

}  // namespace vorn
