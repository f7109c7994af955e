#include "effects/kernels/color_space.h"

#include "core/dispatch.h"
#include "effects/kernels/avx512_lanes.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace vorn::detail {

Matrix3 operator*(const Matrix3& a, const Matrix3& b) {
  Matrix3 product;
  for (int row = 0; row < 3; ++row) {
    for (int column = 0; column < 3; ++column) {
      float sum = 0.0f;
      for (int k = 0; k < 3; ++k) sum += a(row, k) * b(k, column);
      product.m[static_cast<std::size_t>(3 * row + column)] = sum;
    }
  }
  return product;
}

Matrix3 inverse(const Matrix3& a) {
  const double m[9] = {a.m[0], a.m[1], a.m[2], a.m[3], a.m[4], a.m[5], a.m[6], a.m[7], a.m[8]};
  const double c0 = m[4] * m[8] - m[5] * m[7];
  const double c1 = m[5] * m[6] - m[3] * m[8];
  const double c2 = m[3] * m[7] - m[4] * m[6];
  const double det = m[0] * c0 + m[1] * c1 + m[2] * c2;
  if (!(std::fabs(det) > 1e-12)) return {};
  const double adjugate[9] = {c0, m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
                              c1, m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
                              c2, m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
  Matrix3 result;
  for (std::size_t i = 0; i < 9; ++i) result.m[i] = static_cast<float>(adjugate[i] / det);
  return result;
}

const Matrix3& linearSrgbToXyz() {
  static const Matrix3 matrix{{0.4124564f, 0.3575761f, 0.1804375f, 0.2126729f, 0.7151522f,
                               0.0721750f, 0.0193339f, 0.1191920f, 0.9503041f}};
  return matrix;
}

float srgbToLinearExact(float encoded) {
  return encoded <= kSrgbEncodedToeEnd ? encoded / 12.92f
                                       : std::pow((encoded + 0.055f) / 1.055f, 2.4f);
}

float linearToSrgbExact(float linear) {
  return linear <= kSrgbLinearToeEnd ? 12.92f * linear
                                     : 1.055f * std::pow(linear, 1.0f / 2.4f) - 0.055f;
}

namespace {

// One plain loop each, cloned for the wider vector units.
VORN_FMA_DISPATCH void decodeValuesCloned(const float* in, float* out, std::size_t count) {
  const SrgbDecode decode;
  for (std::size_t i = 0; i < count; ++i) out[i] = decode(in[i]);
}

VORN_FMA_DISPATCH void encodeValuesCloned(const float* in, float* out, std::size_t count) {
  const SrgbEncode encode;
  for (std::size_t i = 0; i < count; ++i) out[i] = encode(in[i]);
}

/// True when every one of count values lies in [0, 1] once taken through `take`; NaN does not.
template <typename Take>
inline bool allInUnitRange(const float* values, std::size_t count, Take take) {
  unsigned outside = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const float v = take(values[i]);
    outside |= v >= 0.0f && v <= 1.0f ? 0u : 1u;
  }
  return outside == 0;
}

inline bool allInUnitRange(const float* values, std::size_t count) {
  return allInUnitRange(values, count, [](float v) { return v; });
}

/// v, or v clipped at black (NaN too) when Clip.
template <bool Clip>
inline float clippedIf(float v) {
  if constexpr (Clip) return v > 0.0f ? v : 0.0f;
  return v;
}

// AVX-512 reads a 16-entry table in one instruction, which the compiler does not use for a plain
// array: the binade's scale then costs one step instead of a chain of selects. Every other step
// repeats the scalar curves' in the same order, so the results agree bit for bit.

/// binadeScale's value for each exponent field E modulo 16: n = 127 - E is fixed modulo 16 by it,
/// and binadeScale reads no more bits of n than that.
template <std::size_t Bits>
std::array<float, 16> binadeScales(const std::array<float, Bits>& steps) {
  std::array<float, 16> scales{};
  for (std::uint32_t e = 0; e < 16; ++e) {
    float f;
    scales[e] = binadeScale(std::bit_cast<float>((112u + e) << 23), f, steps);
  }
  return scales;
}

struct CurveTables {
  std::array<float, 16> decode = binadeScales(kDecodeSteps);
  std::array<float, 16> encode = binadeScales(kEncodeSteps);
};

const CurveTables& curveTables() {
  static const CurveTables tables;
  return tables;
}

// Zero-masked forms with whole masks below: the plain ones start from an undefined vector, which
// GCC 12 warns of as an uninitialised read.

template <std::size_t N>
VORN_AVX512 inline __m512 hornerAvx512(const std::array<float, N>& c, __m512 u) {
  __m512 p = _mm512_set1_ps(c[0]);
  for (std::size_t k = 1; k < N; ++k) p = _mm512_fmadd_ps(p, u, _mm512_set1_ps(c[k]));
  return p;
}

/// binadeScale for 16 values, the scale read from `scales` (binadeScales). Where t is a positive
/// normal float the mantissa is the one binadeScale's bit operations give.
VORN_AVX512 inline __m512 binadeScaleAvx512(__m512 t, __m512& f, __m512 scales) {
  f = _mm512_maskz_getmant_ps(0xffff, t, _MM_MANT_NORM_1_2, _MM_MANT_SIGN_src);
  // The permute reads only the low four bits of each index: those of the exponent field.
  const __m512i exponent = _mm512_maskz_srli_epi32(0xffff, _mm512_castps_si512(t), 23);
  return _mm512_maskz_permutexvar_ps(0xffff, exponent, scales);
}

/// a > b ? a : b, b for NaN.
VORN_AVX512 inline __m512 maxAvx512(__m512 a, __m512 b) {
  return _mm512_maskz_max_ps(0xffff, a, b);
}

/// |x| with NaN read as 0, as the scalar curves take it (max returns its second operand for NaN).
VORN_AVX512 inline __m512 magnitudeAvx512(__m512 x) {
  return maxAvx512(_mm512_abs_ps(x), _mm512_setzero_ps());
}

/// y with the sign of x.
VORN_AVX512 inline __m512 copySignAvx512(__m512 y, __m512 x) {
  // Bitwise "sign mask ? x : y".
  return _mm512_castsi512_ps(
      _mm512_ternarylogic_epi32(_mm512_set1_epi32(static_cast<int>(0x80000000u)),
                                _mm512_castps_si512(x), _mm512_castps_si512(y), 0xca));
}

/// srgbDecodeUnit for 16 values above its toe; scales holds binadeScales.
VORN_AVX512 inline __m512 decodeAboveToeAvx512(__m512 m, __m512 scales) {
  const __m512 t = _mm512_add_ps(m, _mm512_set1_ps(0.055f));
  __m512 f;
  const __m512 scale = binadeScaleAvx512(t, f, scales);
  return _mm512_mul_ps(hornerAvx512(kDecodePolynomial, f), scale);
}

/// srgbEncodeUnit for 16 values above its toe; scales holds binadeScales.
VORN_AVX512 inline __m512 encodeAboveToeAvx512(__m512 m, __m512 scales) {
  __m512 f;
  const __m512 scale = binadeScaleAvx512(m, f, scales);
  return _mm512_fmadd_ps(hornerAvx512(kEncodePolynomial, f), scale, _mm512_set1_ps(-0.055f));
}

using PowerAvx512 = __m512 (*)(__m512, __m512);

/// One of the sRGB curves on 16 values with the numbers it needs: its part on [0, 1] is the
/// straight toe of `toeSlope` up to `toeEnd` and AboveToe past it, carried to every value as
/// SrgbDecode and SrgbEncode carry theirs (the line of `slope` above 1 ending at `limit`, the sign
/// of x, NaN as 0).
template <PowerAvx512 AboveToe>
struct CurveAvx512 {
  __m512 scales;
  float slope;
  float limit;
  float toeEnd;
  float toeSlope;

  /// srgbDecodeUnit or srgbEncodeUnit for 16 values.
  VORN_AVX512 __m512 unit(__m512 x) const {
    return _mm512_mask_mul_ps(AboveToe(x, scales),
                              _mm512_cmp_ps_mask(x, _mm512_set1_ps(toeEnd), _CMP_LE_OQ), x,
                              _mm512_set1_ps(toeSlope));
  }
  /// The curve for x without negative values or NaN.
  VORN_AVX512 __m512 positive(__m512 x) const {
    const __m512 one = _mm512_set1_ps(1.0f);
    const __mmask16 above = _mm512_cmp_ps_mask(x, one, _CMP_GT_OQ);
    // The line's steps under the mask, over the unit curve's values.
    __m512 y = _mm512_mask_sub_ps(unit(x), above, x, one);
    y = _mm512_mask_mul_ps(y, above, y, _mm512_set1_ps(slope));
    y = _mm512_mask_add_ps(y, above, y, one);
    return _mm512_mask_min_ps(y, above, y, _mm512_set1_ps(limit));
  }
  /// The curve for any x.
  VORN_AVX512 __m512 whole(__m512 x) const {
    return copySignAvx512(positive(magnitudeAvx512(x)), x);
  }
  VORN_AVX512 __m512 operator()(__m512 x) const { return curveOf<false>(x); }
  /// The curve for x clipped at black (NaN too).
  VORN_AVX512 __m512 ofClipped(__m512 x) const { return curveOf<true>(x); }

  /// Vectors wholly inside (toe, 1] take the power alone, those inside [0, 1] the unit curve, and
  /// those above it only the line. The first kind needs no clip at black.
  template <bool ClipBlack>
  VORN_AVX512 __m512 curveOf(__m512 x) const {
    // As unsigned integers, negative values and NaN lie above 1; less the toe's end and one,
    // the toe wraps round above them too.
    __m512i bits = _mm512_castps_si512(x);
    const auto pastToe = static_cast<int>(std::bit_cast<std::uint32_t>(toeEnd) + 1u);
    // Expected: laid out as the straight path, the usual case runs without a taken branch.
    if (__builtin_expect(_mm512_cmple_epu32_mask(_mm512_sub_epi32(bits, _mm512_set1_epi32(pastToe)),
                                                 _mm512_set1_epi32(0x3f800000 - pastToe)) == 0xffff,
                         1))
      return AboveToe(x, scales);
    if constexpr (ClipBlack) {
      // max(x, 0) is 0 for NaN and -0 too, as clippedIf.
      x = maxAvx512(x, _mm512_setzero_ps());
      bits = _mm512_castps_si512(x);
    }
    if (_mm512_cmple_epu32_mask(bits, _mm512_set1_epi32(0x3f800000)) == 0xffff) return unit(x);
    // At most +infinity as unsigned integers: no sign bit and no NaN.
    if (_mm512_cmple_epu32_mask(bits, _mm512_set1_epi32(0x7f800000)) == 0xffff) return positive(x);
    return whole(x);
  }
};

VORN_AVX512 inline CurveAvx512<decodeAboveToeAvx512> decodeCurveAvx512() {
  return {_mm512_loadu_ps(curveTables().decode.data()), kSrgbSlopeAtOne,
          std::numeric_limits<float>::infinity(), kSrgbEncodedToeEnd, 1.0f / 12.92f};
}

VORN_AVX512 inline CurveAvx512<encodeAboveToeAvx512> encodeCurveAvx512() {
  return {_mm512_loadu_ps(curveTables().encode.data()), 1.0f / kSrgbSlopeAtOne,
          std::numeric_limits<float>::max(), kSrgbLinearToeEnd, 12.92f};
}

/// out[i] = curve(in[i]) for count values; in may be out. Runs of 16 inside [0, 1] take the unit
/// curve alone.
template <typename Curve>
VORN_AVX512 void curveAvx512(const Curve& curve, const float* in, float* out, std::size_t count) {
  forVectors(count, [&](std::size_t i, auto n) VORN_AVX512_INLINE {
    storeLanesAvx512(out + i, curve(loadLanesAvx512(in + i, n)), n);
  });
}

void decodeValues(const float* in, float* out, std::size_t count) {
  if (hasAvx512()) {
    curveAvx512(decodeCurveAvx512(), in, out, count);
  } else {
    decodeValuesCloned(in, out, count);
  }
}

void encodeValues(const float* in, float* out, std::size_t count) {
  if (hasAvx512()) {
    curveAvx512(encodeCurveAvx512(), in, out, count);
  } else {
    encodeValuesCloned(in, out, count);
  }
}

// 16 interleaved pixels are three vectors of 48 values. Lane j of the three holds channels j,
// j + 1 and j + 2 modulo 3, one each: two blends gather a channel's values, still in their
// lanes, and one single-source permute puts them in pixel order. Joining reverses it. Blends and
// one-source permutes leave the multiply-add units free, where two-source permutes compete.

/// The lanes j of 16 with (j + shift) mod 3 == 0.
constexpr std::uint16_t thirdLanes(int shift) {
  std::uint16_t mask = 0;
  for (int j = 0; j < 16; ++j)
    if ((j + shift) % 3 == 0) mask = static_cast<std::uint16_t>(mask | 1u << j);
  return mask;
}

/// Plane `channel`'s lanes in pixel order: pixel k's value sits in lane (3k + channel) mod 16.
constexpr std::array<std::int32_t, 16> splitIndex(int channel) {
  std::array<std::int32_t, 16> index{};
  for (int k = 0; k < 16; ++k) index[static_cast<std::size_t>(k)] = (3 * k + channel) % 16;
  return index;
}

/// The inverse: lane j takes the pixel whose value of `channel` lies in lane j of some vector.
constexpr std::array<std::int32_t, 16> joinIndex(int channel) {
  std::array<std::int32_t, 16> index{};
  for (int j = 0; j < 16; ++j) {
    const int vector = ((channel - j) % 3 + 3) % 3;
    index[static_cast<std::size_t>(j)] = (16 * vector + j - channel) / 3;
  }
  return index;
}

/// Output vector `part`'s indices for a neutral pixel: its value k is pixel k / 3 of the plane.
constexpr std::array<std::int32_t, 16> greyIndex(int part) {
  std::array<std::int32_t, 16> index{};
  for (int j = 0; j < 16; ++j) index[static_cast<std::size_t>(j)] = (16 * part + j) / 3;
  return index;
}

struct PixelShuffles {
  std::array<std::array<std::int32_t, 16>, 3> split{splitIndex(0), splitIndex(1), splitIndex(2)};
  std::array<std::array<std::int32_t, 16>, 3> join{joinIndex(0), joinIndex(1), joinIndex(2)};
  std::array<std::array<std::int32_t, 16>, 3> grey{greyIndex(0), greyIndex(1), greyIndex(2)};
};
constexpr PixelShuffles kPixelShuffles;

VORN_AVX512 inline __m512 permuteAvx512(const std::array<std::int32_t, 16>& index, __m512 v) {
  return _mm512_maskz_permutexvar_ps(0xffff, _mm512_loadu_si512(index.data()), v);
}

/// Lane j of a, b or c: the one of the three vectors i = 0, 1, 2 with (j + i + shift) mod 3 == 0.
template <int Shift>
VORN_AVX512 inline __m512 blendThirds(__m512 a, __m512 b, __m512 c) {
  const __m512 ab = _mm512_mask_blend_ps(thirdLanes(Shift + 1), a, b);
  return _mm512_mask_blend_ps(thirdLanes(Shift + 2), ab, c);
}

/// How many of the 16 values of output vector `part` hold the first count of 16 pixels.
inline std::size_t partLanes(std::size_t part, std::size_t count) {
  const std::size_t before = 16 * part;
  const std::size_t values = 3 * count > before ? 3 * count - before : 0;
  return values < 16 ? values : 16;
}

/// 16 pixels (count of them kept, the rest zero) split into r, g, b; full is count == 16.
VORN_AVX512 inline void loadPixelsAvx512(const float* in, std::size_t count, __m512 (&planes)[3]) {
  __m512 v[3];
  for (std::size_t part = 0; part < 3; ++part)
    v[part] = loadLanesAvx512(in + 16 * part, partLanes(part, count));
  // Vector i lane j holds channel (j + i) mod 3.
  planes[0] = permuteAvx512(kPixelShuffles.split[0], blendThirds<0>(v[0], v[1], v[2]));
  planes[1] = permuteAvx512(kPixelShuffles.split[1], blendThirds<2>(v[0], v[1], v[2]));
  planes[2] = permuteAvx512(kPixelShuffles.split[2], blendThirds<1>(v[0], v[1], v[2]));
}

/// Output vector `part` of 16 interleaved pixels (count of them kept) written to out.
VORN_AVX512 inline void storePartAvx512(__m512 v, std::size_t part, float* out, std::size_t count) {
  storeLanesAvx512(out + 16 * part, v, partLanes(part, count));
}

/// The first count of 16 pixels in planes, interleaved into out.
VORN_AVX512 inline void storePixelsAvx512(const __m512 (&planes)[3], float* out,
                                          std::size_t count) {
  const __m512 r = permuteAvx512(kPixelShuffles.join[0], planes[0]);
  const __m512 g = permuteAvx512(kPixelShuffles.join[1], planes[1]);
  const __m512 b = permuteAvx512(kPixelShuffles.join[2], planes[2]);
  // Lane j of output vector i takes channel (j + i) mod 3.
  storePartAvx512(blendThirds<0>(r, b, g), 0, out, count);
  storePartAvx512(blendThirds<1>(r, b, g), 1, out, count);
  storePartAvx512(blendThirds<2>(r, b, g), 2, out, count);
}

/// Splitting and decoding in one pass: each value is read and written once.
VORN_AVX512 void decodeToPlanesAvx512(const float* in, float* r, float* g, float* b,
                                      std::size_t count) {
  const auto curve = decodeCurveAvx512();
  float* out[3] = {r, g, b};
  forVectors(count, [&](std::size_t i, auto n) VORN_AVX512_INLINE {
    __m512 x[3];
    loadPixelsAvx512(in + 3 * i, n, x);
    for (std::size_t c = 0; c < 3; ++c) storeLanesAvx512(out[c] + i, curve(x[c]), n);
  });
}

/// Encoding and joining in one pass; with Clip, values are first clipped at black.
template <bool Clip>
VORN_AVX512 void encodeFromPlanesAvx512(const float* r, const float* g, const float* b, float* out,
                                        std::size_t count) {
  const auto curve = encodeCurveAvx512();
  const float* in[3] = {r, g, b};
  forVectors(count, [&](std::size_t i, auto n) VORN_AVX512_INLINE {
    __m512 x[3];
    for (std::size_t c = 0; c < 3; ++c) {
      x[c] = loadLanesAvx512(in[c] + i, n);
      x[c] = Clip ? curve.ofClipped(x[c]) : curve(x[c]);
    }
    storePixelsAvx512(x, out + 3 * i, n);
  });
}

/// One plane encoded into neutral pixels: each value goes to three lanes of the output vectors.
VORN_AVX512 void encodeGreyFromPlaneAvx512(const float* y, float* out, std::size_t count) {
  const auto curve = encodeCurveAvx512();
  forVectors(count, [&](std::size_t i, auto n) VORN_AVX512_INLINE {
    const __m512 v = curve.ofClipped(loadLanesAvx512(y + i, n));
    for (std::size_t part = 0; part < 3; ++part)
      storePartAvx512(permuteAvx512(kPixelShuffles.grey[part], v), part, out + 3 * i, n);
  });
}

}  // namespace

