// Texture overlay: a procedural canvas-and-paper texture placed on the frame and blended with the
// overlay mix, so it lightens and darkens the picture around mid-grey without changing its key.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "effects/creative/slider.h"
#include "effects/kernels/cloned_loop.h"
#include "effects/kernels/frame_geometry.h"
#include "effects/kernels/mix.h"
#include "effects/kernels/value_noise.h"
#include "vorn/effects/creative_effects.h"

namespace vorn {

namespace {

using detail::fraction;

/// The texture repeats every this many threads; it is tabulated once per call at this many texels
/// per thread and read bilinearly.
constexpr int kTileThreads = 10;
constexpr int kTexelsPerThread = 24;
constexpr int kTileTexels = kTileThreads * kTexelsPerThread;

/// The canvas thread spacing in reference pixels at Scale 100.
constexpr float kThreadSpacing = 9.0f;
constexpr std::uint32_t kPaperSeed = 0x5eedu;

/// Overlay of blend b over base a: multiply below mid-grey, screen above.
inline float overlay(float a, float b) {
  // Clamped by selects (std::clamp's reference returns branch), so the blend loop vectorises.
  float u = a < 0.0f ? 0.0f : a;
  u = u > 1.0f ? 1.0f : u;
  const float blended = u < 0.5f ? 2.0f * u * b : 1.0f - 2.0f * (1.0f - u) * (1.0f - b);
  return a + (blended - u);
}

/// t reduced to [0, kTileTexels): std::floor is a library call on the baseline instruction set,
/// and this truncation gives the same value for every finite t the texture reaches.
inline double wrapped(double t) {
  const double q = t * (1.0 / kTileTexels);
  const auto whole = static_cast<std::int64_t>(q);
  return t - kTileTexels * static_cast<double>(whole - (q < static_cast<double>(whole) ? 1 : 0));
}

/// The sum of two coordinates already in [0, kTileTexels), reduced to it again by one select.
/// Floats keep a texel to 2^-16 here, and the pixel loop runs twice as many of them as doubles.
inline float wrappedSum(float a, float b) {
  const float t = a + b;
  return t >= kTileTexels ? t - kTileTexels : t;
}

/// The amplitude left of a wave of the given period (pixels) averaged over one pixel, sin(pi f) /
/// (pi f) with f = 1 / period, and none past its first zero: each render draws the texture as its
/// own pixels would see it, so a preview matches the export shrunk.
inline float pixelAverage(double period) {
  constexpr double kPi = 3.14159265358979;
  const double f = 1.0 / period;
  return f >= 1.0 ? 0.0f : static_cast<float>(std::sin(kPi * f) / (kPi * f));
}

/// The texture at (u, v) in thread units, around 0.5: a woven canvas (crossing threads,
/// alternately over and under, written as its four waves) with paper fibres of two octaves of
/// value noise.
struct Canvas {
  explicit Canvas(double spacing)
      : diagonal(0.045f * pixelAverage(spacing / std::sqrt(2.0))),
        half(0.0225f * pixelAverage(0.5 * spacing)),
        coarse(0.072f * pixelAverage(spacing / kCoarse)),
        fine(0.048f * pixelAverage(spacing / kFine)) {}
  float at(double u, double v) const {
    constexpr double kTwoPi = 2.0 * 3.14159265358979;
    const auto wave = [](double t) { return static_cast<float>(std::cos(kTwoPi * t)); };
    return 0.5f + diagonal * (wave(u - v) - wave(u + v)) + half * (wave(2.0 * v) - wave(2.0 * u)) +
           coarse * detail::tiledValueNoise(u * kCoarse, v * kCoarse, kCoarseCells, kPaperSeed) +
           fine * detail::tiledValueNoise(u * kFine, v * kFine, kFineCells, kPaperSeed + 1u);
  }
  // The texture repeats every kTileThreads threads: both noise lattices fit it exactly.
  static constexpr double kCoarse = 0.7;
  static constexpr double kFine = 2.3;
  static constexpr std::int64_t kCoarseCells = 7;
  static constexpr std::int64_t kFineCells = 23;
  float diagonal;
  float half;
  float coarse;
  float fine;
};

}  // namespace

int TextureOverlayEffect::reach(float) const {
  return 0;
}

bool TextureOverlayEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// Texture overlay: the canvas texture sampled in rotated, scaled frame coordinates and overlaid.
void TextureOverlayEffect::render(const Window& window) const {
  const float opacity = fraction(*this, 0);
  const float scale = mappedValue(1, 0.1f, 2.05f, 4.0f);
  const float radians = mappedValue(2, 0.0f, 180.0f, 360.0f) * 3.14159265f / 180.0f;
  const double spacing = kThreadSpacing * scale * window.spatialScale;
  const Canvas canvas(spacing);
  // One texel more each way, repeating the first column and row, so a bilinear read never wraps.
  constexpr int kStride = kTileTexels + 1;
  std::vector<float> tile(static_cast<std::size_t>(kStride) * kStride);
  detail::parallelRows(kStride, [&](int first, int end) {
    for (int ty = first; ty < end; ++ty) {
      for (int tx = 0; tx < kStride; ++tx) {
        tile[static_cast<std::size_t>(ty) * kStride + static_cast<std::size_t>(tx)] =
            canvas.at(static_cast<double>(tx % kTileTexels) / kTexelsPerThread,
                      static_cast<double>(ty % kTileTexels) / kTexelsPerThread);
      }
    }
  });
  window.control.checkpoint();
  // Each texel's two corners along u in one word of 16-bit levels, for its own row and the next:
  // a bilinear read is then two table reads, not four (the reads are the loop's cost, done one by
  // one where gathers are slow). A level is 1/65535, far below what the texture's detail shows.
  std::vector<std::uint32_t> upper(static_cast<std::size_t>(kTileTexels) * kTileTexels);
  std::vector<std::uint32_t> lower(upper.size());
  const auto level = [](float t) {
    t = t > 0.0f ? t : 0.0f;
    t = t < 1.0f ? t : 1.0f;
    return static_cast<std::uint32_t>(t * 65535.0f + 0.5f);
  };
  const auto pair = [&](int tx, int ty) {
    const float* at = tile.data() + static_cast<std::size_t>(ty) * kStride + tx;
    return level(at[0]) | level(at[1]) << 16;
  };
  for (int ty = 0; ty < kTileTexels; ++ty)
    for (int tx = 0; tx < kTileTexels; ++tx) {
      const auto k = static_cast<std::size_t>(ty) * kTileTexels + static_cast<std::size_t>(tx);
      upper[k] = pair(tx, ty);
      lower[k] = pair(tx, ty + 1);
    }
  // Texels of the tile per pixel along the frame's axes.
  const double c = kTexelsPerThread * std::cos(radians) / spacing;
  const double s = kTexelsPerThread * std::sin(radians) / spacing;
  // Each column's and each row's share of both tile coordinates, wrapped once, so a pixel adds
  // two of them: both depend only on the place, so a region reads the texture as the whole does.
  const auto width = static_cast<std::size_t>(window.output.width);
  std::vector<float> columnU(width);
  std::vector<float> columnV(width);
  for (std::size_t i = 0; i < width; ++i) {
    const double fx =
        static_cast<double>(window.output.x + static_cast<int>(i) - window.frame.x) + 0.5;
    columnU[i] = static_cast<float>(wrapped(c * fx));
    columnV[i] = static_cast<float>(wrapped(-s * fx));
  }
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int, int y) {
    const double fy = static_cast<double>(y - window.frame.y) + 0.5;
    const auto rowU = static_cast<float>(wrapped(s * fy));
    const auto rowV = static_cast<float>(wrapped(c * fy));
    // Plain arithmetic and table reads on captured pointers, so the loop vectorises with the
    // wider units.
    const std::uint32_t* tops = upper.data();
    const std::uint32_t* bottoms = lower.data();
    const float* us = columnU.data();
    const float* vs = columnV.data();
    detail::clonedTableLoop(
        [=](std::size_t i) {
          const float u = wrappedSum(us[i], rowU);
          const float v = wrappedSum(vs[i], rowV);
          int u0 = static_cast<int>(u);
          int v0 = static_cast<int>(v);
          u0 = u0 < kTileTexels - 1 ? u0 : kTileTexels - 1;
          v0 = v0 < kTileTexels - 1 ? v0 : kTileTexels - 1;
          const float du = u - static_cast<float>(u0);
          const float dv = v - static_cast<float>(v0);
          // Indices rather than pointers: the vectoriser gathers only from a base plus an index.
          const int k = v0 * kTileTexels + u0;
          const std::uint32_t top = tops[k];
          const std::uint32_t bottom = bottoms[k];
          // Levels fit a signed int, whose conversion every vector unit has.
          const auto of = [](std::uint32_t levels) {
            return static_cast<float>(static_cast<std::int32_t>(levels));
          };
          const float t = detail::mix(detail::mix(of(top & 0xffffu), of(top >> 16), du),
                                      detail::mix(of(bottom & 0xffffu), of(bottom >> 16), du), dv) *
                          (1.0f / 65535.0f);
          // Channels read one by one: a whole-pixel copy is an aggregate the vectoriser refuses.
          const float r = in[i].r;
          const float g = in[i].g;
          const float b = in[i].b;
          out[i] = PixelRGB<float>(detail::mix(r, overlay(r, t), opacity),
                                   detail::mix(g, overlay(g, t), opacity),
                                   detail::mix(b, overlay(b, t), opacity));
        },
        count);
  });
}

}  // namespace vorn
