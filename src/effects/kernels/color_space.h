#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

// Colour maths of the point-wise colour effects. Pixels hold sRGB-encoded values (above 1 for
// highlights); effects decode them to linear light through tabulated transfer curves and judge
// colour in Oklab, whose lightness, chroma and hue follow perception closely.
namespace vorn::detail {

/// A 3 x 3 matrix, row-major, applied to column vectors.
struct Matrix3 {
  std::array<float, 9> m{1, 0, 0, 0, 1, 0, 0, 0, 1};

  static Matrix3 diagonal(float a, float b, float c) { return {{a, 0, 0, 0, b, 0, 0, 0, c}}; }
  float operator()(int row, int column) const {
    return m[static_cast<std::size_t>(3 * row + column)];
  }
  bool isIdentity() const { return *this == Matrix3{}; }
  /// The matrix times the column (a, b, c), written back in place.
  void apply(float& a, float& b, float& c) const {
    const float x = m[0] * a + m[1] * b + m[2] * c;
    const float y = m[3] * a + m[4] * b + m[5] * c;
    const float z = m[6] * a + m[7] * b + m[8] * c;
    a = x;
    b = y;
    c = z;
  }
  bool operator==(const Matrix3&) const = default;
};

Matrix3 operator*(const Matrix3& a, const Matrix3& b);
/// The inverse; the identity for a singular matrix.
Matrix3 inverse(const Matrix3& a);
/// Linear sRGB (D65) to CIE XYZ.
const Matrix3& linearSrgbToXyz();

/// A transfer curve tabulated on [0, 1] and read with linear interpolation; negative values
/// mirror the positive side and values above 1 continue as a straight line of slope `above`.
struct TransferTable {
  template <typename Function>
  TransferTable(std::size_t steps, float slopeAbove, Function f)
      : values(steps + 2),
        scale(static_cast<float>(steps)),
        last(static_cast<int>(steps) - 1),
        above(slopeAbove) {
    for (std::size_t n = 0; n <= steps; ++n)
      values[n] = f(static_cast<float>(n) / static_cast<float>(steps));
    values[steps + 1] = values[steps];
  }
  float operator()(float x) const {
    const float magnitude = std::fabs(x);
    float s = magnitude * scale;
    // Selects, so that NaN lands on 0 and the loops around stay branch-free.
    s = s > 0.0f ? s : 0.0f;
    s = s < scale ? s : scale;
    int n = static_cast<int>(s);
    n = n < last ? n : last;
    const float a = values[static_cast<std::size_t>(n)];
    float y = a + (values[static_cast<std::size_t>(n) + 1] - a) * (s - static_cast<float>(n));
    y = magnitude > 1.0f ? 1.0f + (magnitude - 1.0f) * above : y;
    return std::copysign(y, x);
  }
  /// out[i] = (*this)(in[i]) for count values, vectorised for the running CPU; in may be out.
  void apply(const float* in, float* out, std::size_t count) const;

  std::vector<float> values;
  float scale;
  int last;
  float above;
};

/// The sRGB transfer curves, tabulated once per process. The straight lines above 1 are each
/// other's inverse, so a decode followed by an encode returns the value whatever its range.
struct SrgbTransfer {
  SrgbTransfer();
  float toLinear(float encoded) const { return decode(encoded); }
  float toEncoded(float linear) const { return encode(linear); }

