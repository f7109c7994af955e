#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace vorn::detail {

/// The black-and-white lightness gain by hue: each of the six wheel colours has its slider,
/// hues between two of them ease from one to the other along a raised cosine.
class HueGains {
 public:
  explicit HueGains(const std::array<float, 6>& sliders);

  /// The gain at a hue angle in [-pi, pi], worked out from the angle with selects: the vector
  /// units of plain loops have no cheap table read.
  float operator()(float angle) const {
    // The segment's numbers at the number of starts passed, none passed being the last
    // segment, which wraps around through pi.
    float scale = scale_[0];
    float shift = shift_[0];
    float middle = middle_[0];
    float change = change_[0];
    // Written out, each value read before its select: a loop here, or a read under the select,
    // leaves the pixel loop unvectorised.
    const auto pick = [&](std::size_t i) __attribute__((always_inline)) {
      const float segmentScale = scale_[i + 1];
      const float segmentShift = shift_[i + 1];
      const float segmentMiddle = middle_[i + 1];
      const float segmentChange = change_[i + 1];
      const bool passed = angle >= start_[i];
      scale = passed ? segmentScale : scale;
      shift = passed ? segmentShift : shift;
      middle = passed ? segmentMiddle : middle;
      change = passed ? segmentChange : change;
    };
    pick(0);
    pick(1);
    pick(2);
    pick(3);
    pick(4);
    pick(5);
    return gainIn(angle, scale, shift, middle, change);
  }

  /// Each of count hue angles replaced by its gain, bit for bit as operator() gives it; with
  /// AVX-512 the segment's numbers come from a count of starts passed and four permutes.
  void apply(float* angles, std::size_t count) const;

  static constexpr std::array<float, 3> kSine = {1.1497733917e+00f, -2.5684526057e+00f,
                                                 1.5703200169e+00f};

 private:
  /// The gain at an angle of the segment with these numbers.
  static float gainIn(float angle, float scale, float shift, float middle, float change) {
    // The place in the segment, from -1/2 at its start to 1/2 at its end; the picked segment
    // holds the angle, so no clamp (a NaN angle comes with a NaN chroma, which decides).
    const float x = std::fma(angle, scale, shift);
    // The raised cosine 0.5 - 0.5 cos(pi (x + 1/2)) less its middle, 0.5 sin(pi x), as an odd
    // polynomial (error below 4e-5, a tenth of what the hue angle's error makes).
    const float x2 = x * x;
    const float v =
        std::fma(change, std::fma(std::fma(kSine[0], x2, kSine[1]), x2, kSine[2]) * x, middle);
    // At most half as light again or 40 % darker: a strong filter, short of clipping.
    return v > 0.0f ? 0.5f * v : 0.4f * v;
  }

  static constexpr float kTurn = 2.0f * std::numbers::pi_v<float>;
  /// Segment starts in increasing order.
  std::array<float, 6> start_{};
  /// By the number of starts passed, 0 to 6; 16 wide for the vector unit's permutes.
  std::array<float, 16> scale_{};
  std::array<float, 16> shift_{};
  std::array<float, 16> middle_{};
  std::array<float, 16> change_{};
};

}  // namespace vorn::detail
