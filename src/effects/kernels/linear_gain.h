#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "vorn/core/pixel.h"

// A gain on light applied to sRGB-encoded values: vignettes, lens shading and exposure-like
// falloffs multiply linear light, not the encoded numbers the frame holds.
namespace vorn::detail {

/// A linear-light gain g prepared for encoded values: on the curve's power segment the
/// encoded result is exactly root * (v + 0.055) - 0.055 with root = g^(1/2.4).
struct EncodedGain {
  float gain;
  float root;
  static EncodedGain of(float gain) { return {gain, std::pow(gain, 1.0f / 2.4f)}; }
};

/// The encoded value whose light is g times that of v (v on the sRGB curve, extended above 1
/// by its power segment and below 0 by its linear one); g must be finite and positive.
inline float encodedTimesGain(float v, const EncodedGain& g) {
  constexpr float kKnee = 0.04045f;
  constexpr float kLinearKnee = 0.0031308f;
  if (v > kKnee) {
    const float t = g.root * (v + 0.055f) - 0.055f;
    if (t > kKnee) return t;
    return 12.92f * g.gain * std::pow((v + 0.055f) / 1.055f, 2.4f);
  }
  const float light = g.gain * v / 12.92f;
  if (light <= kLinearKnee) return v * g.gain;
  return 1.055f * std::pow(light, 1.0f / 2.4f) - 0.055f;
}

/// encodedTimesGain on the three channels.
inline PixelRGB<float> encodedTimesGain(const PixelRGB<float>& p, const EncodedGain& g) {
  return PixelRGB<float>(encodedTimesGain(p.r, g), encodedTimesGain(p.g, g),
                         encodedTimesGain(p.b, g));
}

/// out[i] = in[i] with its light times gain[i] (root[i] = gain[i]^(1/2.4)); in may equal out.
/// The power segment's affine form runs first over the row as flat floats, branch-free so that
/// it vectorises; the few values near black are redone exactly after. A gain of exactly 1 keeps
/// the pixel bit for bit.
inline void applyEncodedGains(const PixelRGB<float>* in, PixelRGB<float>* out, const float* gain,
                              const float* root, std::size_t count) {
  constexpr float kKnee = 0.04045f;
  thread_local std::vector<float> roots;
  thread_local std::vector<std::int32_t> slow;
  const std::size_t n = 3 * count;
  roots.resize(n);
  slow.resize(n);
  float* r = roots.data();
  for (std::size_t i = 0; i < count; ++i) {
    // A unit gain is marked by a root of 0, which the loop below never computes with.
    const float k = gain[i] == 1.0f ? 0.0f : root[i];
    r[3 * i] = k;
    r[3 * i + 1] = k;
    r[3 * i + 2] = k;
  }
  const float* v = &in->r;
  float* o = &out->r;
  std::int32_t* redo = slow.data();
  // Bitwise operators on the comparisons and 32-bit flags keep this loop free of branches.
  for (std::size_t k = 0; k < n; ++k) {
    const float x = v[k];
    const float t = r[k] * (x + 0.055f) - 0.055f;
    const bool scaled = r[k] != 0.0f;
    const bool fast = (x > kKnee) & (t > kKnee);
    o[k] = fast & scaled ? t : x;
    redo[k] = static_cast<std::int32_t>(!fast & scaled);
  }
  std::int32_t any = 0;
  for (std::size_t k = 0; k < n; ++k) any |= redo[k];
  if (any == 0) return;
  for (std::size_t k = 0; k < n; ++k)
    if (redo[k] != 0) o[k] = encodedTimesGain(o[k], EncodedGain{gain[k / 3], root[k / 3]});
}

}  // namespace vorn::detail
