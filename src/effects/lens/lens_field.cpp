#include "effects/lens/lens_field.h"

#include <immintrin.h>

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

// GCC 12's intrinsic headers seed results with self-initialised "undefined" vectors, which
// -Wmaybe-uninitialized reports in every caller; the values are always overwritten.
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// The generic tuning keeps the clones off gather instructions and loads lane by lane, which
// costs three times as much here: the vector kernels gather explicitly, with the same
// operations in the same order as readChannel (no fused multiply-add), so results match it.
__attribute__((target("avx2"))) void readChannelAvx2(const WarpSource& source, int c,
                                                     const float* xs, const float* ys, float* out,
                                                     std::size_t count) {
  const float* channel = source.base + c;
  const __m256 left = _mm256_set1_ps(source.left);
  const __m256 right = _mm256_set1_ps(source.right);
  const __m256 topEdge = _mm256_set1_ps(source.topEdge);
  const __m256 bottom = _mm256_set1_ps(source.bottom);
  const __m256 frameX = _mm256_set1_ps(source.frameX);
  const __m256 frameY = _mm256_set1_ps(source.frameY);
  const __m256i pitch = _mm256_set1_epi32(static_cast<int>(source.pitch));
  const __m256i top = _mm256_set1_epi32(source.top);
  const __m256i three = _mm256_set1_epi32(3);
  std::size_t n = 0;
  for (; n + 8 <= count; n += 8) {
    // max and min return their second operand for NaN: a NaN position lands on the low edge.
    const __m256 x =
        _mm256_min_ps(_mm256_max_ps(_mm256_add_ps(_mm256_loadu_ps(xs + n), frameX), left), right);
    const __m256 y = _mm256_min_ps(
        _mm256_max_ps(_mm256_add_ps(_mm256_loadu_ps(ys + n), frameY), topEdge), bottom);
    const __m256i ix = _mm256_cvttps_epi32(x);
    const __m256i iy = _mm256_cvttps_epi32(y);
    const __m256 fx = _mm256_cvtepi32_ps(ix);
    const __m256 fy = _mm256_cvtepi32_ps(iy);
    const __m256 tx = _mm256_sub_ps(x, fx);
    const __m256 ty = _mm256_sub_ps(y, fy);
    const __m256i at = _mm256_add_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(iy, top), pitch),
                                        _mm256_mullo_epi32(ix, three));
    const __m256i dx =
        _mm256_and_si256(_mm256_castps_si256(_mm256_cmp_ps(fx, right, _CMP_LT_OQ)), three);
    const __m256i dy =
        _mm256_and_si256(_mm256_castps_si256(_mm256_cmp_ps(fy, bottom, _CMP_LT_OQ)), pitch);
    const __m256i below = _mm256_add_epi32(at, dy);
    const __m256 p00 = _mm256_i32gather_ps(channel, at, 4);
    const __m256 p01 = _mm256_i32gather_ps(channel, _mm256_add_epi32(at, dx), 4);
    const __m256 p10 = _mm256_i32gather_ps(channel, below, 4);
    const __m256 p11 = _mm256_i32gather_ps(channel, _mm256_add_epi32(below, dx), 4);
    const __m256 a = _mm256_add_ps(p00, _mm256_mul_ps(_mm256_sub_ps(p01, p00), tx));
    const __m256 b = _mm256_add_ps(p10, _mm256_mul_ps(_mm256_sub_ps(p11, p10), tx));
    _mm256_storeu_ps(out + n, _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), ty)));
  }
  readChannel<std::int32_t>(source, c, xs + n, ys + n, out + n, count - n);
}

// Sixteen reads from two windows of 32 floats, the first for the low eight lanes and the second
// for the high ones, at each lane's offset into its window.
__attribute__((target("avx512f"))) inline __m512 readWindows(const float* low, const float* high,
                                                             __m512i relative) {
  const __m512 fromLow =
      _mm512_permutex2var_ps(_mm512_loadu_ps(low), relative, _mm512_loadu_ps(low + 16));
  const __m512 fromHigh =
      _mm512_permutex2var_ps(_mm512_loadu_ps(high), relative, _mm512_loadu_ps(high + 16));
  return _mm512_mask_blend_ps(0xFF00, fromLow, fromHigh);
}

