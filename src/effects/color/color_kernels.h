#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <memory>

#include "core/dispatch.h"
#include "effects/kernels/color_space.h"
#include "effects/kernels/mix.h"
#include "effects/kernels/sampled_curve.h"
#include "effects/render.h"

// The row kernels the point-wise colour effects are made of: every one decodes to linear light
// (or to Oklab) with the shared tables, changes the colour and encodes again.
namespace vorn::detail {

/// adjust(r[i], g[i], b[i], i) for every i below count, cloned for the wider vector units
/// (with the fused multiply-adds the closures use in hardware).
template <typename Adjust>
VORN_FMA_DISPATCH void adjustPlanes(const Adjust& adjust, float* __restrict r, float* __restrict g,
                                    float* __restrict b, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) adjust(r[i], g[i], b[i], i);
}

/// What the passes leave in the planes, for forPlaneBlocks to write: the pixels' values, the same
/// clipped at black, or a neutral grey's value in plane r alone (encoded once, clipped at black).
enum class PlaneResult { Values, ClippedValues, GreyInR };

/// passes(r, g, b, n, first) on the planes of count pixels in blocks of n that stay in L1, first
/// the block's index counted from in: linear light when Linear, else the values as they are.
/// in may be out.
template <bool Linear, PlaneResult Result = PlaneResult::Values, typename Passes>
void forPlaneBlocks(const Passes& passes, const PixelRGB<float>* in, PixelRGB<float>* out,
                    std::size_t count) {
  static_assert(Linear || Result == PlaneResult::Values);
  constexpr std::size_t kBlock = 512;
  alignas(64) float r[kBlock];
  alignas(64) float g[kBlock];
  alignas(64) float b[kBlock];
  for (std::size_t done = 0; done < count; done += kBlock) {
    const std::size_t n = count - done < kBlock ? count - done : kBlock;
    if constexpr (Linear) {
      decodeToPlanes(&in[done].r, r, g, b, n);
    } else {
      splitToPlanes(&in[done].r, r, g, b, n);
    }
    passes(r, g, b, n, done);
    if constexpr (Result == PlaneResult::GreyInR) {
      encodeGreyFromPlane(r, &out[done].r, n);
    } else if constexpr (Linear) {
      encodeFromPlanes(r, g, b, &out[done].r, n, Result == PlaneResult::ClippedValues);
    } else {
      joinPlanes(r, g, b, &out[done].r, n);
    }
  }
}

/// adjust(r, g, b, i) on the values of count pixels, i counted from in (see forPlaneBlocks).
template <bool Linear, typename Adjust>
void adjustPixels(const Adjust& adjust, const PixelRGB<float>* in, PixelRGB<float>* out,
                  std::size_t count) {
  forPlaneBlocks<Linear>(
      [&adjust](float* r, float* g, float* b, std::size_t n, std::size_t done) {
        // Forced inline: each vector clone calls it, and GCC may leave a large one out of line.
        const auto shifted = [&adjust, done ](float& red, float& green, float& blue, std::size_t i)
            __attribute__((always_inline)) {
          adjust(red, green, blue, done + i);
        };
        adjustPlanes(shifted, r, g, b, n);
      },
      in, out, count);
}

/// adjust(r, g, b, i) on the linear-light values of count pixels (see adjustPixels).
template <typename Adjust>
void adjustLinear(const Adjust& adjust, const PixelRGB<float>* in, PixelRGB<float>* out,
                  std::size_t count) {
  adjustPixels<true>(adjust, in, out, count);
}

// Kernels that end in the sRGB encoding write finite values only (see SrgbEncode), so the render
// needs no pass to clean their rows.

/// adjust(r, g, b) on the linear-light values of every pixel.
template <typename Adjust>
std::unique_ptr<RowKernel> linearKernel(Adjust adjust) {
  return finiteRowKernel(
      [adjust](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
        adjustLinear([&adjust](float& r, float& g, float& b, std::size_t) { adjust(r, g, b); }, in,
                     out, count);
      });
}

/// adjust(r, g, b) on the encoded values of every pixel, vectorised like linearKernel.
template <typename Adjust>
std::unique_ptr<RowKernel> encodedKernel(Adjust adjust) {
  return rowKernel([adjust](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
    adjustPixels<false>([&adjust](float& r, float& g, float& b, std::size_t) { adjust(r, g, b); },
                        in, out, count);
  });
}

/// A 3 x 3 matrix on linear light (white balance, channel mixing).
std::unique_ptr<RowKernel> linearMatrixKernel(const Matrix3& matrix);

/// The planes' linear light taken through the matrix `toLms` to the cube roots of cone responses.
inline void toLmsRoots(const Matrix3& toLms, float* r, float* g, float* b, std::size_t n) {
  // Every closure forced inline: a call left in the pixel loop keeps it from vectorising.
  adjustPlanes(
      [&toLms](float& x, float& y, float& z, std::size_t) __attribute__((always_inline)) {
        const LmsRoot roots = lmsRootsOf(toLms, x, y, z);
        x = roots.l;
        y = roots.m;
        z = roots.s;
      },
      r, g, b, n);
}

