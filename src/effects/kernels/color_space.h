#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

// Colour maths of the point-wise colour effects. Pixels hold sRGB-encoded values (above 1 for
// highlights); effects decode them to linear light through polynomial transfer curves and judge
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

/// log2 x for a positive normal x by the atanh series on a mantissa centred at 1 (absolute error
/// about 1e-7), branch-free so that loops over it vectorise.
inline float fastLog2(float x) {
  const std::uint32_t bits = std::bit_cast<std::uint32_t>(x);
  // The exponent taken relative to sqrt(1/2), so the mantissa left lies in [sqrt(1/2), sqrt(2)).
  const std::int32_t exponent = static_cast<std::int32_t>(bits - 0x3f3504f3u) >> 23;
  const float mantissa = std::bit_cast<float>(bits - (static_cast<std::uint32_t>(exponent) << 23));
  const float z = (mantissa - 1.0f) / (mantissa + 1.0f);
  const float z2 = z * z;
  const float series =
      ((((1.0f / 9.0f) * z2 + 1.0f / 7.0f) * z2 + 1.0f / 5.0f) * z2 + 1.0f / 3.0f) * z2 + 1.0f;
  return static_cast<float>(exponent) + z * series * 2.88539008f;  // 2 / ln 2
}

/// 2^y for |y| below 126 by the Taylor polynomial of the fraction in [-1/2, 1/2] (relative error
/// a few float ulps), branch-free so that loops over it vectorise.
inline float fastExp2(float y) {
  // Rounding by adding 1.5 * 2^23, whose low mantissa bits then hold the integer: GCC leaves
  // float-to-int conversions under a select unvectorised for AVX2.
  const float shifted = y + 12582912.0f;
  const float f = (y - (shifted - 12582912.0f)) * 0.693147182f;  // ln 2
  const std::uint32_t whole = std::bit_cast<std::uint32_t>(shifted) - 0x4b400000u;
  const float e =
      ((((((f * (1.0f / 5040.0f) + 1.0f / 720.0f) * f + 1.0f / 120.0f) * f + 1.0f / 24.0f) * f +
         1.0f / 6.0f) *
            f +
        0.5f) *
           f +
       1.0f) *
          f +
      1.0f;
  return e * std::bit_cast<float>((whole + 127u) << 23);
}

/// x^p for a positive normal x with |p log2 x| below 126.
inline float fastPow(float x, float p) {
  return fastExp2(p * fastLog2(x));
}

/// The sRGB decoding's slope at 1 (2.4 / 1.055): encoded values above 1 continue along it.
inline constexpr float kSrgbSlopeAtOne = 2.4f / 1.055f;
/// The ends of the sRGB curves' straight toes: encoded, and in linear light.
inline constexpr float kSrgbEncodedToeEnd = 0.04045f;
inline constexpr float kSrgbLinearToeEnd = 0.0031308f;

/// t = 2^-n f with f in [1, 2) returned through f, and 2^(-n p) for n below 2^Bits made of the
/// powers steps = {2^-p, 2^-2p, 2^-4p, 2^-8p} picked by the bits of n. A chain of selects on n
/// would be turned into a switch and a table, whose bounds check stops loops from vectorising.
template <std::size_t Bits>
inline float binadeScale(float t, float& f, const std::array<float, Bits>& steps) {
  static_assert(Bits == 3 || Bits == 4);
  const std::uint32_t bits = std::bit_cast<std::uint32_t>(t);
  const std::uint32_t n = 127u - (bits >> 23);
  f = std::bit_cast<float>((bits & 0x007fffffu) | 0x3f800000u);
  float scale = (n & 1u) != 0 ? steps[0] : 1.0f;
  scale *= (n & 2u) != 0 ? steps[1] : 1.0f;
  scale *= (n & 4u) != 0 ? steps[2] : 1.0f;
  if constexpr (Bits == 4) scale *= (n & 8u) != 0 ? steps[3] : 1.0f;
  return scale;
}