__attribute__((target("avx512f"))) void readChannelAvx512(const WarpSource& source, int c,
                                                          const float* xs, const float* ys,
                                                          float* out, std::size_t count) {
  const float* channel = source.base + c;
  const __m512 left = _mm512_set1_ps(source.left);
  const __m512 right = _mm512_set1_ps(source.right);
  const __m512 topEdge = _mm512_set1_ps(source.topEdge);
  const __m512 bottom = _mm512_set1_ps(source.bottom);
  const __m512 frameX = _mm512_set1_ps(source.frameX);
  const __m512 frameY = _mm512_set1_ps(source.frameY);
  const __m512i pitch = _mm512_set1_epi32(static_cast<int>(source.pitch));
  const __m512i top = _mm512_set1_epi32(source.top);
  const __m512i three = _mm512_set1_epi32(3);
  const __m512i halves = _mm512_setr_epi32(0, 0, 0, 0, 0, 0, 0, 0, 8, 8, 8, 8, 8, 8, 8, 8);
  // A window's last read is 3 floats (the right neighbour) past a relative offset of at most
  // 28; the window may not run past the picture's last value.
  const __m512i windowSpan = _mm512_set1_epi32(28);
  const __m512i lastWindow = _mm512_set1_epi32(
      static_cast<int>(std::min<std::ptrdiff_t>(source.extent - 32 - c, 0x7fffffff)));
  std::size_t n = 0;
  for (; n + 16 <= count; n += 16) {
    const __m512 x =
        _mm512_min_ps(_mm512_max_ps(_mm512_add_ps(_mm512_loadu_ps(xs + n), frameX), left), right);
    const __m512 y = _mm512_min_ps(
        _mm512_max_ps(_mm512_add_ps(_mm512_loadu_ps(ys + n), frameY), topEdge), bottom);
    const __m512i ix = _mm512_cvttps_epi32(x);
    const __m512i iy = _mm512_cvttps_epi32(y);
    const __m512 fx = _mm512_cvtepi32_ps(ix);
    const __m512 fy = _mm512_cvtepi32_ps(iy);
    const __m512 tx = _mm512_sub_ps(x, fx);
    const __m512 ty = _mm512_sub_ps(y, fy);
    const __m512i at = _mm512_add_epi32(_mm512_mullo_epi32(_mm512_sub_epi32(iy, top), pitch),
                                        _mm512_mullo_epi32(ix, three));
    const __m512i dx = _mm512_maskz_mov_epi32(_mm512_cmp_ps_mask(fx, right, _CMP_LT_OQ), three);
    const __m512i dy = _mm512_maskz_mov_epi32(_mm512_cmp_ps_mask(fy, bottom, _CMP_LT_OQ), pitch);
    const __m512i below = _mm512_add_epi32(at, dy);
    __m512 p00, p01, p10, p11;
    // Neighbouring pixels read neighbouring places: where a half's reads fall in 32 floats
    // from its first lane's, two loads and a permute replace its gather.
    const __m512i atFirst = _mm512_permutexvar_epi32(halves, at);
    const __m512i belowFirst = _mm512_permutexvar_epi32(halves, below);
    const __m512i atRelative = _mm512_sub_epi32(at, atFirst);
    const __m512i belowRelative = _mm512_sub_epi32(below, belowFirst);
    const __mmask16 fits = _mm512_cmple_epu32_mask(atRelative, windowSpan) &
                           _mm512_cmple_epu32_mask(belowRelative, windowSpan) &
                           _mm512_cmple_epi32_mask(belowFirst, lastWindow);
    const bool lowFits = (fits & 0x00FF) == 0x00FF;
    const bool highFits = (fits & 0xFF00) == 0xFF00;
    const __mmask16 gathered =
        static_cast<__mmask16>((lowFits ? 0 : 0x00FF) | (highFits ? 0 : 0xFF00));
    if (gathered == 0xFFFF) {
      p00 = _mm512_i32gather_ps(at, channel, 4);
      p01 = _mm512_i32gather_ps(_mm512_add_epi32(at, dx), channel, 4);
      p10 = _mm512_i32gather_ps(below, channel, 4);
      p11 = _mm512_i32gather_ps(_mm512_add_epi32(below, dx), channel, 4);
    } else {
      // A half that does not fit borrows the other's windows (its own may end past the
      // picture), and its lanes are then gathered over.
      const float* atLow = channel + _mm_cvtsi128_si32(_mm512_castsi512_si128(at));
      const float* atHigh = channel + _mm_cvtsi128_si32(_mm512_extracti32x4_epi32(at, 2));
      const float* belowLow = channel + _mm_cvtsi128_si32(_mm512_castsi512_si128(below));
      const float* belowHigh = channel + _mm_cvtsi128_si32(_mm512_extracti32x4_epi32(below, 2));
      if (!lowFits) {
        atLow = atHigh;
        belowLow = belowHigh;
      }
      if (!highFits) {
        atHigh = atLow;
        belowHigh = belowLow;
      }
      const __m512i atRight = _mm512_add_epi32(at, dx);
      const __m512i belowRight = _mm512_add_epi32(below, dx);
      p00 = readWindows(atLow, atHigh, atRelative);
      p01 = readWindows(atLow, atHigh, _mm512_add_epi32(atRelative, dx));
      p10 = readWindows(belowLow, belowHigh, belowRelative);
      p11 = readWindows(belowLow, belowHigh, _mm512_add_epi32(belowRelative, dx));
      if (gathered != 0) {
        p00 = _mm512_mask_i32gather_ps(p00, gathered, at, channel, 4);
        p01 = _mm512_mask_i32gather_ps(p01, gathered, atRight, channel, 4);
        p10 = _mm512_mask_i32gather_ps(p10, gathered, below, channel, 4);
        p11 = _mm512_mask_i32gather_ps(p11, gathered, belowRight, channel, 4);
      }
    }
    const __m512 a = _mm512_add_ps(p00, _mm512_mul_ps(_mm512_sub_ps(p01, p00), tx));
    const __m512 b = _mm512_add_ps(p10, _mm512_mul_ps(_mm512_sub_ps(p11, p10), tx));
    _mm512_storeu_ps(out + n, _mm512_add_ps(a, _mm512_mul_ps(_mm512_sub_ps(b, a), ty)));
  }
  readChannel<std::int32_t>(source, c, xs + n, ys + n, out + n, count - n);
}