/// adjust(LmsRoot&) on every pixel, after `linear` has been applied to its linear light. Its
/// three steps run as three loops over the block: one loop with all of them in each pixel is a
/// dependency chain too long for the CPU to overlap pixels, and runs slower.
template <typename Adjust>
std::unique_ptr<RowKernel> lmsRootKernel(const Matrix3& linear, Adjust adjust) {
  return finiteRowKernel([adjust, toLms = kLinearSrgbToLms * linear](
                             const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
    forPlaneBlocks<true, PlaneResult::ClippedValues>(
        [&](float* r, float* g, float* b, std::size_t n, std::size_t) {
          toLmsRoots(toLms, r, g, b, n);
          adjustPlanes(
              [&adjust](float& l, float& m, float& s, std::size_t) __attribute__((always_inline)) {
                LmsRoot roots{l, m, s};
                adjust(roots);
                l = roots.l;
                m = roots.m;
                s = roots.s;
              },
              r, g, b, n);
          // Colours pushed outside the gamut are clipped at black by the encoding.
          adjustPlanes(
              [](float& l, float& m, float& s, std::size_t) __attribute__((always_inline)) {
                const LmsRoot roots{l, m, s};
                roots.toLinear(l, m, s);
              },
              r, g, b, n);
        },
        in, out, count);
  });
}

template <typename Adjust>
std::unique_ptr<RowKernel> lmsRootKernel(Adjust adjust) {
  return lmsRootKernel(Matrix3{}, adjust);
}

/// A fixed linear map of Oklab on every pixel, folded per call into one matrix on its roots.
std::unique_ptr<RowKernel> oklabMatrixKernel(const Matrix3& onOklab);

/// Oklab chroma of (a, b), with a fused multiply-add like LmsRoot's conversions.
inline float chroma(const Oklab& lab) {
  return std::sqrt(std::fma(lab.a, lab.a, lab.b * lab.b));
}

/// A per-value curve on [0, 1] for one channel, continued above 1 along its end slope.
class ChannelCurve {
 public:
  template <typename Function>
  explicit ChannelCurve(Function f)
      : curve_(0.0f, 1.0f, kSteps, f),
        atOne_(f(1.0f)),
        slope_((f(1.0f) - f(1.0f - 1.0f / static_cast<float>(kSteps))) *
               static_cast<float>(kSteps)) {}
  /// The curve's numbers by value for pixel loops (see SampledCurve::Table).
  struct Table {
    SampledCurve::Table curve;
    float atOne;
    float slope;
    float operator()(float x) const {
      // Both sides computed, so the table read is not under a branch.
      const float inside = curve.at(x);
      return x > 1.0f ? atOne + (x - 1.0f) * slope : inside;
    }
  };
  /// Valid while the curve lives.
  Table table() const { return {curve_.table(), atOne_, slope_}; }
  float operator()(float x) const { return table()(x); }

 private:
  static constexpr std::size_t kSteps = 1024;
  SampledCurve curve_;
  float atOne_;
  float slope_;
};

/// Per-channel transmission of a coloured glass of the wheel hue `degrees` at `density` (0 is
/// clear glass, 1 passes only the hue's own colour), for linear light.
std::array<float, 3> glassTransmission(float degrees, float density);

/// A white point shifted from D65 by `miredShift` along the daylight locus (positive is
/// warmer light) and by `duv` across it (positive is greener), as CIE xy.
std::array<float, 2> shiftedWhite(float miredShift, float duv);
/// The same from `base` (CIE xy near the daylight locus at baseKelvin), at most maxMired.
std::array<float, 2> shiftedWhite(std::array<double, 2> base, double baseKelvin, float miredShift,
                                  float duv, double maxMired);

/// The Bradford chromatic adaptation, in linear sRGB, from a scene lit by `white` (CIE xy) to
/// D65: a picture taken under that light then looks as if lit by daylight.
Matrix3 adaptationToD65(std::array<float, 2> white);
/// The Bradford adaptation from `white` to `target` (CIE xy) in the linear RGB whose matrix to
/// XYZ is toXyz.
Matrix3 bradfordAdaptation(const Matrix3& toXyz, std::array<float, 2> white,
                           std::array<float, 2> target);

/// The cubic smooth step from edge0 to edge1 (edge0 < edge1), its scale folded once per call.
struct FusedStep {
  FusedStep(float edge0, float edge1)
      : scale(1.0f / (edge1 - edge0)),
        offset(-edge0 * (1.0f / (edge1 - edge0))),
        start(edge0),
        width(edge1 - edge0) {}
  float operator()(float x) const {
    const float t = at(x);
    return t * t * threeLessTwice(t);
  }
  /// 1 minus the step, in one fused multiply-add more rather than a subtraction after it.
  float falling(float x) const {
    const float t = at(x);
    return std::fma(t * t, -threeLessTwice(t), 1.0f);
  }
  /// base + k times the step. x is clamped to the edges before any scaling, and k with the
  /// scale's powers folds into the cubic's factors: one multiply-add fewer than the step alone.
  float scaledFrom(float base, float k, float x) const {
    const float u = clampBits(x - start, width);
    const float squareScale = scale * scale;
    return std::fma(u * u, std::fma(-2.0f * k * squareScale * scale, u, 3.0f * k * squareScale),
                    base);
  }
  float at(float x) const { return unitClampBits(std::fma(x, scale, offset)); }
  float scale;
  float offset;
  float start;
  float width;
};

/// The weights of shadows and highlights over Oklab lightness; `balance` in [-1, 1] moves their
/// border up (more shadows) or down. Black and white themselves get no tint.
struct ToneRanges {
  explicit ToneRanges(float balance)
      : highRise(pivot(balance) - 0.2f, pivot(balance) + 0.25f),
        shadowFall(pivot(balance) - 0.25f, pivot(balance) + 0.2f) {}
  float highlights(float L) const { return highRise(L) * whiteFall.falling(L); }
  float shadows(float L) const { return blackRise(L) * shadowFall.falling(L); }
  FusedStep highRise;
  FusedStep whiteFall{0.97f, 1.0f};
  FusedStep blackRise{0.02f, 0.2f};
  FusedStep shadowFall;

 private:
  static float pivot(float balance) { return 0.55f + 0.25f * balance; }
};

}  // namespace vorn::detail
