#include "effects/lens/lens_field.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "core/parallel.h"
#include "effects/kernels/bilinear.h"
#include "effects/kernels/cloned_loop.h"

namespace vorn::detail {
namespace {

/// Pixels read per pass of the two stages below, their taps held in the first-level cache.
constexpr std::size_t kTapChunk = 64;

/// Per pixel: the offset of its top-left value from the channel's first, the steps to its right
/// and lower neighbours (0 at the far edges, where the weight is 0 anyway) and the weights.
template <typename Offset>
struct Taps {
  Offset at[kTapChunk];
  Offset right[kTapChunk];
  Offset down[kTapChunk];
  float tx[kTapChunk];
  float ty[kTapChunk];
};

// The arithmetic of ChannelSampler::at up to its loads (a NaN position lands on the low edge):
// free of loads at computed places, it vectorises anywhere.
template <typename Offset>
VORN_DISPATCH_TEMPLATE void locate(const WarpSource& source, const float* __restrict xs,
                                   const float* __restrict ys, std::size_t count,
                                   Offset* __restrict at, Offset* __restrict right,
                                   Offset* __restrict down, float* __restrict tx,
                                   float* __restrict ty) {
  const auto pitch = static_cast<Offset>(source.pitch);
  const int top = source.top;
  const float left = source.left;
  const float rightEdge = source.right;
  const float topEdge = source.topEdge;
  const float bottom = source.bottom;
  const float frameX = source.frameX;
  const float frameY = source.frameY;
  for (std::size_t n = 0; n < count; ++n) {
    const float x = clampedTo(xs[n] + frameX, left, rightEdge);
    const float y = clampedTo(ys[n] + frameY, topEdge, bottom);
    const int ix = static_cast<int>(x);
    const int iy = static_cast<int>(y);
    tx[n] = x - static_cast<float>(ix);
    ty[n] = y - static_cast<float>(iy);
    at[n] = static_cast<Offset>(iy - top) * pitch + static_cast<Offset>(3 * ix);
    right[n] = static_cast<float>(ix) < rightEdge ? 3 : 0;
    down[n] = static_cast<float>(iy) < bottom ? pitch : 0;
  }
}

// The four reads and the blend, as ChannelSampler::at orders them; the vector kernels below
// keep the order and use no fused multiply-add, so every kernel gives the same bits.
template <typename Offset>
void blendTaps(const float* channel, const Taps<Offset>& taps, std::size_t first, std::size_t count,
               float* out) {
  clonedTableLoop(
      [channel, at = taps.at + first, right = taps.right + first, down = taps.down + first,
       tx = taps.tx + first, ty = taps.ty + first, out = out + first](std::size_t n) {
        const float* p = channel + at[n];
        const float a = p[0] + (p[right[n]] - p[0]) * tx[n];
        const float b = p[down[n]] + (p[down[n] + right[n]] - p[down[n]]) * tx[n];
        out[n] = a + (b - a) * ty[n];
      },
      count - first);
}

// GCC 12's intrinsic headers seed results with self-initialised "undefined" vectors, which
// -Wmaybe-uninitialized reports in every caller; the values are always overwritten.
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// The generic tuning keeps the clones off gather instructions and loads lane by lane, which
// costs three times as much here.
__attribute__((target("avx2"))) void blendTapsAvx2(const float* channel,
                                                   const Taps<std::int32_t>& taps,
                                                   std::size_t count, int, float* out) {
  std::size_t n = 0;
  for (; n + 8 <= count; n += 8) {
    const __m256i at = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(taps.at + n));
    const __m256i right = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(taps.right + n));
    const __m256i below =
        _mm256_add_epi32(at, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(taps.down + n)));
    const __m256 tx = _mm256_loadu_ps(taps.tx + n);
    const __m256 p00 = _mm256_i32gather_ps(channel, at, 4);
    const __m256 p01 = _mm256_i32gather_ps(channel, _mm256_add_epi32(at, right), 4);
    const __m256 p10 = _mm256_i32gather_ps(channel, below, 4);
    const __m256 p11 = _mm256_i32gather_ps(channel, _mm256_add_epi32(below, right), 4);
    const __m256 a = _mm256_add_ps(p00, _mm256_mul_ps(_mm256_sub_ps(p01, p00), tx));
    const __m256 b = _mm256_add_ps(p10, _mm256_mul_ps(_mm256_sub_ps(p11, p10), tx));
    _mm256_storeu_ps(out + n, _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a),
                                                             _mm256_loadu_ps(taps.ty + n))));
  }
  blendTaps(channel, taps, n, count, out);
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

