#include "effects/kernels/linear_gain.h"

#include <algorithm>

#include "core/dispatch.h"

namespace vorn::detail {

namespace {

constexpr float kKnee = 0.04045f;
/// Encoded values at most kKnee whose product with the gain is at most this lie on the linear
/// segment after the gain too: the bound is kept below 0.0031308 * 12.92, so the division the
/// exact form makes is not needed to tell.
constexpr float kLinearBound =
    static_cast<float>(0.0031308f * static_cast<double>(12.92f) * (1.0 - 1e-7));

/// The result of one value where the gain keeps it on its segment of the curve (the power
/// segment's affine form, or a plain product on the linear one); false where it crosses.
inline bool onOneSegment(float x, float gain, float root, float& t) {
  const float affine = root * (x + 0.055f) - 0.055f;
  const float product = x * gain;
  const bool power = (x > kKnee) & (affine > kKnee);
  const bool linear = (x <= kKnee) & (product <= kLinearBound);
  t = power ? affine : product;
  return power | linear;
}

// One pass over the pixels' channels in their interleaved order: selects and an OR-reduced flag
// keep it free of branches, so the clones vectorise it. Values crossing a segment are left as
// they came in, to be redone by the caller; the return says whether there are any.
VORN_DISPATCH bool scaleOnOneSegment(const float* __restrict in, float* __restrict out,
                                     const float* __restrict gain, const float* __restrict root,
                                     std::size_t count) {
  std::int32_t missed = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const bool scaled = gain[i] != 1.0f;
    for (std::size_t c = 0; c < 3; ++c) {
      const float x = in[3 * i + c];
      float t;
      const bool fast = onOneSegment(x, gain[i], root[i], t);
      out[3 * i + c] = (fast & scaled) ? t : x;
      missed |= static_cast<std::int32_t>(!fast & scaled);
    }
  }
  return missed != 0;
}

// The exact form of every value of a piece, branch-free so that the clones vectorise it: dearer
// than the first pass, so it runs only on pieces where that one missed.
VORN_DISPATCH void scaleExactly(const float* __restrict in, float* __restrict out,
                                const float* __restrict gain, const float* __restrict root,
                                std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const EncodedGain g{gain[i], root[i]};
    for (std::size_t c = 0; c < 3; ++c) {
      const float x = in[3 * i + c];
      out[3 * i + c] = g.gain == 1.0f ? x : encodedTimesGain(x, g);
    }
  }
}

}  // namespace

void applyEncodedGains(const PixelRGB<float>* in, PixelRGB<float>* out, const float* gain,
                       const float* root, std::size_t count) {
  // In short pieces, so a dark patch sends only its own piece through the exact path (the same
  // test again finds the values there that need it) and an in-place piece is copied in L1.
  constexpr std::size_t kPiece = 64;
  float copy[3 * kPiece];
  for (std::size_t first = 0; first < count; first += kPiece) {
    const std::size_t n = count - first < kPiece ? count - first : kPiece;
    const float* v = &in[first].r;
    float* o = &out[first].r;
    if (v == o) v = std::copy(v, v + 3 * n, copy) - 3 * n;
    const float* g = gain + first;
    const float* r = root + first;
    if (scaleOnOneSegment(v, o, g, r, n)) scaleExactly(v, o, g, r, n);
  }
}

}  // namespace vorn::detail
