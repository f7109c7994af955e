#include "core/color_matrix_shaper.h"

#include <immintrin.h>
#include <lcms2.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>
#include <vector>

#include "core/color_engine.h"

namespace vorn::detail {
namespace {

// lcms's private constants (MAX_ENCODEABLE_XYZ, MATRIX_DET_TOLERANCE): its matrix stages work on
// XYZ scaled by the first, and it refuses colorant matrices whose determinant is below the second.
constexpr double kMaxEncodableXyz = 1.0 + 32767.0 / 32768.0;
constexpr double kSingularDeterminant = 0.0001;

enum class Shape : std::uint8_t { Identity, Cells, Codes };

// Cells: each octave from 2^-24 to 2^8, of either sign, is cut into 64 cells indexed straight from
// the float's bits; a cell holds a cubic in the position t in [0, 1) given by the lower mantissa
// bits.
constexpr int kCellBits = 6;
constexpr int kCellShift = 23 - kCellBits;
constexpr std::int32_t kCellSpan = std::int32_t(1) << kCellShift;
constexpr std::int32_t kLowBits = 0x33800000;   // 2^-24
constexpr std::int32_t kHighBits = 0x43800000;  // 2^8
constexpr std::int32_t kRegularCells = (kHighBits - kLowBits) >> kCellShift;
// Per sign: zero, the tiny values below 2^-24, the regular cells, then huge values, Inf and NaN.
constexpr std::int32_t kTinyCell = 1;
constexpr std::int32_t kFirstRegularCell = 2;
constexpr std::int32_t kOutsideCell = kFirstRegularCell + kRegularCells;
constexpr std::int32_t kCellsPerSign = kOutsideCell + 1;
// Codes: one value per 16-bit code, the exact image of a tabulated curve under lcms.
constexpr std::int32_t kCodes = 65536;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Every lookup gives NaN for the values its table leaves to lcms (the caller then asks lcms);
// lcms's curves never give NaN themselves.
[[gnu::always_inline]] inline float lookupIdentity(float x) {
  const std::int32_t magnitude = std::bit_cast<std::int32_t>(x) & 0x7fffffff;
  return magnitude < kHighBits ? x : kNaN;
}

/// Where x falls: the index of its cell's first coefficient and its position t in the cell.
[[gnu::always_inline]] inline std::int32_t locateCell(float x, float& t) {
  const std::int32_t bits = std::bit_cast<std::int32_t>(x);
  const std::int32_t magnitude = bits & 0x7fffffff;
  std::int32_t cell = ((magnitude - kLowBits) >> kCellShift) + kFirstRegularCell;
  cell = magnitude < kLowBits ? static_cast<std::int32_t>(magnitude != 0) * kTinyCell : cell;
  cell = magnitude >= kHighBits ? kOutsideCell : cell;
  cell += (bits >> 31) & kCellsPerSign;
  t = static_cast<float>(magnitude & (kCellSpan - 1)) * (1.0f / kCellSpan);
  return 4 * cell;
}

/// The cubic of a cell, in double: rounded once to float it gives what lcms gives, nearly always.
[[gnu::always_inline]] inline float cubic(const double* c, float t) {
  const double u = t;
  return static_cast<float>(c[0] + u * (c[1] + u * (c[2] + u * c[3])));
}

[[gnu::always_inline]] inline float lookupCells(const double* cells, float x) {
  float t;
  const std::int32_t at = locateCell(x, t);
  return cubic(cells + at, t);
}

/// The 16-bit code lcms reads a tabulated curve at: _cmsQuickSaturateWord(x * 65535.0), that is
/// +0.5, clamped, then floored through a 16.16 fixed-point trick that first rounds to a multiple of
/// 2^-16. NaN gets a code too; the caller marks it. Written without branches so it vectorises.
[[gnu::always_inline]] inline std::int32_t locateCode(float x) {
  constexpr double kFixedMagic = 68719476736.0 * 1.5;
  const std::int32_t bits = std::bit_cast<std::int32_t>(x);
  // Every value beyond +-2 (Inf and NaN too) clamps to the same end code as +-2 does.
  const std::int32_t bounded =
      (bits & 0x7fffffff) < 0x40000000 ? bits : (bits & INT32_MIN) | 0x40000000;
  // Exact in double, so a fused multiply-add gives the same sum.
  const double d = static_cast<double>(std::bit_cast<float>(bounded)) * 65535.0 + 0.5;
  const double fixed = ((d - 32767.0) + kFixedMagic) - kFixedMagic;
  return std::clamp(static_cast<std::int32_t>(fixed + 32767.0), 0, kCodes - 1);
}

[[gnu::always_inline]] inline float lookupCodes(const float* codes, float x) {
  const float y = codes[locateCode(x)];
  return x == x ? y : kNaN;
}

struct StageTables {
  std::array<Shape, 3> shape{};
  std::array<const double*, 3> cells{};
  std::array<const float*, 3> codes{};
};

struct KernelTables {
  StageTables in, out;
  std::array<double, 9> matrix{};
  std::array<double, 3> offset{};
};

constexpr int kBlock = 256;

/// One block split into planes; `in` keeps the source for the pixels lcms must redo.
struct BlockPlanes {
  alignas(64) float in[4][kBlock];
  alignas(64) float linear[3][kBlock];
  alignas(64) float xyz[3][kBlock];
  alignas(64) std::int32_t at[kBlock];
  alignas(64) float t[kBlock];
};

using CellsFn = void (*)(const double* cells, const std::int32_t* at, const float* t, float* out,
                         int n);

void evaluateCells(const double* cells, const std::int32_t* at, const float* t, float* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = cubic(cells + at[i], t[i]);
}

// Each cell is one 32-byte load, four of them transposed into coefficient vectors: on the
// machines measured that is about three times faster than gathering the coefficients, and GCC's
// generic tuning would not emit gathers in target_clones anyway.
__attribute__((target("avx2,fma"))) void evaluateCellsAvx2(const double* cells,
                                                           const std::int32_t* at, const float* t,
                                                           float* out, int n) {
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m256d r0 = _mm256_loadu_pd(cells + at[i]);
    const __m256d r1 = _mm256_loadu_pd(cells + at[i + 1]);
    const __m256d r2 = _mm256_loadu_pd(cells + at[i + 2]);
    const __m256d r3 = _mm256_loadu_pd(cells + at[i + 3]);
    const __m256d a = _mm256_unpacklo_pd(r0, r1), b = _mm256_unpackhi_pd(r0, r1);
    const __m256d c = _mm256_unpacklo_pd(r2, r3), d = _mm256_unpackhi_pd(r2, r3);
    const __m256d c0 = _mm256_permute2f128_pd(a, c, 0x20);
    const __m256d c1 = _mm256_permute2f128_pd(b, d, 0x20);
    const __m256d c2 = _mm256_permute2f128_pd(a, c, 0x31);
    const __m256d c3 = _mm256_permute2f128_pd(b, d, 0x31);
    const __m256d u = _mm256_cvtps_pd(_mm_loadu_ps(t + i));
    _mm_storeu_ps(out + i, _mm256_cvtpd_ps(_mm256_fmadd_pd(
                               u, _mm256_fmadd_pd(u, _mm256_fmadd_pd(u, c3, c2), c1), c0)));
  }
  for (; i < n; ++i) out[i] = cubic(cells + at[i], t[i]);
}

template <CellsFn EvaluateCells>
[[gnu::always_inline]] inline void curvePlane(const StageTables& stage, int c, const float* in,
                                              float* out, BlockPlanes& p, int n) {
  switch (stage.shape[c]) {
    case Shape::Identity:
      for (int i = 0; i < n; ++i) out[i] = lookupIdentity(in[i]);
      break;
    case Shape::Cells:
      for (int i = 0; i < n; ++i) p.at[i] = locateCell(in[i], p.t[i]);
      EvaluateCells(stage.cells[c], p.at, p.t, out, n);
      break;
    case Shape::Codes:
      for (int i = 0; i < n; ++i) p.at[i] = locateCode(in[i]);
      for (int i = 0; i < n; ++i) {
        const float y = stage.codes[c][p.at[i]];
        out[i] = in[i] == in[i] ? y : kNaN;
      }
      break;
  }
}

template <int C>
[[gnu::always_inline]] inline void splitPixels(const float* src, BlockPlanes& p, int n) {
  for (int i = 0; i < n; ++i) {
    p.in[0][i] = src[i * C];
    p.in[1][i] = src[i * C + 1];
    p.in[2][i] = src[i * C + 2];
    if constexpr (C == 4) p.in[3][i] = src[i * C + 3];
  }
}

/// Interleaves the converted planes; true when some pixel is NaN, i.e. needs lcms.
template <int C>
[[gnu::always_inline]] inline bool joinPixels(const BlockPlanes& p, float* dst, int n) {
  int bad = 0;
  for (int i = 0; i < n; ++i) {
    const float r = p.linear[0][i], g = p.linear[1][i], b = p.linear[2][i];
    dst[i * C] = r;
    dst[i * C + 1] = g;
    dst[i * C + 2] = b;
    if constexpr (C == 4) dst[i * C + 3] = p.in[3][i];
    bad |= (r != r) | (g != g) | (b != b);
  }
  return bad != 0;
}

/// n <= kBlock pixels from src to dst (which may be src): curves, matrix, curves, plane by plane.
template <CellsFn EvaluateCells>
[[gnu::always_inline]] inline bool convertPlanar(const KernelTables& k, BlockPlanes& p,
                                                 const float* src, float* dst, int n,
                                                 int channels) {
  if (channels == 4)
    splitPixels<4>(src, p, n);
  else
    splitPixels<3>(src, p, n);
  for (int c = 0; c < 3; ++c) curvePlane<EvaluateCells>(k.in, c, p.in[c], p.linear[c], p, n);
  // Summed in double from float inputs, as lcms does: where the terms cancel (colours outside the
  // destination gamut) a float sum would add errors lcms does not make.
  const double m0 = k.matrix[0], m1 = k.matrix[1], m2 = k.matrix[2];
  const double m3 = k.matrix[3], m4 = k.matrix[4], m5 = k.matrix[5];
  const double m6 = k.matrix[6], m7 = k.matrix[7], m8 = k.matrix[8];
  const double o0 = k.offset[0], o1 = k.offset[1], o2 = k.offset[2];
  for (int i = 0; i < n; ++i) {
    const double r = p.linear[0][i], g = p.linear[1][i], b = p.linear[2][i];
    p.xyz[0][i] = static_cast<float>(m0 * r + m1 * g + m2 * b + o0);
    p.xyz[1][i] = static_cast<float>(m3 * r + m4 * g + m5 * b + o1);
    p.xyz[2][i] = static_cast<float>(m6 * r + m7 * g + m8 * b + o2);
  }
  for (int c = 0; c < 3; ++c) curvePlane<EvaluateCells>(k.out, c, p.xyz[c], p.linear[c], p, n);
  return channels == 4 ? joinPixels<4>(p, dst, n) : joinPixels<3>(p, dst, n);
}

using BlockFn = bool (*)(const KernelTables&, BlockPlanes&, const float*, float*, int, int);

bool convertBlockBaseline(const KernelTables& k, BlockPlanes& p, const float* src, float* dst,
                          int n, int channels) {
  return convertPlanar<evaluateCells>(k, p, src, dst, n, channels);
}

__attribute__((target("avx2,fma"))) bool convertBlockAvx2(const KernelTables& k, BlockPlanes& p,
                                                          const float* src, float* dst, int n,
                                                          int channels) {
  return convertPlanar<evaluateCellsAvx2>(k, p, src, dst, n, channels);
}

// The same planes in 512-bit registers; the cells keep their AVX2 loads, 512-bit ones gained
// nothing measurable.
__attribute__((target("avx512f,avx2,fma"))) bool convertBlockAvx512(const KernelTables& k,
                                                                    BlockPlanes& p,
                                                                    const float* src, float* dst,
                                                                    int n, int channels) {
  return convertPlanar<evaluateCellsAvx2>(k, p, src, dst, n, channels);
}

/// Picked once from the CPU, as the target_clones resolvers of the other kernels do.
BlockFn blockKernel() {
  const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  if (avx2 && __builtin_cpu_supports("avx512f")) return convertBlockAvx512;
  if (avx2) return convertBlockAvx2;
  return convertBlockBaseline;
}

struct CurveDeleter {
  void operator()(cmsToneCurve* curve) const { cmsFreeToneCurve(curve); }
};
using CurveHandle = std::unique_ptr<cmsToneCurve, CurveDeleter>;

struct ToneTable {
  Shape shape = Shape::Identity;
  std::vector<double> storage;
  const double* cells = nullptr;  // in storage, on a cache line
  std::vector<float> codes;
  CurveHandle curve;  // lcms's own curve, for the values the tables leave out
};

/// One of lcms's matrix stages: out = float(m * in + offset), accumulated in double.
struct EngineStage {
  std::array<double, 9> m{};
  std::array<double, 3> offset{};
  bool hasOffset = false;  // lcms adds even a zero offset, which turns -0 into +0
};

/// lcms's DefaultEvalParametricFn for the ICC types 1 to 5 and their inverses, in double; false
/// for other types. Tables fitted to it round to what lcms returns, where its float results could
/// only be matched to about one unit in the last place.
bool parametricValue(int type, const double* p, double r, double& value) {
  constexpr double tol = kSingularDeterminant;  // lcms's MATRIX_DET_TOLERANCE again
  double e = 0.0, disc = 0.0;
  switch (type) {
    case 1:
      value = r < 0 ? (std::fabs(p[0] - 1.0) < tol ? r : 0.0) : std::pow(r, p[0]);
      return true;
    case -1:
      if (r < 0)
        value = std::fabs(p[0] - 1.0) < tol ? r : 0.0;
      else
        value = std::fabs(p[0]) < tol ? HUGE_VAL : std::pow(r, 1 / p[0]);
      return true;
    case 2:
      if (std::fabs(p[1]) < tol) {
        value = 0.0;
      } else {
        disc = -p[2] / p[1];
        e = p[1] * r + p[2];
        value = r >= disc && e > 0 ? std::pow(e, p[0]) : 0.0;
      }
      return true;
    case -2:
      if (std::fabs(p[0]) < tol || std::fabs(p[1]) < tol) {
        value = 0.0;
      } else {
        value = r < 0 ? 0.0 : (std::pow(r, 1.0 / p[0]) - p[2]) / p[1];
        if (value < 0) value = 0.0;
      }
      return true;
    case 3:
      if (std::fabs(p[1]) < tol) {
        value = 0.0;
      } else {
        disc = -p[2] / p[1];
        if (disc < 0) disc = 0.0;
        e = p[1] * r + p[2];
        value = r >= disc ? (e > 0 ? std::pow(e, p[0]) + p[3] : 0.0) : p[3];
      }
      return true;
    case -3:
      if (std::fabs(p[1]) < tol) {
        value = 0.0;
      } else if (r >= p[3]) {
        e = r - p[3];
        value = e > 0 ? (std::pow(e, 1 / p[0]) - p[2]) / p[1] : 0.0;
      } else {
        value = -p[2] / p[1];
      }
      return true;
    case 4:
      e = p[1] * r + p[2];
      value = r >= p[4] ? (e > 0 ? std::pow(e, p[0]) : 0.0) : r * p[3];
      return true;
    case -4:
      if (std::fabs(p[0]) < tol || std::fabs(p[1]) < tol || std::fabs(p[3]) < tol) {
        value = 0.0;
      } else {
        e = p[1] * p[4] + p[2];
        disc = e < 0 ? 0.0 : std::pow(e, p[0]);
        value = r >= disc ? (std::pow(r, 1.0 / p[0]) - p[2]) / p[1] : r / p[3];
      }
      return true;
    case 5:
      e = p[1] * r + p[2];
      value = r >= p[4] ? (e > 0 ? std::pow(e, p[0]) + p[5] : p[5]) : r * p[3] + p[6];
      return true;
    case -5:
      if (std::fabs(p[1]) < tol || std::fabs(p[3]) < tol) {
        value = 0.0;
      } else {
        disc = p[3] * p[4] + p[6];
        e = r - p[5];
        if (r >= disc)
          value = e < 0 ? 0.0 : (std::pow(e, 1.0 / p[0]) - p[2]) / p[1];
        else
          value = (r - p[6]) / p[3];
      }
      return true;
    default:
      return false;
  }
}

/// Samples a curve for fitting: lcms's formula in double when it reproduces lcms on a set of
/// probes, else lcms's own float result.
class CurveSampler {
 public:
  explicit CurveSampler(const cmsToneCurve* curve) : curve_(curve) {
    const cmsFloat64Number* p = cmsGetToneCurveParams(curve);
    double unused = 0.0;
    exact_ = p != nullptr && parametricValue(cmsGetToneCurveParametricType(curve), p, 0.0, unused);
    for (int k = 0; exact_ && k <= 256; ++k) {
      const double v = static_cast<double>(k) / 256.0;
      for (float x : {static_cast<float>(v * v * v * 255.0), -static_cast<float>(v * 4.0)})
        exact_ = std::bit_cast<std::uint32_t>(static_cast<float>(operator()(x))) ==
                 std::bit_cast<std::uint32_t>(cmsEvalToneCurveFloat(curve, x));
    }
  }
  bool exact() const { return exact_; }
  double operator()(float x) const {
    if (!exact_) return cmsEvalToneCurveFloat(curve_, x);
    double value = 0.0;
    parametricValue(cmsGetToneCurveParametricType(curve_), cmsGetToneCurveParams(curve_), x, value);
    // lcms's segment evaluation caps infinities at its own 1e22.
    return std::isinf(value) ? static_cast<double>(1e22f) : value;
  }
  double at(std::uint32_t bits) const { return operator()(std::bit_cast<float>(bits)); }