  TransferTable decode;
  TransferTable encode;
};

/// The process-wide transfer tables.
const SrgbTransfer& srgbTransfer();

/// The exact sRGB transfer functions on [0, 1], for per-call set-up.
float srgbToLinearExact(float encoded);
float linearToSrgbExact(float linear);

/// Cube root by a bit-level estimate and two Newton steps (relative error below 1e-6).
inline float fastCbrt(float x) {
  const float magnitude = std::fabs(x);
  const float guess =
      std::bit_cast<float>(std::bit_cast<std::uint32_t>(magnitude) / 3u + 0x2a514067u);
  float y = (2.0f * guess + magnitude / (guess * guess)) * (1.0f / 3.0f);
  y = (2.0f * y + magnitude / (y * y)) * (1.0f / 3.0f);
  return std::copysign(y, x);
}

/// atan2 by a minimax polynomial (error below 3e-4 radian), branch-free.
inline float fastAtan2(float y, float x) {
  const float ax = std::fabs(x);
  const float ay = std::fabs(y);
  const float ratio = (ax < ay ? ax : ay) / ((ax > ay ? ax : ay) + 1e-30f);
  const float s = ratio * ratio;
  float r = (((-0.0464964749f * s + 0.15931422f) * s - 0.327622764f) * s) * ratio + ratio;
  r = ay > ax ? 1.57079637f - r : r;
  r = x < 0.0f ? 3.14159274f - r : r;
  return y < 0.0f ? -r : r;
}

struct Oklab {
  float L, a, b;
};

inline Oklab linearToOklab(float r, float g, float b) {
  const float l = fastCbrt(0.4122214708f * r + 0.5363325363f * g + 0.0514459929f * b);
  const float m = fastCbrt(0.2119034982f * r + 0.6806995451f * g + 0.1073969566f * b);
  const float s = fastCbrt(0.0883024619f * r + 0.2817188376f * g + 0.6299787005f * b);
  return {0.2104542553f * l + 0.7936177850f * m - 0.0040720468f * s,
          1.9779984951f * l - 2.4285922050f * m + 0.4505937099f * s,
          0.0259040371f * l + 0.7827717662f * m - 0.8086757660f * s};
}

inline void oklabToLinear(const Oklab& c, float& r, float& g, float& b) {
  const float l0 = c.L + 0.3963377774f * c.a + 0.2158037573f * c.b;
  const float m0 = c.L - 0.1055613458f * c.a - 0.0638541728f * c.b;
  const float s0 = c.L - 0.0894841775f * c.a - 1.2914855480f * c.b;
  const float l = l0 * l0 * l0;
  const float m = m0 * m0 * m0;
  const float s = s0 * s0 * s0;
  r = 4.0767416621f * l - 3.3077115913f * m + 0.2309699292f * s;
  g = -1.2684380046f * l + 2.6097574011f * m - 0.3413193965f * s;
  b = -0.0041960863f * l - 0.7034186147f * m + 1.7076147010f * s;
}

/// A unit direction in the Oklab a-b plane.
struct HueDirection {
  float cosine = 1.0f;
  float sine = 0.0f;
  /// The direction of degrees measured in the Oklab plane.
  static HueDirection ofAngle(float degrees);
};

/// The fully saturated sRGB colour (encoded) at `degrees` of the familiar colour wheel.
std::array<float, 3> wheelColor(float degrees);
/// The Oklab hue of the fully saturated sRGB colour at `degrees` of the familiar colour wheel
/// (0 red, 60 yellow, 120 green, ... 300 magenta).
HueDirection wheelHue(float degrees);
/// The Oklab angle in radians of wheelHue(degrees).
float wheelHueAngle(float degrees);

/// Chroma below which a colour counts as grey: hue-keyed effects fade out there, so noise in
/// near-neutral areas cannot flicker between hues.
inline constexpr float kNeutralChroma = 0.03f;

/// A smooth hue window: 1 at its centre, 0 from `halfWidthDegrees` away, a cubic step on the
/// cosine of the hue difference between (no hue angle, no seam at +-180 degrees).
class HueWindow {
 public:
  HueWindow(HueDirection centre, float halfWidthDegrees);
  /// The window's weight for (a, b) of chroma c, faded out towards grey.
  float weight(float a, float b, float c) const {
    const float cosDelta = (a * centre_.cosine + b * centre_.sine) / (c + 1e-12f);
    float t = (cosDelta - edge_) * scale_;
    t = t > 0.0f ? (t < 1.0f ? t : 1.0f) : 0.0f;
    float grey = c * (1.0f / kNeutralChroma);
    grey = grey < 1.0f ? grey : 1.0f;
    return t * t * (3.0f - 2.0f * t) * grey;
  }

 private:
  HueDirection centre_;
  float edge_;
  float scale_;
};

}  // namespace vorn::detail