// Pixels in [0, 1], the usual case, skip the steps that carry the curves beyond it; the result
// is the same bit for bit.
VORN_FMA_DISPATCH void decodeToPlanesPortable(const float* __restrict in, float* __restrict r,
                                              float* __restrict g, float* __restrict b,
                                              std::size_t count) {
  if (allInUnitRange(in, 3 * count)) {
    for (std::size_t i = 0; i < count; ++i) {
      r[i] = srgbDecodeUnit(in[3 * i]);
      g[i] = srgbDecodeUnit(in[3 * i + 1]);
      b[i] = srgbDecodeUnit(in[3 * i + 2]);
    }
    return;
  }
  const SrgbDecode decode;
  for (std::size_t i = 0; i < count; ++i) {
    r[i] = decode(in[3 * i]);
    g[i] = decode(in[3 * i + 1]);
    b[i] = decode(in[3 * i + 2]);
  }
}

namespace {

template <bool Clip>
VORN_FMA_DISPATCH void encodePlanesPortable(const float* __restrict r, const float* __restrict g,
                                            const float* __restrict b, float* __restrict out,
                                            std::size_t count) {
  const auto take = [](float v) { return clippedIf<Clip>(v); };
  if (allInUnitRange(r, count, take) && allInUnitRange(g, count, take) &&
      allInUnitRange(b, count, take)) {
    for (std::size_t i = 0; i < count; ++i) {
      out[3 * i] = srgbEncodeUnit(take(r[i]));
      out[3 * i + 1] = srgbEncodeUnit(take(g[i]));
      out[3 * i + 2] = srgbEncodeUnit(take(b[i]));
    }
    return;
  }
  const SrgbEncode encode;
  for (std::size_t i = 0; i < count; ++i) {
    out[3 * i] = encode(take(r[i]));
    out[3 * i + 1] = encode(take(g[i]));
    out[3 * i + 2] = encode(take(b[i]));
  }
}

}  // namespace