 private:
  const cmsToneCurve* curve_;
  bool exact_ = false;
};

/// The cubic through the curve at t = 0, 1/3, 2/3, 1 of the cell starting at `start`, or the NaN
/// marker when it misses the curve in between (a kink, a jump, an overflow).
void fitCell(const CurveSampler& curve, std::uint32_t start, double* cell) {
  // Nodes and checks sit on exact floats, so t is exact too.
  constexpr std::uint32_t kNodes[4] = {0, 43691, 87381, kCellSpan};
  constexpr std::uint32_t kChecks[6] = {10923, 32768, 54613, 76459, 98304, 120149};
  double t[4], f[4];
  for (int i = 0; i < 4; ++i) {
    t[i] = static_cast<double>(kNodes[i]) / kCellSpan;
    f[i] = curve.at(start + kNodes[i]);
  }
  // Newton's divided differences, expanded to powers of t (t[0] is 0).
  const double d01 = (f[1] - f[0]) / (t[1] - t[0]);
  const double d12 = (f[2] - f[1]) / (t[2] - t[1]);
  const double d23 = (f[3] - f[2]) / (t[3] - t[2]);
  const double d012 = (d12 - d01) / (t[2] - t[0]);
  const double d123 = (d23 - d12) / (t[3] - t[1]);
  const double d0123 = (d123 - d012) / (t[3] - t[0]);
  cell[0] = f[0];
  cell[1] = d01 - d012 * t[1] + d0123 * t[1] * t[2];
  cell[2] = d012 - d0123 * (t[1] + t[2]);
  cell[3] = d0123;

  bool good = std::isfinite(cell[0]) && std::isfinite(cell[1]) && std::isfinite(cell[2]) &&
              std::isfinite(cell[3]);
  double scale = std::max(std::fabs(f[0]), std::fabs(f[3]));
  double worst = 0.0;
  for (std::uint32_t check : kChecks) {
    const double want = curve.at(start + check);
    const double u = static_cast<double>(check) / kCellSpan;
    good = good && std::isfinite(want);
    scale = std::max(scale, std::fabs(want));
    worst =
        std::max(worst, std::fabs(cell[0] + u * (cell[1] + u * (cell[2] + u * cell[3])) - want));
  }
  // Smooth curves fit to about 1e-10; float samples carry rounding the fit spreads a little.
  const double tolerance = curve.exact() ? 1e-9 : 4e-7;
  if (!good || worst > tolerance * scale) {
    cell[0] = static_cast<double>(kNaN);
    cell[1] = cell[2] = cell[3] = 0.0;
  }
}

void buildCells(ToneTable& table) {
  const CurveSampler curve(table.curve.get());
  const std::size_t count = static_cast<std::size_t>(2 * kCellsPerSign * 4);
  table.storage.assign(count + 8, 0.0);
  const std::size_t skip =
      (64 - reinterpret_cast<std::uintptr_t>(table.storage.data()) % 64) % 64 / sizeof(double);
  double* cells = table.storage.data() + skip;
  table.cells = cells;
  for (std::uint32_t sign = 0; sign < 2; ++sign) {
    double* half = cells + sign * kCellsPerSign * 4;
    const std::uint32_t signBit = sign << 31;
    const double zero = curve.at(signBit);
    half[0] = std::isfinite(zero) ? zero : static_cast<double>(kNaN);
    half[4 * kTinyCell] = static_cast<double>(kNaN);
    half[4 * kOutsideCell] = static_cast<double>(kNaN);
    for (std::int32_t k = 0; k < kRegularCells; ++k) {
      const std::uint32_t start =
          signBit | static_cast<std::uint32_t>(kLowBits + (k << kCellShift));
      fitCell(curve, start, half + 4 * (kFirstRegularCell + k));
    }
  }
}

void buildCodes(ToneTable& table) {
  table.codes.resize(kCodes);
  for (int code = 0; code < kCodes; ++code)
    table.codes[static_cast<std::size_t>(code)] = static_cast<float>(
        cmsEvalToneCurve16(table.curve.get(), static_cast<cmsUInt16Number>(code)) / 65535.0);
}

bool isParametric(const cmsToneCurve* curve) {
  return cmsGetToneCurveParams(curve) != nullptr && cmsGetToneCurveParametricType(curve) != 0;
}

/// Only a 16-bit table (no float segments) makes lcms quantise its input.
bool isTabulated(const cmsToneCurve* curve) {
  return cmsGetToneCurveParams(curve) == nullptr && !cmsIsToneCurveMultisegment(curve);
}

bool isIdentity(const cmsToneCurve* curve) {
  const cmsFloat64Number* p = cmsGetToneCurveParams(curve);
  const int type = cmsGetToneCurveParametricType(curve);
  if (p == nullptr || (type != 1 && type != -1) || p[0] != 1.0) return false;
  for (float probe : {0.0f, 1e-30f, 6e-8f, 1e-4f, 0.2f, 0.5f, 1.0f, 3.3f, 17.0f, 255.9f}) {
    for (float x : {probe, -probe})
      if (std::bit_cast<std::uint32_t>(cmsEvalToneCurveFloat(curve, x)) !=
          std::bit_cast<std::uint32_t>(x))
        return false;
  }
  return true;
}

bool sameCurve(const cmsToneCurve* a, const cmsToneCurve* b) {
  if (a == b) return true;
  const cmsFloat64Number* pa = cmsGetToneCurveParams(a);
  const cmsFloat64Number* pb = cmsGetToneCurveParams(b);
  if (pa != nullptr || pb != nullptr) {
    return pa != nullptr && pb != nullptr && isParametric(a) &&
           cmsGetToneCurveParametricType(a) == cmsGetToneCurveParametricType(b) &&
           std::equal(pa, pa + 10, pb);
  }
  if (!isTabulated(a) || !isTabulated(b)) return false;
  const cmsUInt32Number entries = cmsGetToneCurveEstimatedTableEntries(a);
  return entries == cmsGetToneCurveEstimatedTableEntries(b) &&
         std::memcmp(cmsGetToneCurveEstimatedTable(a), cmsGetToneCurveEstimatedTable(b),
                     entries * sizeof(cmsUInt16Number)) == 0;
}

// lcms's matrix helpers, repeated operation for operation so its identity test sees equal numbers.
std::array<double, 9> multiply(const std::array<double, 9>& a, const std::array<double, 9>& b) {
  std::array<double, 9> r{};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      r[i * 3 + j] =
          a[i * 3 + 0] * b[0 * 3 + j] + a[i * 3 + 1] * b[1 * 3 + j] + a[i * 3 + 2] * b[2 * 3 + j];
  return r;
}

bool invert(const std::array<double, 9>& a, std::array<double, 9>& b) {
  const double c0 = a[4] * a[8] - a[5] * a[7];
  const double c1 = -a[3] * a[8] + a[5] * a[6];
  const double c2 = a[3] * a[7] - a[4] * a[6];
  const double det = a[0] * c0 + a[1] * c1 + a[2] * c2;
  if (std::fabs(det) < kSingularDeterminant) return false;
  b = {c0 / det, (a[2] * a[7] - a[1] * a[8]) / det, (a[1] * a[5] - a[2] * a[4]) / det,
       c1 / det, (a[0] * a[8] - a[2] * a[6]) / det, (a[2] * a[3] - a[0] * a[5]) / det,
       c2 / det, (a[1] * a[6] - a[0] * a[7]) / det, (a[0] * a[4] - a[1] * a[3]) / det};
  return true;
}

bool isNearIdentity(const std::array<double, 9>& m) {
  for (int i = 0; i < 9; ++i)
    if (!(std::fabs(m[i] - (i % 4 == 0 ? 1.0 : 0.0)) < static_cast<double>(0.00001f))) return false;
  return true;
}

bool readColorants(cmsHPROFILE profile, std::array<double, 9>& m) {
  const auto* r = static_cast<const cmsCIEXYZ*>(cmsReadTag(profile, cmsSigRedColorantTag));
  const auto* g = static_cast<const cmsCIEXYZ*>(cmsReadTag(profile, cmsSigGreenColorantTag));
  const auto* b = static_cast<const cmsCIEXYZ*>(cmsReadTag(profile, cmsSigBlueColorantTag));
  if (r == nullptr || g == nullptr || b == nullptr) return false;
  m = {r->X, g->X, b->X, r->Y, g->Y, b->Y, r->Z, g->Z, b->Z};
  return true;
}

/// True when lcms would build this end of a perceptual transform from colorants and curves.
bool usesMatrixShaper(cmsHPROFILE profile, bool input) {
  const cmsProfileClassSignature type = cmsGetDeviceClass(profile);
  if (type == cmsSigLinkClass || type == cmsSigAbstractClass || type == cmsSigNamedColorClass)
    return false;
  if (cmsGetColorSpace(profile) != cmsSigRgbData || cmsGetPCS(profile) != cmsSigXYZData)
    return false;
  // A perceptual LUT, float or 16-bit, takes precedence over the matrix and curves.
  const cmsTagSignature lutFloat = input ? cmsSigDToB0Tag : cmsSigBToD0Tag;
  const cmsTagSignature lut16 = input ? cmsSigAToB0Tag : cmsSigBToA0Tag;
  if (cmsIsTag(profile, lutFloat) || cmsIsTag(profile, lut16)) return false;
  return cmsIsMatrixShaper(profile);
}

}  // namespace