/// c[0] u^(N-1) + ... + c[N-1] by Horner's rule, each step one fused multiply-add: rounded once on
/// every CPU (in software where it lacks the instruction), so the vector passes give the same bits.
template <std::size_t N>
inline float horner(const std::array<float, N>& c, float u) {
  float p = c[0];
  // Unrolled by hand: left a loop around the call, it keeps the caller's loop from vectorising.
#pragma GCC unroll 8
  for (std::size_t k = 1; k < N; ++k) p = std::fma(p, u, c[k]);
  return p;
}

/// 2^-2.4, 2^-4.8, 2^-9.6: t at least 2^-5 leaves n below 8.
inline constexpr std::array<float, 3> kDecodeSteps = {1.894645708e-01f, 3.589682359e-02f,
                                                      1.288581944e-03f};
/// (f / 1.055)^2.4 on [1, 2), in f itself: no centring step per value.
inline constexpr std::array<float, 6> kDecodePolynomial = {3.689257661e-03f,  -4.346263781e-02f,
                                                           3.321231306e-01f,  7.052689195e-01f,
                                                           -1.409280002e-01f, 2.272496559e-02f};

/// (t / 1.055)^2.4 for t in [0.095, 1.055] by its binade and a degree-5 fit in the mantissa
/// (relative error below 7e-7) by fused multiply-adds, with no divide, logarithm or exponential;
/// finite for any t >= 0.
/// Taking t = m + 0.055 spares the decoding a multiply by 1 / 1.055.
inline float srgbDecodePower(float t) {
  float f;
  const float scale = binadeScale(t, f, kDecodeSteps);
  return horner(kDecodePolynomial, f) * scale;
}

/// 2^(-5/12), 2^(-10/12), 2^(-20/12), 2^(-40/12).
inline constexpr std::array<float, 4> kEncodeSteps = {7.491535384e-01f, 5.612310242e-01f,
                                                      3.149802625e-01f, 9.921256575e-02f};
/// 1.055 f^(1/2.4) on [1, 2), in f itself: two degrees more than on half binades cost the vector
/// unit less than picking the half.
inline constexpr std::array<float, 7> kEncodePolynomial = {
    -2.839559689e-03f, 3.107942641e-02f, -1.474363953e-01f, 4.006589949e-01f,
    -7.133480310e-01f, 1.115662813e+00f, 3.712230027e-01f};

/// 1.055 t^(1/2.4) - 0.055 for t in [0.002, 1] the same way (error below 5e-7), with fused
/// multiply-adds; finite for any t >= 0.
inline float srgbEncodeRoot(float t) {
  float f;
  const float scale = binadeScale(t, f, kEncodeSteps);
  return std::fma(horner(kEncodePolynomial, f), scale, -0.055f);
}

/// sRGB decoding of m in [0, 1]; SrgbDecode extends it to every value with the same steps, so
/// a pass that knows its values lie there may skip the rest and still agree bit for bit.
inline float srgbDecodeUnit(float m) {
  // Computed for every value, so the select below needs no branch. Where the power is kept, its
  // argument lies in [0.095, 1.055]; elsewhere it is finite and unused.
  const float power = srgbDecodePower(m + 0.055f);
  return m <= kSrgbEncodedToeEnd ? m * (1.0f / 12.92f) : power;
}

/// sRGB decoding of any value: negative values mirror the positive side, values above 1 continue
/// as a straight line and NaN becomes 0. Branch-free, so loops over it vectorise.
struct SrgbDecode {
  float operator()(float x) const {
    float magnitude = std::fabs(x);
    magnitude = magnitude > 0.0f ? magnitude : 0.0f;
    float y = srgbDecodeUnit(magnitude);
    y = magnitude > 1.0f ? 1.0f + (magnitude - 1.0f) * kSrgbSlopeAtOne : y;
    return std::copysign(y, x);
  }
  /// out[i] = (*this)(in[i]) for count values, vectorised for the running CPU; in may be out.
  void apply(const float* in, float* out, std::size_t count) const;
};

/// sRGB encoding of m in [0, 1], the steps SrgbEncode extends to every value.
inline float srgbEncodeUnit(float m) {
  // Kept for m in (0.0031308, 1] only, within the root's range; finite and unused elsewhere.
  const float root = srgbEncodeRoot(m);
  return m <= kSrgbLinearToeEnd ? m * 12.92f : root;
}

