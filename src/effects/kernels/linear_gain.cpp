#include "effects/kernels/linear_gain.h"

#include <vector>

#include "core/dispatch.h"

namespace vorn::detail {

namespace {

// The power segment's affine form per value, with a flag where it does not hold; selects and
// 32-bit flags keep the loop free of branches, so the clones vectorise it.
VORN_DISPATCH void scaleOnPowerSegment(const float* in, float* out, const float* gain,
                                       const float* root, std::int32_t* redo, std::size_t count) {
  constexpr float kKnee = 0.04045f;
  for (std::size_t i = 0; i < count; ++i) {
    // A unit gain is marked by a root of 0, which is never computed with.
    const float k = gain[i] == 1.0f ? 0.0f : root[i];
    for (std::size_t c = 0; c < 3; ++c) {
      const float x = in[3 * i + c];
      const float t = k * (x + 0.055f) - 0.055f;
      const bool scaled = k != 0.0f;
      const bool fast = (x > kKnee) & (t > kKnee);
      out[3 * i + c] = fast & scaled ? t : x;
      redo[3 * i + c] = static_cast<std::int32_t>(!fast & scaled);
    }
  }
}

}  // namespace

void applyEncodedGains(const PixelRGB<float>* in, PixelRGB<float>* out, const float* gain,
                       const float* root, std::size_t count) {
  thread_local std::vector<std::int32_t> slow;
  const std::size_t n = 3 * count;
  slow.resize(n);
  float* o = &out->r;
  const std::int32_t* redo = slow.data();
  scaleOnPowerSegment(&in->r, o, gain, root, slow.data(), count);
  std::int32_t any = 0;
  for (std::size_t k = 0; k < n; ++k) any |= redo[k];
  if (any == 0) return;
  // A flagged value was left as it came in.
  for (std::size_t k = 0; k < n; ++k)
    if (redo[k] != 0) o[k] = encodedTimesGain(o[k], EncodedGain{gain[k / 3], root[k / 3]});
}

}  // namespace vorn::detail