class MatrixShaperTransform {
 public:
  std::vector<std::unique_ptr<ToneTable>> tables;
  std::array<const ToneTable*, 3> in{};
  std::array<const ToneTable*, 3> out{};
  KernelTables kernel;
  // lcms's matrix stages as it runs them: none when the colorants cancel out, one joined matrix,
  // or three when black point compensation sits between them.
  std::vector<EngineStage> stages;
};

namespace {

/// A table for `curve`, or the one already built for an equal curve.
const ToneTable* tableFor(MatrixShaperTransform& t, CurveHandle curve) {
  for (const auto& existing : t.tables)
    if (sameCurve(existing->curve.get(), curve.get())) return existing.get();
  auto table = std::make_unique<ToneTable>();
  table->curve = std::move(curve);
  if (isIdentity(table->curve.get())) {
    table->shape = Shape::Identity;
  } else if (isTabulated(table->curve.get())) {
    table->shape = Shape::Codes;
    buildCodes(*table);
  } else {
    table->shape = Shape::Cells;
    buildCells(*table);
  }
  t.tables.push_back(std::move(table));
  return t.tables.back().get();
}

/// Curves lcms can evaluate from several threads at once: analytic or a plain 16-bit table.
bool isSupportedCurve(const cmsToneCurve* curve) {
  return curve != nullptr && (isParametric(curve) || isTabulated(curve));
}

/// lcms's black point compensation layer for perceptual intent; false when it adds none.
bool blackPointLayer(cmsHPROFILE in, cmsHPROFILE out, EngineStage& layer) {
  // lcms forces compensation for version 4 destinations at perceptual intent.
  if (cmsGetEncodedICCversion(out) < 0x4000000) return false;
  cmsCIEXYZ black{}, blackOut{};
  cmsDetectBlackPoint(&black, in, INTENT_PERCEPTUAL, 0);
  cmsDetectDestinationBlackPoint(&blackOut, out, INTENT_PERCEPTUAL, 0);
  if (black.X == blackOut.X && black.Y == blackOut.Y && black.Z == blackOut.Z) return false;
  const cmsCIEXYZ* white = cmsD50_XYZ();
  const double tx = black.X - white->X, ty = black.Y - white->Y, tz = black.Z - white->Z;
  layer.m = {(blackOut.X - white->X) / tx, 0, 0, 0, (blackOut.Y - white->Y) / ty, 0, 0, 0,
             (blackOut.Z - white->Z) / tz};
  layer.hasOffset = true;
  layer.offset = {-white->X * (blackOut.X - black.X) / tx, -white->Y * (blackOut.Y - black.Y) / ty,
                  -white->Z * (blackOut.Z - black.Z) / tz};
  double change = 0.0;
  for (int i = 0; i < 9; ++i) change += std::fabs(layer.m[i] - (i % 4 == 0 ? 1.0 : 0.0));
  for (double& v : layer.offset) {
    v /= kMaxEncodableXyz;
    change += std::fabs(v);
  }
  return !(change < 0.002);  // lcms drops a layer this close to identity
}

std::shared_ptr<MatrixShaperTransform> buildTransform(const Blob& sourceIcc,
                                                      const Blob& targetIcc) {
  const ProfileHandle in = openProfile(sourceIcc);
  const ProfileHandle out = openProfile(targetIcc);
  if (!in || !out || !usesMatrixShaper(in.get(), true) || !usesMatrixShaper(out.get(), false))
    return {};
  std::array<double, 9> toXyz{}, fromXyz{}, outColorants{};
  if (!readColorants(in.get(), toXyz) || !readColorants(out.get(), outColorants) ||
      !invert(outColorants, fromXyz))
    return {};
  for (double& v : toXyz) v *= 1.0 / kMaxEncodableXyz;  // as lcms scales them
  for (double& v : fromXyz) v *= kMaxEncodableXyz;

  const cmsTagSignature trcs[3] = {cmsSigRedTRCTag, cmsSigGreenTRCTag, cmsSigBlueTRCTag};
  std::array<const cmsToneCurve*, 3> inCurves{}, outCurves{};
  for (int c = 0; c < 3; ++c) {
    inCurves[c] = static_cast<const cmsToneCurve*>(cmsReadTag(in.get(), trcs[c]));
    outCurves[c] = static_cast<const cmsToneCurve*>(cmsReadTag(out.get(), trcs[c]));
    if (!isSupportedCurve(inCurves[c]) || !isSupportedCurve(outCurves[c])) return {};
  }

  auto t = std::make_shared<MatrixShaperTransform>();
  for (int c = 0; c < 3; ++c) {
    CurveHandle forward(cmsDupToneCurve(inCurves[c]));
    if (!forward) return {};
    t->in[c] = tableFor(*t, std::move(forward));
    // Reversing the same curve gives the same table, so equal destination curves share one.
    const ToneTable* shared = nullptr;
    for (int k = 0; k < c; ++k)
      if (sameCurve(outCurves[k], outCurves[c])) shared = t->out[k];
    if (shared == nullptr) {
      CurveHandle reverse(cmsReverseToneCurve(outCurves[c]));
      if (!reverse || !isSupportedCurve(reverse.get())) return {};
      shared = tableFor(*t, std::move(reverse));
    }
    t->out[c] = shared;
  }
  EngineStage layer;
  if (blackPointLayer(in.get(), out.get(), layer)) {
    EngineStage first, last;
    first.m = toXyz;
    last.m = fromXyz;
    t->stages = {first, layer, last};
  } else {
    EngineStage joined;
    joined.m = multiply(fromXyz, toXyz);
    if (!isNearIdentity(joined.m)) t->stages = {joined};
  }
  // The kernel runs the stages as one affine map.
  std::array<double, 9> m = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  std::array<double, 3> offset{};
  for (const EngineStage& stage : t->stages) {
    std::array<double, 3> shifted{};
    for (int i = 0; i < 3; ++i)
      shifted[i] = stage.m[i * 3] * offset[0] + stage.m[i * 3 + 1] * offset[1] +
                   stage.m[i * 3 + 2] * offset[2] + stage.offset[i];
    m = multiply(stage.m, m);
    offset = shifted;
  }
  t->kernel.matrix = m;
  t->kernel.offset = offset;
  for (int c = 0; c < 3; ++c) {
    t->kernel.in.shape[c] = t->in[c]->shape;
    t->kernel.in.cells[c] = t->in[c]->cells;
    t->kernel.in.codes[c] = t->in[c]->codes.data();
    t->kernel.out.shape[c] = t->out[c]->shape;
    t->kernel.out.cells[c] = t->out[c]->cells;
    t->kernel.out.codes[c] = t->out[c]->codes.data();
  }
  return t;
}

float exactCurve(const ToneTable& table, float x) {
  float y = kNaN;
  switch (table.shape) {
    case Shape::Identity:
      y = lookupIdentity(x);
      break;
    case Shape::Cells:
      y = lookupCells(table.cells, x);
      break;
    case Shape::Codes:
      y = lookupCodes(table.codes.data(), x);
      break;
  }
  return y == y ? y : cmsEvalToneCurveFloat(table.curve.get(), x);
}

/// One pixel the way lcms computes it, tables standing in where they are exact enough.
void convertPixelExactly(const MatrixShaperTransform& t, const float* p, float* q) {
  float v[3] = {exactCurve(*t.in[0], p[0]), exactCurve(*t.in[1], p[1]), exactCurve(*t.in[2], p[2])};
  for (const EngineStage& stage : t.stages) {
    float next[3];
    for (int i = 0; i < 3; ++i) {
      double sum = 0.0;
      for (int j = 0; j < 3; ++j) sum += v[j] * stage.m[i * 3 + j];
      if (stage.hasOffset) sum += stage.offset[i];
      next[i] = static_cast<float>(sum);
    }
    std::copy(next, next + 3, v);
  }
  for (int c = 0; c < 3; ++c) q[c] = exactCurve(*t.out[c], v[c]);
}

struct CacheEntry {
  std::shared_ptr<ColorProfile> source, target;
  std::shared_ptr<const MatrixShaperTransform> transform;
};

bool sameBytes(const ColorProfile& a, const ColorProfile& b) {
  const Blob &x = a.iccProfile(), &y = b.iccProfile();
  return &a == &b || (x.size() == y.size() && std::memcmp(x.data(), y.data(), x.size()) == 0);
}

}  // namespace

