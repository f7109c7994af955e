// LUT mapping: a .cube table named in Amount's optional data, sampled per pixel and mixed with
// the input by Amount.
#include <immintrin.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "effects/kernels/mix.h"
#include "effects/lut/cube_cache.h"
#include "effects/render.h"
#include "vorn/effects/lut_effects.h"

namespace vorn {

namespace {

using detail::CubeLut;

/// The LUT file name: Amount's optional data when it is a non-empty string.
std::string lutName(const Effect& effect) {
  const ParameterOptionalData data = effect.parameters()[0].optionalData();
  const auto* name = boost::get<std::string>(&data);
  return name ? *name : std::string();
}

/// Maps a channel value onto table positions 0 ... size - 1; outside the domain (and NaN) it
/// holds at the nearer end, as the table says nothing there.
struct DomainScale {
  DomainScale(const CubeLut& lut, std::size_t channel)
      : scale(static_cast<float>(lut.size - 1) / (lut.domainMax[channel] - lut.domainMin[channel])),
        offset(-lut.domainMin[channel] * scale),
        top(static_cast<float>(lut.size - 1)) {}
  float operator()(float value) const {
    return std::fmin(std::fmax(value * scale + offset, 0.0f), top);
  }
  float scale;
  float offset;
  float top;
};

/// Splits a table position into a cell (at most size - 2) and the fraction within it, 0 exactly
/// on a lattice point so entries come back unchanged.
inline int cellOf(float position, int lastCell, float& fraction) {
  const int cell = std::min(static_cast<int>(position), lastCell);
  fraction = position - static_cast<float>(cell);
  return cell;
}

class CurveSampler {
 public:
  explicit CurveSampler(const CubeLut& lut)
      : table_(lut.values.data()),
        lastCell_(lut.size - 2),
        scales_{DomainScale(lut, 0), DomainScale(lut, 1), DomainScale(lut, 2)} {}

  // Piecewise-linear interpolation of each channel's own curve.
  PixelRGB<float> operator()(const PixelRGB<float>& p) const {
    return PixelRGB<float>(channel(p.r, 0), channel(p.g, 1), channel(p.b, 2));
  }

 private:
  float channel(float value, std::size_t c) const {
    float f = 0.0f;
    const auto cell = static_cast<std::size_t>(cellOf(scales_[c](value), lastCell_, f));
    return (1.0f - f) * table_[3 * cell + c] + f * table_[3 * cell + 3 + c];
  }

  const float* table_;
  int lastCell_;
  DomainScale scales_[3];
};

class LatticeSampler {
 public:
  explicit LatticeSampler(const CubeLut& lut)
      : table_(lut.values.data()),
        lastCell_(lut.size - 2),
        steps_{3, 3 * static_cast<std::size_t>(lut.size),
               3 * static_cast<std::size_t>(lut.size) * static_cast<std::size_t>(lut.size)},
        scales_{DomainScale(lut, 0), DomainScale(lut, 1), DomainScale(lut, 2)} {}

  // Tetrahedral interpolation: the cell is cut along its grey diagonal into six tetrahedra and
  // the one holding the point is chosen by the order of its fractions; greys stay on the axis.
  PixelRGB<float> operator()(const PixelRGB<float>& p) const {
    const float channels[3] = {p.r, p.g, p.b};
    float f[3];
    const float* c0 = table_;
    for (std::size_t c = 0; c < 3; ++c) {
      const auto cell = static_cast<std::size_t>(cellOf(scales_[c](channels[c]), lastCell_, f[c]));
      c0 += cell * steps_[c];
    }
    // A table lookup instead of branches: the order is as good as random on textured images.
    const auto& [a, b, c] = kOrders[(f[0] >= f[1]) * 4 + (f[1] >= f[2]) * 2 + (f[0] >= f[2])];
    const float* c1 = c0 + steps_[a];
    const float* c2 = c1 + steps_[b];
    const float* c3 = c2 + steps_[c];
    const float w0 = 1.0f - f[a], w1 = f[a] - f[b], w2 = f[b] - f[c], w3 = f[c];
    const auto blend = [&](std::size_t k) {
      return w0 * c0[k] + w1 * c1[k] + w2 * c2[k] + w3 * c3[k];
    };
    return PixelRGB<float>(blend(0), blend(1), blend(2));
  }