// out[n] = left[node[n]] + step[node[n]] * weight[n]: each pixel's node and the step to the next.
void spreadNodes(const float* left, const float* step, const int* node, const float* weight,
                 float* out, std::size_t count) {
  clonedTableLoop([left, step, node, weight,
                   out](std::size_t n) { out[n] = left[node[n]] + step[node[n]] * weight[n]; },
                  count);
}

// Sixteen neighbouring pixels lie on at most sixteen neighbouring nodes (a cell is a pixel or
// more), so one load and a permute of the nodes from the first pixel's replace a gather.
__attribute__((target("avx512f"))) void spreadNodesAvx512(const float* left, const float* step,
                                                          const int* node, const float* weight,
                                                          float* out, std::size_t count) {
  std::size_t n = 0;
  for (; n + 16 <= count; n += 16) {
    const int first = node[n];
    const __m512i relative =
        _mm512_sub_epi32(_mm512_loadu_si512(node + n), _mm512_set1_epi32(first));
    const __m512 value = _mm512_permutexvar_ps(relative, _mm512_loadu_ps(left + first));
    const __m512 slope = _mm512_permutexvar_ps(relative, _mm512_loadu_ps(step + first));
    _mm512_storeu_ps(out + n,
                     _mm512_add_ps(value, _mm512_mul_ps(slope, _mm512_loadu_ps(weight + n))));
  }
  spreadNodes(left, step, node + n, weight + n, out + n, count - n);
}

#pragma GCC diagnostic pop

using SpreadKernel = void (*)(const float*, const float*, const int*, const float*, float*,
                              std::size_t);

SpreadKernel selectSpreadKernel() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512f") ? spreadNodesAvx512 : spreadNodes;
}

using ReadKernel = void (*)(const WarpSource&, int, const float*, const float*, float*,
                            std::size_t);

ReadKernel selectReadKernel() {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) return readChannelAvx512;
  if (__builtin_cpu_supports("avx2")) return readChannelAvx2;
  return readChannel<std::int32_t>;
}

}  // namespace

void WarpSource::read(int c, const float* xs, const float* ys, float* out,
                      std::size_t count) const {
  static const ReadKernel narrowKernel = selectReadKernel();
  if (narrow)
    narrowKernel(*this, c, xs, ys, out, count);
  else
    readChannel<std::ptrdiff_t>(*this, c, xs, ys, out, count);
}

bool WarpSource::readWith(WarpIsa isa, int c, const float* xs, const float* ys, float* out,
                          std::size_t count) const {
  __builtin_cpu_init();
  if (isa == WarpIsa::Portable) {
    if (narrow)
      readChannel<std::int32_t>(*this, c, xs, ys, out, count);
    else
      readChannel<std::ptrdiff_t>(*this, c, xs, ys, out, count);
    return true;
  }
  if (!narrow) return false;
  if (isa == WarpIsa::Avx2) {
    if (!__builtin_cpu_supports("avx2")) return false;
    readChannelAvx2(*this, c, xs, ys, out, count);
    return true;
  }
  if (!__builtin_cpu_supports("avx512f")) return false;
  readChannelAvx512(*this, c, xs, ys, out, count);
  return true;
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
  // Padded for the vector kernel's loads of a vector's worth of nodes from any of them.
  const std::size_t padded = static_cast<std::size_t>(columns_) + 16;
  thread_local std::vector<float> blended;
  blended.resize(2 * padded);
  float* left = blended.data();
  float* step = left + padded;
  static const SpreadKernel spread = selectSpreadKernel();
  for (int k = 0; k < kLensPlanes; ++k) {
    if (!planes[k]) continue;
    const float* above = nodes_.data() + k * plane + static_cast<std::size_t>(j) * columns_;
    const float* below = above + columns_;
    for (int i = firstNode; i <= lastNode; ++i) left[i] = above[i] + (below[i] - above[i]) * ty;
    for (int i = firstNode; i < lastNode; ++i) step[i] = left[i + 1] - left[i];
    spread(left, step, node, weight, planes[k], static_cast<std::size_t>(count));
  }
}

}  // namespace vorn::detail
