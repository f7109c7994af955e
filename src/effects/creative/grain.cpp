// Film grain: value noise on a lattice fixed to the frame, so its size follows the frame and a
// region render draws the same grain as a whole one.
#include <bit>
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
using detail::NoiseRows;
using detail::signedFraction;

/// The seed: the first value of Amount's optional data, 0 without one.
std::uint32_t grainSeed(const Effect& effect) {
  const ParameterOptionalData data = effect.parameters()[0].optionalData();
  const auto* values = boost::get<std::vector<float>>(&data);
  return values && !values->empty() ? std::bit_cast<std::uint32_t>((*values)[0]) : 0u;
}

/// Lattice cell of the coarse grain in reference pixels, from Size 0 ... 100.
float cellSize(const Effect& effect) {
  return 1.0f + 8.0f * fraction(effect, 1);
}

}  // namespace

int GrainNewEffect::reach(float) const {
  return 0;
}

bool GrainNewEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// Film grain: two octaves of value noise (Roughness weighting the finer) added to every channel,
// strongest in the midtones; below one pixel per cell the grain averages down as a shrunk
// render's would.
void GrainNewEffect::render(const Window& window) const {
  const std::uint32_t seed = grainSeed(*this);
  const float cell = cellSize(*this) * window.spatialScale;
  constexpr float kFineRatio = 0.4f;
  const float fineCell = kFineRatio * cell;
  const float rough = fraction(*this, 2);
  const float norm = 1.0f / std::sqrt((1.0f - rough) * (1.0f - rough) + rough * rough);
  constexpr float kStrongest = 0.16f;
  const float coarseAmplitude =
      kStrongest * fraction(*this, 0) * std::fmin(1.0f, cell) * (1.0f - rough) * norm;
  const float fineAmplitude =
      kStrongest * fraction(*this, 0) * std::fmin(1.0f, fineCell) * rough * norm;
  const std::uint32_t fineSeed = seed ^ 0x9e3779b9u;
  constexpr float kShadowFloor = 0.15f;
  // The grain of a pixel depends only on its place, whichever rows a thread renders.
  const double fx0 = static_cast<double>(window.output.x - window.frame.x) + 0.5;
  const auto width = static_cast<std::size_t>(window.output.width);
  const NoiseRows coarse(cell, seed, fx0, width);
  const NoiseRows fine(fineCell, fineSeed, fx0, width);
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int, int y) {
    thread_local std::vector<float> coarseLattice;
    thread_local std::vector<float> fineLattice;
    const double fy = static_cast<double>(y - window.frame.y) + 0.5;
    const detail::NoiseRow coarseRow = coarse.row(fy, coarseLattice);
    const detail::NoiseRow fineRow = fine.row(fy, fineLattice);
    // Both octaves and the blend in one pass, so the row's noise never goes through memory.
    detail::clonedTableLoop(
        [=](std::size_t i) {
          // Clamped by selects, which vectorise where std::clamp's reference returns branch; NaN
          // passes through as it did.
          float l = detail::luminance(in[i]);
          l = l < 0.0f ? 0.0f : l;
          l = l > 1.0f ? 1.0f : l;
          const float strength = kShadowFloor + (1.0f - kShadowFloor) * 4.0f * l * (1.0f - l);
          const float sum = coarseAmplitude * coarseRow(i) + fineAmplitude * fineRow(i);
          const float g = sum * strength;
          // Grain never pushes a channel below black (selects, so NaN reads as black as before).
          const auto grained = [g](float c) {
            const float floor = c < 0.0f ? c : 0.0f;
            const float moved = c + g;
            return moved > floor ? moved : floor;
          };
          out[i] = PixelRGB<float>(grained(in[i].r), grained(in[i].g), grained(in[i].b));
        },
        count);
  });
}

}  // namespace vorn
