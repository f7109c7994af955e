#include "effects/kernels/linear_gain.h"

#include <vector>

#include "core/dispatch.h"

namespace vorn::detail {

namespace {

// The power segment's affine form per value, with a flag where it does not hold; selects and
// 32-bit flags keep the loop free of branches, so the clones vectorise it. A root of 0 marks a
// unit gain, which is never computed with.
VORN_DISPATCH void scaleOnPowerSegment(const float* __restrict in, float* __restrict out,
                                       const float* __restrict root, std::int32_t* __restrict redo,
                                       std::size_t count) {
  constexpr float kKnee = 0.04045f;
  for (std::size_t k = 0; k < count; ++k) {
    const float x = in[k];
    const float t = root[k] * (x + 0.055f) - 0.055f;
    const bool scaled = root[k] != 0.0f;
    const bool fast = (x > kKnee) & (t > kKnee);
    out[k] = fast & scaled ? t : x;
    redo[k] = static_cast<std::int32_t>(!fast & scaled);
  }
}

}  // namespace

void applyEncodedGains(const PixelRGB<float>* in, PixelRGB<float>* out, const float* gain,
                       const float* root, std::size_t count) {
  thread_local std::vector<float> roots;
  thread_local std::vector<float> source;
  thread_local std::vector<std::int32_t> slow;
  const std::size_t n = 3 * count;
  roots.resize(n);
  slow.resize(n);
  float* r = roots.data();
  for (std::size_t i = 0; i < count; ++i) {
    const float k = gain[i] == 1.0f ? 0.0f : root[i];
    r[3 * i] = k;
    r[3 * i + 1] = k;
    r[3 * i + 2] = k;
  }
  const float* v = &in->r;
  float* o = &out->r;
  // The pass reads and writes apart; in place, the row is read from a copy.
  if (v == o) {
    source.assign(v, v + n);
    v = source.data();
  }
  std::int32_t* redo = slow.data();
  scaleOnPowerSegment(v, o, r, redo, n);
  std::int32_t any = 0;
  for (std::size_t k = 0; k < n; ++k) any |= redo[k];
  if (any == 0) return;
  // A flagged value was left as it came in.
  for (std::size_t k = 0; k < n; ++k)
    if (redo[k] != 0) o[k] = encodedTimesGain(o[k], EncodedGain{gain[k / 3], root[k / 3]});
}

}  // namespace vorn::detail