  /// Axes by falling fraction, indexed by (fr >= fg, fg >= fb, fr >= fb) as bits 4, 2, 1: the
  /// walk 000 -> first -> first + second -> 111. Codes 1 and 6 cannot occur.
  static constexpr std::array<std::size_t, 3> kOrders[8] = {
      {2, 1, 0}, {2, 1, 0}, {1, 2, 0}, {1, 0, 2}, {2, 0, 1}, {0, 2, 1}, {0, 1, 2}, {0, 1, 2}};

  const float* table_;
  int lastCell_;
  std::size_t steps_[3];
  DomainScale scales_[3];
};

// GCC 12's intrinsic headers seed results with self-initialised "undefined" vectors, which
// -Wmaybe-uninitialized reports in every caller; the values are always overwritten.
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

/// b where takeB is set, else a.
__attribute__((target("avx2"))) inline __m256i pick(__m256i a, __m256i b, __m256 takeB) {
  return _mm256_castps_si256(
      _mm256_blendv_ps(_mm256_castsi256_ps(a), _mm256_castsi256_ps(b), takeB));
}

// LatticeSampler on eight pixels at a time with gathers; the same operations in the same order
// (no fused multiply-add), so every pixel matches the scalar result bit for bit. Returns the
// pixels done (a multiple of eight).
__attribute__((target("avx2"))) std::size_t latticeAvx2(const LatticeSampler& sampler,
                                                        const PixelRGB<float>* in,
                                                        PixelRGB<float>* out, std::size_t count,
                                                        float amount) {
  const float* source = &in->r;
  const __m256i stride = _mm256_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21);
  const __m256i lastCell = _mm256_set1_epi32(sampler.lastCell_);
  __m256i steps[3];
  for (std::size_t c = 0; c < 3; ++c)
    steps[c] = _mm256_set1_epi32(static_cast<int>(sampler.steps_[c]));
  const __m256i stepAll = _mm256_add_epi32(_mm256_add_epi32(steps[0], steps[1]), steps[2]);
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 weight = _mm256_set1_ps(amount);
  const __m256 keep = _mm256_set1_ps(1.0f - amount);
  alignas(32) float lanes[3][8];
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    __m256 x[3], f[3];
    __m256i base = _mm256_setzero_si256();
    for (std::size_t c = 0; c < 3; ++c) {
      x[c] = _mm256_i32gather_ps(source + 3 * i + c, stride, 4);
      const DomainScale& scale = sampler.scales_[c];
      // max with the value first returns 0 for NaN, as fmax does.
      const __m256 position = _mm256_min_ps(
          _mm256_max_ps(_mm256_add_ps(_mm256_mul_ps(x[c], _mm256_set1_ps(scale.scale)),
                                      _mm256_set1_ps(scale.offset)),
                        _mm256_setzero_ps()),
          _mm256_set1_ps(scale.top));
      const __m256i cell = _mm256_min_epi32(_mm256_cvttps_epi32(position), lastCell);
      f[c] = _mm256_sub_ps(position, _mm256_cvtepi32_ps(cell));
      base = _mm256_add_epi32(base, _mm256_mullo_epi32(cell, steps[c]));
    }
    const __m256 high = _mm256_max_ps(_mm256_max_ps(f[0], f[1]), f[2]);
    const __m256 low = _mm256_min_ps(_mm256_min_ps(f[0], f[1]), f[2]);
    const __m256 mid =
        _mm256_max_ps(_mm256_min_ps(f[0], f[1]), _mm256_min_ps(_mm256_max_ps(f[0], f[1]), f[2]));
    // The first step goes along the axis of the largest fraction, the last along the smallest.
    const __m256 firstIsR = _mm256_cmp_ps(f[0], high, _CMP_EQ_OQ);
    const __m256 firstIsG = _mm256_cmp_ps(f[1], high, _CMP_EQ_OQ);
    const __m256 lastIsB = _mm256_cmp_ps(f[2], low, _CMP_EQ_OQ);
    const __m256 lastIsG = _mm256_cmp_ps(f[1], low, _CMP_EQ_OQ);
    const __m256i first = pick(pick(steps[2], steps[1], firstIsG), steps[0], firstIsR);
    const __m256i last = pick(pick(steps[0], steps[1], lastIsG), steps[2], lastIsB);
    const __m256i i1 = _mm256_add_epi32(base, first);
    const __m256i i2 = _mm256_sub_epi32(_mm256_add_epi32(base, stepAll), last);
    const __m256i i3 = _mm256_add_epi32(base, stepAll);
    const __m256 w0 = _mm256_sub_ps(one, high);
    const __m256 w1 = _mm256_sub_ps(high, mid);
    const __m256 w2 = _mm256_sub_ps(mid, low);
    for (std::size_t c = 0; c < 3; ++c) {
      const float* table = sampler.table_ + c;
      __m256 v = _mm256_mul_ps(w0, _mm256_i32gather_ps(table, base, 4));
      v = _mm256_add_ps(v, _mm256_mul_ps(w1, _mm256_i32gather_ps(table, i1, 4)));
      v = _mm256_add_ps(v, _mm256_mul_ps(w2, _mm256_i32gather_ps(table, i2, 4)));
      v = _mm256_add_ps(v, _mm256_mul_ps(low, _mm256_i32gather_ps(table, i3, 4)));
      if (amount != 1.0f) v = _mm256_add_ps(_mm256_mul_ps(v, weight), _mm256_mul_ps(x[c], keep));
      _mm256_store_ps(lanes[c], v);
    }
    for (std::size_t k = 0; k < 8; ++k)
      out[i + k] = PixelRGB<float>(lanes[0][k], lanes[1][k], lanes[2][k]);
  }
  return i;
}