void encodeFromPlanesPortable(const float* r, const float* g, const float* b, float* out,
                              std::size_t count, bool clipBlack) {
  if (clipBlack) {
    encodePlanesPortable<true>(r, g, b, out, count);
  } else {
    encodePlanesPortable<false>(r, g, b, out, count);
  }
}

VORN_FMA_DISPATCH void encodeGreyFromPlanePortable(const float* __restrict y, float* __restrict out,
                                                   std::size_t count) {
  const auto take = [](float v) { return clippedIf<true>(v); };
  const auto grey = [out](std::size_t i, float v) {
    out[3 * i] = v;
    out[3 * i + 1] = v;
    out[3 * i + 2] = v;
  };
  if (allInUnitRange(y, count, take)) {
    for (std::size_t i = 0; i < count; ++i) grey(i, srgbEncodeUnit(take(y[i])));
    return;
  }
  const SrgbEncode encode;
  for (std::size_t i = 0; i < count; ++i) grey(i, encode(take(y[i])));
}

VORN_DISPATCH void splitToPlanes(const float* __restrict in, float* __restrict r,
                                 float* __restrict g, float* __restrict b, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    r[i] = in[3 * i];
    g[i] = in[3 * i + 1];
    b[i] = in[3 * i + 2];
  }
}

