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
/// The power segment's affine form runs first, branch-free; the few values near black are
/// redone exactly after. A gain of exactly 1 keeps the pixel bit for bit.
inline void applyEncodedGains(const PixelRGB<float>* in, PixelRGB<float>* out, const float* gain,
                              const float* root, std::size_t count) {
  constexpr float kKnee = 0.04045f;
  thread_local std::vector<std::uint8_t> slow;
  slow.resize(count);
  std::uint8_t any = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const float* v = &in[i].r;
    float* o = &out[i].r;
    const bool unit = gain[i] == 1.0f;
    std::uint8_t flags = 0;
    for (int c = 0; c < 3; ++c) {
      const float t = root[i] * (v[c] + 0.055f) - 0.055f;
      const bool fast = unit || (v[c] > kKnee && t > kKnee);
      flags = static_cast<std::uint8_t>(flags | (fast ? 0 : 1 << c));
      o[c] = fast && !unit ? t : v[c];
    }
    slow[i] = flags;
    any = static_cast<std::uint8_t>(any | flags);
  }
  if (any == 0) return;
  for (std::size_t i = 0; i < count; ++i) {
    if (slow[i] == 0) continue;
    float* o = &out[i].r;
    const EncodedGain g{gain[i], root[i]};
    for (int c = 0; c < 3; ++c)
      if (slow[i] & (1 << c)) o[c] = encodedTimesGain(o[c], g);
  }
}

}  // namespace vorn::detail