/// sRGB encoding, the inverse of SrgbDecode over the whole range (its line above 1 included).
/// Infinities end at the largest float of their sign, so its results are always finite.
struct SrgbEncode {
  float operator()(float x) const {
    float magnitude = std::fabs(x);
    magnitude = magnitude > 0.0f ? magnitude : 0.0f;
    float y = srgbEncodeUnit(magnitude);
    y = magnitude > 1.0f ? 1.0f + (magnitude - 1.0f) * (1.0f / kSrgbSlopeAtOne) : y;
    y = y < std::numeric_limits<float>::max() ? y : std::numeric_limits<float>::max();
    return std::copysign(y, x);
  }
  /// out[i] = (*this)(in[i]) for count values, vectorised for the running CPU; in may be out.
  void apply(const float* in, float* out, std::size_t count) const;
};

/// The sRGB transfer curves. The straight lines above 1 are each other's inverse, so a decode
/// followed by an encode returns the value whatever its range.
struct SrgbTransfer {
  /// decode(encoded), out of line: a loop compiled for CPUs without fused multiply-adds would
  /// call the library's for each of the curve's steps.
  float toLinear(float encoded) const;
  float toEncoded(float linear) const { return encode(linear); }

  SrgbDecode decode;
  SrgbEncode encode;
};

/// The process-wide transfer curves.
const SrgbTransfer& srgbTransfer();

/// Decodes count interleaved sRGB pixels into linear-light planes.
void decodeToPlanes(const float* in, float* r, float* g, float* b, std::size_t count);
/// Encodes linear-light planes into count interleaved sRGB pixels; with clipBlack, negative
/// values and NaN are first taken as 0.
void encodeFromPlanes(const float* r, const float* g, const float* b, float* out, std::size_t count,
                      bool clipBlack = false);

/// Encodes one plane of linear light, clipped at black (NaN too), into count interleaved neutral
/// pixels: r = g = b, one curve per pixel rather than three.
void encodeGreyFromPlane(const float* y, float* out, std::size_t count);

/// decodeToPlanes and encodeFromPlanes as CPUs without AVX-512 run them (cloned for AVX2 with
/// fused multiply-adds); they give the same bits, which the tests check on any CPU.
void decodeToPlanesPortable(const float* in, float* r, float* g, float* b, std::size_t count);
void encodeFromPlanesPortable(const float* r, const float* g, const float* b, float* out,
                              std::size_t count, bool clipBlack = false);
void encodeGreyFromPlanePortable(const float* y, float* out, std::size_t count);

/// Splits count interleaved pixels into planes as they are, and joins them back.
void splitToPlanes(const float* in, float* r, float* g, float* b, std::size_t count);
void joinPlanes(const float* r, const float* g, const float* b, float* out, std::size_t count);

/// The exact sRGB transfer functions on [0, 1], for per-call set-up.
float srgbToLinearExact(float encoded);
float linearToSrgbExact(float linear);

/// Cube root by a bit-level estimate and two Newton steps (relative error about 1e-6).
inline float fastCbrt(float x) {
  const std::uint32_t bits = std::bit_cast<std::uint32_t>(x);
  // The magnitude's bits divided by 3 in floating point: a vector unit has no integer divide,
  // and the estimate needs no more than float's precision.
  const auto third = static_cast<std::uint32_t>(static_cast<std::int32_t>(
      static_cast<float>(static_cast<std::int32_t>(bits & 0x7fffffffu)) * (1.0f / 3.0f)));
  // The estimate takes x's sign, and Newton's steps keep it: the root of -x is minus that of x,
  // with no sign restored at the end.
  const float guess = std::bit_cast<float>((third + 0x2a514067u) | (bits & 0x80000000u));
  // Newton's step (2y + a / y^2) / 3 as 2y / 3 + (a / 3) / y^2: a multiply fewer, and the rest
  // one fused multiply-add, which rounds alike on every CPU.
  const float aThird = x * (1.0f / 3.0f);
  float y = std::fma(guess, 2.0f / 3.0f, aThird / (guess * guess));
  y = std::fma(y, 2.0f / 3.0f, aThird / (y * y));
  return y;
}