// Neighbouring pixels read neighbouring places: where a half vector's reads fall in 32 floats
// from its first lane's, two loads and a permute replace its gather. lastWindow is the last
// offset a window may start at without running past the picture.
__attribute__((target("avx512f"))) void blendTapsAvx512(const float* channel,
                                                        const Taps<std::int32_t>& taps,
                                                        std::size_t count, int lastWindow,
                                                        float* out) {
  const __m512i halves = _mm512_setr_epi32(0, 0, 0, 0, 0, 0, 0, 0, 8, 8, 8, 8, 8, 8, 8, 8);
  // A window's last read is 3 floats (the right neighbour) past a relative offset of 28.
  const __m512i span = _mm512_set1_epi32(28);
  const __m512i last = _mm512_set1_epi32(lastWindow);
  std::size_t n = 0;
  for (; n + 16 <= count; n += 16) {
    const __m512i at = _mm512_loadu_si512(taps.at + n);
    const __m512i right = _mm512_loadu_si512(taps.right + n);
    const __m512i below = _mm512_add_epi32(at, _mm512_loadu_si512(taps.down + n));
    const __m512i atFirst = _mm512_permutexvar_epi32(halves, at);
    const __m512i belowFirst = _mm512_permutexvar_epi32(halves, below);
    const __m512i atRelative = _mm512_sub_epi32(at, atFirst);
    const __m512i belowRelative = _mm512_sub_epi32(below, belowFirst);
    const __mmask16 fits = _mm512_cmple_epu32_mask(atRelative, span) &
                           _mm512_cmple_epu32_mask(belowRelative, span) &
                           _mm512_cmple_epi32_mask(belowFirst, last);
    const bool lowFits = (fits & 0x00FF) == 0x00FF;
    const bool highFits = (fits & 0xFF00) == 0xFF00;
    const auto gathered = static_cast<__mmask16>((lowFits ? 0 : 0x00FF) | (highFits ? 0 : 0xFF00));
    const __m512i atRight = _mm512_add_epi32(at, right);
    const __m512i belowRight = _mm512_add_epi32(below, right);
    __m512 p00, p01, p10, p11;
    if (gathered == 0xFFFF) {
      p00 = _mm512_i32gather_ps(at, channel, 4);
      p01 = _mm512_i32gather_ps(atRight, channel, 4);
      p10 = _mm512_i32gather_ps(below, channel, 4);
      p11 = _mm512_i32gather_ps(belowRight, channel, 4);
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
      p00 = readWindows(atLow, atHigh, atRelative);
      p01 = readWindows(atLow, atHigh, _mm512_add_epi32(atRelative, right));
      p10 = readWindows(belowLow, belowHigh, belowRelative);
      p11 = readWindows(belowLow, belowHigh, _mm512_add_epi32(belowRelative, right));
      if (gathered != 0) {
        p00 = _mm512_mask_i32gather_ps(p00, gathered, at, channel, 4);
        p01 = _mm512_mask_i32gather_ps(p01, gathered, atRight, channel, 4);
        p10 = _mm512_mask_i32gather_ps(p10, gathered, below, channel, 4);
        p11 = _mm512_mask_i32gather_ps(p11, gathered, belowRight, channel, 4);
      }
    }
    const __m512 tx = _mm512_loadu_ps(taps.tx + n);
    const __m512 a = _mm512_add_ps(p00, _mm512_mul_ps(_mm512_sub_ps(p01, p00), tx));
    const __m512 b = _mm512_add_ps(p10, _mm512_mul_ps(_mm512_sub_ps(p11, p10), tx));
    _mm512_storeu_ps(out + n, _mm512_add_ps(a, _mm512_mul_ps(_mm512_sub_ps(b, a),
                                                             _mm512_loadu_ps(taps.ty + n))));
  }
  blendTaps(channel, taps, n, count, out);
}

// out[n] = left[node[n]] + step[node[n]] * weight[n]: each pixel's node and the step to the next.
void spreadNodes(const float* left, const float* step, const int* node, const float* weight,
                 float* out, std::size_t count) {
  clonedTableLoop([left, step, node, weight,
                   out](std::size_t n) { out[n] = left[node[n]] + step[node[n]] * weight[n]; },
                  count);
}

