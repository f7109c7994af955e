#pragma once

#include <array>
#include <cstddef>
#include <memory>

#include "core/parallel.h"
#include "vorn/core/pixel.h"

namespace vorn::detail {

inline constexpr std::size_t kToneCurveSize = 16384;
/// N of the lookup: the table size minus 2; the last entry repeats the one before.
inline constexpr std::size_t kToneCurveLast = kToneCurveSize - 2;

/// A per-value curve tabulated on [0, 1]; above `threshold` it continues as a straight line.
struct ToneCurveTable {
  std::array<float, kToneCurveSize> values;
  float threshold = 0.85f;
  float valueAtThreshold = 0.0f;
  float valueAtOne = 0.0f;
};

/// L(x): the line above the threshold, else linear interpolation between table entries with x
/// limited below at 0 (NaN reads as 0). A threshold of 1 continues along the end tangent.
float lookupToneCurve(const ToneCurveTable& table, float x);
/// The interpolating branch of L alone, x limited to [0, 1].
float interpolateToneCurve(const ToneCurveTable& table, float x);

/// Entry n = curve(n * s), s = 1 / 16382 in single precision, n = 0 ... 16382 in parallel; the
/// last entry copies the one before; then the threshold and its two line points are set.
template <typename Curve>
void fillToneCurve(ToneCurveTable& table, const Curve& curve, float threshold) {
  const float step = 1.0f / static_cast<float>(kToneCurveLast);
  parallelChunks(kToneCurveLast + 1, 2048, [&](std::size_t first, std::size_t end) {
    for (std::size_t n = first; n < end; ++n) table.values[n] = curve(static_cast<float>(n) * step);
  });
  table.values[kToneCurveLast + 1] = table.values[kToneCurveLast];
  table.threshold = threshold;
  table.valueAtThreshold = interpolateToneCurve(table, threshold);
  table.valueAtOne = interpolateToneCurve(table, 1.0f);
}

/// The table as the pixel kernels read it: each entry beside its successor, so that one
/// 64-bit gather fetches both ends of a segment, and the continuation as a slope.
struct ToneCurveLookup {
  explicit ToneCurveLookup(const ToneCurveTable& table);

  alignas(64) std::array<float, 2 * (kToneCurveLast + 1)> pairs;
  float threshold;
  float valueAtThreshold;
  float slope;
};

/// out[i] = L(in[i]) for count values; in may equal out. Vectorised for the running CPU. The
/// output is always finite: NaN reads the table at 0 and the line ends at the largest float.
void applyToneCurve(const ToneCurveLookup& lookup, const float* in, float* out, std::size_t count);

/// The instruction sets the lookup kernel is written for.
enum class ToneCurveIsa { Scalar, Avx2, Avx512 };
/// applyToneCurve with the given kernel; false when the running CPU lacks its instructions.
bool applyToneCurveWith(ToneCurveIsa isa, const ToneCurveLookup& lookup, const float* in,
                        float* out, std::size_t count);

/// Builds the table and the kernel layout for one call (about 200 KB, so on the heap).
template <typename Curve>
std::unique_ptr<ToneCurveLookup> makeToneCurve(const Curve& curve, float threshold) {
  auto table = std::make_unique<ToneCurveTable>();
  fillToneCurve(*table, curve, threshold);
  return std::make_unique<ToneCurveLookup>(*table);
}

/// Where a keyed gain evaluates its curve: on luminance itself, or on b / (1 + b) so that the
/// curve spans all scene light and over-range highlights are shaped rather than extended.
enum class GainDomain { Display, Hdr };

/// Every pixel times T(key) / key, key being keys[i] (one float per pixel) or, without keys,
/// the pixel's own luminance. Keeps hue and saturation; in may equal out. The output is always
/// finite (see makeFinite).
void applyKeyedGain(const ToneCurveLookup& curve, GainDomain domain, const PixelRGB<float>* in,
                    const float* keys, PixelRGB<float>* out, std::size_t count);

/// The last step of applyKeyedGain with the given kernel: out = pixels * gains[pixel], made
/// finite; false when the running CPU lacks the kernel's instructions.
bool applyGainsWith(ToneCurveIsa isa, const float* pixels, const float* gains, float* out,
                    std::size_t count);

/// Luminance keys are limited to this range before the gain; 0 and Inf would make it 0 / 0.
inline constexpr float kMinKey = 1.0f / static_cast<float>(kToneCurveLast);
inline constexpr float kMaxKey = 1.0e6f;

}  // namespace vorn::detail