VORN_DISPATCH void joinPlanes(const float* __restrict r, const float* __restrict g,
                              const float* __restrict b, float* __restrict out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    out[3 * i] = r[i];
    out[3 * i + 1] = g[i];
    out[3 * i + 2] = b[i];
  }
}

void decodeToPlanes(const float* in, float* r, float* g, float* b, std::size_t count) {
  if (hasAvx512()) {
    decodeToPlanesAvx512(in, r, g, b, count);
  } else {
    decodeToPlanesPortable(in, r, g, b, count);
  }
}

void encodeFromPlanes(const float* r, const float* g, const float* b, float* out, std::size_t count,
                      bool clipBlack) {
  if (!hasAvx512()) {
    encodeFromPlanesPortable(r, g, b, out, count, clipBlack);
  } else if (clipBlack) {
    encodeFromPlanesAvx512<true>(r, g, b, out, count);
  } else {
    encodeFromPlanesAvx512<false>(r, g, b, out, count);
  }
}

void encodeGreyFromPlane(const float* y, float* out, std::size_t count) {
  if (hasAvx512()) {
    encodeGreyFromPlaneAvx512(y, out, count);
  } else {
    encodeGreyFromPlanePortable(y, out, count);
  }
}

void SrgbDecode::apply(const float* in, float* out, std::size_t count) const {
  decodeValues(in, out, count);
}

