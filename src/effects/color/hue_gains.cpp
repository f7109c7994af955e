#include "effects/color/hue_gains.h"

#include <algorithm>

#include "effects/kernels/avx512_lanes.h"
#include "effects/kernels/color_space.h"

namespace vorn::detail {

HueGains::HueGains(const std::array<float, 6>& sliders) {
  std::array<float, 6> angles{};
  for (std::size_t k = 0; k < 6; ++k) angles[k] = wheelHueAngle(60.0f * static_cast<float>(k));
  // Segments in order of their starting angle, so that the last one passed is the pixel's.
  std::array<std::size_t, 6> order{0, 1, 2, 3, 4, 5};
  std::sort(order.begin(), order.end(),
            [&](std::size_t i, std::size_t j) { return angles[i] < angles[j]; });
  for (std::size_t i = 0; i < 6; ++i) {
    const std::size_t k = order[i];
    const std::size_t next = (k + 1) % 6;
    const float span = std::fmod(angles[next] - angles[k] + 2.0f * kTurn, kTurn);
    start_[i] = angles[k];
    scale_[i + 1] = 1.0f / std::max(span, 1e-3f);
    shift_[i + 1] = -angles[k] * scale_[i + 1] - 0.5f;
    middle_[i + 1] = 0.5f * (sliders[k] + sliders[next]);
    change_[i + 1] = sliders[next] - sliders[k];
  }
  // Below the first start, the last segment a turn on.
  scale_[0] = scale_[6];
  shift_[0] = shift_[6] + kTurn * scale_[6];
  middle_[0] = middle_[6];
  change_[0] = change_[6];
}

namespace {

/// Lane i: the table's lane index[i].
VORN_AVX512 inline __m512 lookUp(__m512i index, __m512 table) {
  return _mm512_maskz_permutexvar_ps(0xffff, index, table);
}

VORN_AVX512 void applyAvx512(const std::array<float, 6>& start, const float* scales,
                             const float* shifts, const float* middles, const float* changes,
                             float* angles, std::size_t count) {
  const __m512 scaleTable = _mm512_loadu_ps(scales);
  const __m512 shiftTable = _mm512_loadu_ps(shifts);
  const __m512 middleTable = _mm512_loadu_ps(middles);
  const __m512 changeTable = _mm512_loadu_ps(changes);
  forVectors(count, [&](std::size_t i, auto n) VORN_AVX512_INLINE {
    const __m512 angle = loadLanesAvx512(angles + i, n);
    // NaN passes no start, as in the selects.
    __m512i passed = _mm512_setzero_si512();
    for (const float s : start)
      passed =
          _mm512_mask_add_epi32(passed, _mm512_cmp_ps_mask(angle, _mm512_set1_ps(s), _CMP_GE_OQ),
                                passed, _mm512_set1_epi32(1));
    // The steps of HueGains::gainIn, in its order.
    const __m512 x = _mm512_fmadd_ps(angle, lookUp(passed, scaleTable), lookUp(passed, shiftTable));
    const __m512 x2 = _mm512_mul_ps(x, x);
    const __m512 sine =
        _mm512_mul_ps(_mm512_fmadd_ps(_mm512_fmadd_ps(_mm512_set1_ps(HueGains::kSine[0]), x2,
                                                      _mm512_set1_ps(HueGains::kSine[1])),
                                      x2, _mm512_set1_ps(HueGains::kSine[2])),
                      x);
    const __m512 v =
        _mm512_fmadd_ps(lookUp(passed, changeTable), sine, lookUp(passed, middleTable));
    const __mmask16 lighter = _mm512_cmp_ps_mask(v, _mm512_setzero_ps(), _CMP_GT_OQ);
    const __m512 gain = _mm512_mask_mul_ps(_mm512_mul_ps(v, _mm512_set1_ps(0.4f)), lighter, v,
                                           _mm512_set1_ps(0.5f));
    storeLanesAvx512(angles + i, gain, n);
  });
}

}  // namespace

void HueGains::apply(float* angles, std::size_t count) const {
  if (hasAvx512()) {
    applyAvx512(start_, scale_.data(), shift_.data(), middle_.data(), change_.data(), angles,
                count);
    return;
  }
  for (std::size_t i = 0; i < count; ++i) angles[i] = (*this)(angles[i]);
}

}  // namespace vorn::detail