#pragma GCC diagnostic pop

/// Pixels a vector kernel of the sampler has done; the scalar loop takes the rest.
std::size_t vectorPart(const CurveSampler&, const PixelRGB<float>*, PixelRGB<float>*, std::size_t,
                       float) {
  return 0;
}

std::size_t vectorPart(const LatticeSampler& sampler, const PixelRGB<float>* in,
                       PixelRGB<float>* out, std::size_t count, float amount) {
  static const bool kAvx2 = __builtin_cpu_supports("avx2");
  return kAvx2 ? latticeAvx2(sampler, in, out, count, amount) : 0;
}

template <typename Sampler>
std::unique_ptr<detail::RowKernel> lutKernel(std::shared_ptr<const CubeLut> lut, float amount) {
  const Sampler sampler(*lut);
  // The lambda owns the table the sampler points into.
  return detail::rowKernel([lut = std::move(lut), sampler, amount](
                               const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
    const std::size_t done = vectorPart(sampler, in, out, count, amount);
    in += done;
    out += done;
    count -= done;
    if (amount == 1.0f) {
      for (std::size_t i = 0; i < count; ++i) out[i] = sampler(in[i]);
      return;
    }
    const float keep = 1.0f - amount;
    for (std::size_t i = 0; i < count; ++i) {
      const PixelRGB<float> mapped = sampler(in[i]);
      out[i] = detail::perChannel(
          mapped, in[i], [amount, keep](float m, float x) { return m * amount + x * keep; });
    }
  });
}

}  // namespace

// An identity table is detected when parsed and skipped, so the picture comes back bit for bit
// (values outside the unit domain included, which the table itself would clamp).
PointEffect::Kernel LUTMappingEffect::prepare(const Setup&) const {
  const float amount = mappedValue(0, 0.0f, 0.5f, 1.0f);
  const std::string name = lutName(*this);
  if (amount == 0.0f || name.empty()) return nullptr;
  std::shared_ptr<const CubeLut> lut = detail::cachedCube(name);
  if (!lut || lut->identity) return nullptr;
  if (lut->is3D) return lutKernel<LatticeSampler>(std::move(lut), amount);
  return lutKernel<CurveSampler>(std::move(lut), amount);
}

}  // namespace vorn