/// atan2 by a minimax polynomial (error below 3e-4 radian), branch-free.
inline float fastAtan2(float y, float x) {
  const float ax = std::fabs(x);
  const float ay = std::fabs(y);
  const float ratio = (ax < ay ? ax : ay) / ((ax > ay ? ax : ay) + 1e-30f);
  const float s = ratio * ratio;
  float r = std::fma(std::fma(std::fma(-0.0464964749f, s, 0.15931422f), s, -0.327622764f) * s,
                     ratio, ratio);
  r = ay > ax ? 1.57079637f - r : r;
  r = x < 0.0f ? 3.14159274f - r : r;
  return y < 0.0f ? -r : r;
}

struct Oklab {
  float L, a, b;
};

/// Oklab from the cube roots of its cone responses (lms'), and back.
inline constexpr Matrix3 kLmsRootToOklab{{0.2104542553f, 0.7936177850f, -0.0040720468f,
                                          1.9779984951f, -2.4285922050f, 0.4505937099f,
                                          0.0259040371f, 0.7827717662f, -0.8086757660f}};
/// Its first column is all ones: a lightness change moves l', m' and s' alike.
inline constexpr Matrix3 kOklabToLmsRoot{{1.0f, 0.3963377774f, 0.2158037573f, 1.0f, -0.1055613458f,
                                          -0.0638541728f, 1.0f, -0.0894841775f, -1.2914855480f}};

/// The cube roots of Oklab's cone responses. Oklab is a fixed matrix of them, so an effect
/// linear in Oklab can act on them directly, without the trip through (L, a, b) and back.
struct LmsRoot {
  float l, m, s;

  /// The roots of cone responses l, m, s.
  static LmsRoot of(float l, float m, float s) { return {fastCbrt(l), fastCbrt(m), fastCbrt(s)}; }
  // Fused multiply-adds throughout: they run in the effects' pixel loops, where they take fewer
  // vector instructions and round once on every CPU, so the clones stay bit-identical.
  static LmsRoot of(const Oklab& c) {
    // The matrix's first column is all ones.
    const auto row = [&c](std::size_t i) {
      const std::array<float, 9>& k = kOklabToLmsRoot.m;
      return std::fma(k[i + 1], c.a, std::fma(k[i + 2], c.b, c.L));
    };
    return {row(0), row(3), row(6)};
  }
  Oklab oklab() const {
    const auto row = [this](std::size_t i) {
      const std::array<float, 9>& k = kLmsRootToOklab.m;
      return std::fma(k[i], l, std::fma(k[i + 1], m, k[i + 2] * s));
    };
    return {row(0), row(3), row(6)};
  }
  /// Oklab lightness alone: one row of the matrix.
  float lightness() const {
    const std::array<float, 9>& k = kLmsRootToOklab.m;
    return std::fma(k[0], l, std::fma(k[1], m, k[2] * s));
  }
  /// The colour with Oklab chroma times gain and lightness moved from L to newL (L its own).
  void reshape(float L, float gain, float newL) { scaleAndLift(gain, std::fma(-gain, L, newL)); }
  /// The roots times gain plus lift: Oklab chroma times gain, lightness gain L + lift.
  void scaleAndLift(float gain, float lift) {
    l = std::fma(gain, l, lift);
    m = std::fma(gain, m, lift);
    s = std::fma(gain, s, lift);
  }
  /// The colour moved by w times the Oklab difference whose roots' difference is d.
  void add(float w, const LmsRoot& d) {
    l = std::fma(w, d.l, l);
    m = std::fma(w, d.m, m);
    s = std::fma(w, d.s, s);
  }
  /// Linear sRGB of the roots.
  void toLinear(float& r, float& g, float& b) const {
    const float cl = l * l * l;
    const float cm = m * m * m;
    const float cs = s * s * s;
    r = 4.0767416621f * cl - 3.3077115913f * cm + 0.2309699292f * cs;
    g = -1.2684380046f * cl + 2.6097574011f * cm - 0.3413193965f * cs;
    b = -0.0041960863f * cl - 0.7034186147f * cm + 1.7076147010f * cs;
  }
};

