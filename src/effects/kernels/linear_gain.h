#pragma once

#include <cmath>
#include <cstddef>

#include "effects/kernels/color_space.h"
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
  // Every case worked out and one selected, so that loops over it vectorise; the two powers
  // share one call through selected arguments.
  const bool high = v > kKnee;
  const float t = g.root * (v + 0.055f) - 0.055f;
  const float light = g.gain * v / 12.92f;
  const float power =
      fastPow(high ? (v + 0.055f) * (1.0f / 1.055f) : light, high ? 2.4f : 1.0f / 2.4f);
  const float fromHigh = t > kKnee ? t : 12.92f * g.gain * power;
  const float fromLow = light <= kLinearKnee ? v * g.gain : 1.055f * power - 0.055f;
  return high ? fromHigh : fromLow;
}

/// encodedTimesGain on the three channels.
inline PixelRGB<float> encodedTimesGain(const PixelRGB<float>& p, const EncodedGain& g) {
  return PixelRGB<float>(encodedTimesGain(p.r, g), encodedTimesGain(p.g, g),
                         encodedTimesGain(p.b, g));
}

/// out[i] = in[i] with its light times gain[i] (root[i] = gain[i]^(1/2.4)); in may equal out.
/// A first pass, branch-free so that it vectorises, scales the values the gain keeps on their
/// segment of the curve (affine on the power one, a product on the linear one); the few that
/// cross the knee are redone exactly after. A gain of exactly 1 keeps the pixel bit for bit.
void applyEncodedGains(const PixelRGB<float>* in, PixelRGB<float>* out, const float* gain,
                       const float* root, std::size_t count);

}  // namespace vorn::detail