// Eight neighbouring pixels lie on at most eight neighbouring nodes (a cell is a pixel or more),
// so one load and a permute of the nodes from the first pixel's replace a gather.
__attribute__((target("avx2"))) void spreadNodesAvx2(const float* left, const float* step,
                                                     const int* node, const float* weight,
                                                     float* out, std::size_t count) {
  std::size_t n = 0;
  for (; n + 8 <= count; n += 8) {
    const __m256i relative = _mm256_sub_epi32(
        _mm256_loadu_si256(reinterpret_cast<const __m256i*>(node + n)), _mm256_set1_epi32(node[n]));
    const __m256 slope = _mm256_permutevar8x32_ps(_mm256_loadu_ps(step + node[n]), relative);
    const __m256 offset = _mm256_mul_ps(slope, _mm256_loadu_ps(weight + n));
    _mm256_storeu_ps(
        out + n,
        _mm256_add_ps(_mm256_permutevar8x32_ps(_mm256_loadu_ps(left + node[n]), relative), offset));
  }
  spreadNodes(left, step, node + n, weight + n, out + n, count - n);
}

// The same with sixteen pixels.
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
  if (__builtin_cpu_supports("avx512f")) return spreadNodesAvx512;
  return __builtin_cpu_supports("avx2") ? spreadNodesAvx2 : spreadNodes;
}

using BlendKernel = void (*)(const float*, const Taps<std::int32_t>&, std::size_t, int, float*);

void blendTapsPortable(const float* channel, const Taps<std::int32_t>& taps, std::size_t count, int,
                       float* out) {
  blendTaps(channel, taps, 0, count, out);
}

BlendKernel blendKernelFor(WarpIsa isa) {
  __builtin_cpu_init();
  if (isa == WarpIsa::Avx512) return __builtin_cpu_supports("avx512f") ? blendTapsAvx512 : nullptr;
  if (isa == WarpIsa::Avx2) return __builtin_cpu_supports("avx2") ? blendTapsAvx2 : nullptr;
  return blendTapsPortable;
}

BlendKernel fastestBlendKernel() {
  for (const WarpIsa isa : {WarpIsa::Avx512, WarpIsa::Avx2})
    if (const BlendKernel kernel = blendKernelFor(isa)) return kernel;
  return blendTapsPortable;
}

}  // namespace

void WarpSource::read(int c, const float* xs, const float* ys, float* out,
                      std::size_t count) const {
  static const BlendKernel fastest = fastestBlendKernel();
  readIn(fastest, c, xs, ys, out, count);
}

bool WarpSource::readWith(WarpIsa isa, int c, const float* xs, const float* ys, float* out,
                          std::size_t count) const {
  const BlendKernel kernel = blendKernelFor(isa);
  if (!kernel) return false;
  readIn(kernel, c, xs, ys, out, count);
  return true;
}

// Offsets past 32 bits take the portable loop: a picture over ~700 MP is rare enough.
template <typename Kernel>
void WarpSource::readIn(Kernel kernel, int c, const float* xs, const float* ys, float* out,
                        std::size_t count) const {
  const float* channel = base + c;
  const auto lastWindow = static_cast<int>(std::min<std::ptrdiff_t>(extent - 32 - c, INT32_MAX));
  for (std::size_t first = 0; first < count; first += kTapChunk) {
    const std::size_t n = std::min(kTapChunk, count - first);
    if (narrow) {
      Taps<std::int32_t> taps;
      locate(*this, xs + first, ys + first, n, taps.at, taps.right, taps.down, taps.tx, taps.ty);
      kernel(channel, taps, n, lastWindow, out + first);
    } else {
      Taps<std::ptrdiff_t> taps;
      locate(*this, xs + first, ys + first, n, taps.at, taps.right, taps.down, taps.tx, taps.ty);
      blendTaps(channel, taps, 0, n, out + first);
    }
  }
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
  // the error near a thousandth of a pixel and of a gain, with at most ~2e5 nodes. Rounded to
  // the nearest: truncating 2.8 to 2 gave a preview more nodes than the full frame.
  const double halfDiagonal = 0.5 * std::hypot(frame.width, frame.height);
  cell_ = std::max(1, static_cast<int>(std::lround(halfDiagonal / 320.0)));
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