void SrgbEncode::apply(const float* in, float* out, std::size_t count) const {
  encodeValues(in, out, count);
}

VORN_FMA_DISPATCH float SrgbTransfer::toLinear(float encoded) const {
  return decode(encoded);
}

const SrgbTransfer& srgbTransfer() {
  static const SrgbTransfer transfer;
  return transfer;
}

HueDirection HueDirection::ofAngle(float degrees) {
  const float radians = degrees * std::numbers::pi_v<float> / 180.0f;
  return {std::cos(radians), std::sin(radians)};
}

std::array<float, 3> wheelColor(float degrees) {
  // HSV with S = V = 1.
  if (!std::isfinite(degrees)) degrees = 0.0f;
  const float h = std::fmod(std::fmod(degrees, 360.0f) + 360.0f, 360.0f) / 60.0f;
  const float x = 1.0f - std::fabs(std::fmod(h, 2.0f) - 1.0f);
  const std::array<float, 3> sectors[6] = {{1, x, 0}, {x, 1, 0}, {0, 1, x},
                                           {0, x, 1}, {x, 0, 1}, {1, 0, x}};
  return sectors[static_cast<int>(h) % 6];
}

float wheelHueAngle(float degrees) {
  const std::array<float, 3> rgb = wheelColor(degrees);
  const Oklab lab = linearToOklab(srgbToLinearExact(rgb[0]), srgbToLinearExact(rgb[1]),
                                  srgbToLinearExact(rgb[2]));
  return std::atan2(lab.b, lab.a);
}

HueDirection wheelHue(float degrees) {
  const float angle = wheelHueAngle(degrees);
  return {std::cos(angle), std::sin(angle)};
}

HueWindow::HueWindow(HueDirection centre, float halfWidthDegrees, float peak)
    : peak_(std::clamp(peak, 0.0f, 1.0f)), fadeSlope_(peak_ / kNeutralChroma) {
  const float edge =
      std::cos(std::clamp(halfWidthDegrees, 1.0f, 179.0f) * std::numbers::pi_v<float> / 180.0f);
  const float scale = 1.0f / (1.0f - edge);
  centre_ = {centre.cosine * scale, centre.sine * scale};
  edge_ = edge * scale;
}

}  // namespace vorn::detail