/// Oklab of cone responses l, m, s (before their cube roots).
inline Oklab lmsToOklab(float l, float m, float s) {
  return LmsRoot::of(l, m, s).oklab();
}

inline Oklab linearToOklab(float r, float g, float b) {
  return lmsToOklab(0.4122214708f * r + 0.5363325363f * g + 0.0514459929f * b,
                    0.2119034982f * r + 0.6806995451f * g + 0.1073969566f * b,
                    0.0883024619f * r + 0.2817188376f * g + 0.6299787005f * b);
}

/// Linear sRGB to Oklab's cone responses, the matrix linearToOklab applies first.
inline constexpr Matrix3 kLinearSrgbToLms{{0.4122214708f, 0.5363325363f, 0.0514459929f,
                                           0.2119034982f, 0.6806995451f, 0.1073969566f,
                                           0.0883024619f, 0.2817188376f, 0.6299787005f}};

/// The cube roots of the cone responses toLms gives linear light r, g, b.
inline LmsRoot lmsRootsOf(const Matrix3& toLms, float r, float g, float b) {
  // Fused multiply-adds, like LmsRoot's own conversions.
  const auto row = [&](std::size_t i) {
    const std::array<float, 9>& k = toLms.m;
    return std::fma(k[i], r, std::fma(k[i + 1], g, k[i + 2] * b));
  };
  return LmsRoot::of(row(0), row(3), row(6));
}

inline void oklabToLinear(const Oklab& c, float& r, float& g, float& b) {
  LmsRoot::of(c).toLinear(r, g, b);
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

/// 3 - 2 t by two subtractions: the vector unit runs them beside its multiply-adds, where the
/// fused form would take a multiply-add's turn.
inline float threeLessTwice(float t) {
  return (3.0f - t) - t;
}

/// v clamped to [0, top] for top >= 0 (NaN to either end) by its bits, as unitClampBits.
inline float clampBits(float v, float top) {
  const std::int32_t bits = std::bit_cast<std::int32_t>(v);
  return std::bit_cast<float>(std::min(std::max(bits, 0), std::bit_cast<std::int32_t>(top)));
}

/// v clamped to [0, 1] (NaN to either end) by its bits: non-negative floats order as their bits
/// do as integers. Two integer min/max, where GCC splits a float clamp into compares and masked
/// moves, and a compare costs the vector unit as much as a multiply-add.
inline float unitClampBits(float v) {
  return clampBits(v, 1.0f);
}

/// v clamped to [0, 1], NaN to 0: one select after the other takes fewer vector instructions
/// than std::clamp, whose NaN passes through.
inline float intoUnitInterval(float v) {
  v = v > 0.0f ? v : 0.0f;
  return v < 1.0f ? v : 1.0f;
}

/// A smooth hue window: 1 at its centre, 0 from `halfWidthDegrees` away, a cubic step on the
/// cosine of the hue difference between (no hue angle, no seam at +-180 degrees).
class HueWindow {
 public:
  /// peak in (0, 1] scales the weights: one multiply fewer than scaling them after.
  HueWindow(HueDirection centre, float halfWidthDegrees, float peak = 1.0f);
  /// The window's weight for (a, b) of chroma c, faded out towards grey.
  float weight(float a, float b, float c) const {
    // The step's scale is folded into the centre and the edge.
    // Fused multiply-adds: fewer vector instructions, and one rounding on every CPU.
    float t = std::fma(a, centre_.cosine, b * centre_.sine) / c - edge_;
    // At most 1 but for rounding, where the step is flat. NaN goes to either end: a grey's
    // 0 / 0 then meets a fade of 0, and a NaN colour's roots stay NaN whatever its weight.
    t = unitClampBits(t);
    // The fade towards grey rises to the peak.
    const float grey = clampBits(c * fadeSlope_, peak_);
    return t * t * threeLessTwice(t) * grey;
  }

 private:
  HueDirection centre_;
  float edge_;
  float peak_;
  float fadeSlope_;
};

}  // namespace vorn::detail