std::shared_ptr<const MatrixShaperTransform> findMatrixShaperTransform(
    const std::shared_ptr<ColorProfile>& source, const std::shared_ptr<ColorProfile>& target) {
  // Decision: the last 8 profile pairs are kept (tables up to about 1.5 MB each), most recent
  // first; pairs that need lcms are remembered too.
  constexpr std::size_t kCachedPairs = 8;
  static std::mutex mutex;
  static std::vector<CacheEntry> cache;
  if (!source || !target) return {};
  const auto find = [&]() -> std::vector<CacheEntry>::iterator {
    return std::find_if(cache.begin(), cache.end(), [&](const CacheEntry& e) {
      return sameBytes(*e.source, *source) && sameBytes(*e.target, *target);
    });
  };
  {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto hit = find();
    if (hit != cache.end()) {
      std::rotate(cache.begin(), hit, hit + 1);
      return cache.front().transform;
    }
  }
  // Built outside the lock: tables take milliseconds and other pairs should not wait for them.
  std::shared_ptr<const MatrixShaperTransform> built;
  try {
    built = buildTransform(source->iccProfile(), target->iccProfile());
  } catch (const std::bad_alloc&) {
    // Decision: without memory for the tables this call takes lcms's path; nothing is cached.
    return {};
  }
  takeColorEngineError();  // black point detection may have left a message nobody asked for
  const std::lock_guard<std::mutex> lock(mutex);
  const auto raced = find();
  if (raced != cache.end()) return raced->transform;
  cache.insert(cache.begin(), CacheEntry{source, target, built});
  if (cache.size() > kCachedPairs) cache.pop_back();
  return built;
}

void runMatrixShaperTransform(const MatrixShaperTransform& transform, const float* src, float* dst,
                              std::size_t pixels, int channels) {
  static const BlockFn convertBlock = blockKernel();
  BlockPlanes planes;
  const std::size_t stride = static_cast<std::size_t>(channels);
  for (std::size_t first = 0; first < pixels; first += kBlock) {
    const int n = static_cast<int>(std::min<std::size_t>(kBlock, pixels - first));
    float* to = dst + first * stride;
    if (!convertBlock(transform.kernel, planes, src + first * stride, to, n, channels)) continue;
    for (int i = 0; i < n; ++i) {
      float* q = to + i * channels;
      if (q[0] == q[0] && q[1] == q[1] && q[2] == q[2]) continue;
      const float p[3] = {planes.in[0][i], planes.in[1][i], planes.in[2][i]};
      convertPixelExactly(transform, p, q);
    }
  }
}

}  // namespace vorn::detail
