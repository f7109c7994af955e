// Film grain: value noise on a lattice fixed to the frame, so its size follows the frame and a
// region render draws the same grain as a whole one.
#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "effects/kernels/frame_geometry.h"
#include "effects/kernels/mix.h"
#include "vorn/effects/creative_effects.h"

namespace vorn {

namespace {

float fraction(const Effect& effect, std::size_t index) {
  return effect.mappedValue(index, 0.0f, 0.5f, 1.0f);
}

/// The seed: the first value of Amount's optional data, 0 without one.
std::uint32_t grainSeed(const Effect& effect) {
  const ParameterOptionalData data = effect.parameters()[0].optionalData();
  const auto* values = boost::get<std::vector<float>>(&data);
  return values && !values->empty() ? std::bit_cast<std::uint32_t>((*values)[0]) : 0u;
}

/// A 32-bit integer hash (Wellons' lowbias32) of a lattice point and the seed.
inline std::uint32_t hash(std::int64_t i, std::int64_t j, std::uint32_t seed) {
  std::uint32_t h = static_cast<std::uint32_t>(i) * 0x8da6b343u ^
                    static_cast<std::uint32_t>(j) * 0xd8163841u ^ seed * 0xcb1ab31fu;
  h ^= h >> 16;
  h *= 0x7feb352du;
  h ^= h >> 15;
  h *= 0x846ca68bu;
  h ^= h >> 16;
  return h;
}

/// A lattice value in -1 ... 1, triangular (the sum of two uniform halves) so large values are
/// rarer, as in grain.
inline float latticeValue(std::int64_t i, std::int64_t j, std::uint32_t seed) {
  const std::uint32_t h = hash(i, j, seed);
  return static_cast<float>(h & 0xffffu) / 65535.0f + static_cast<float>(h >> 16) / 65535.0f - 1.0f;
}

/// One row of value noise: lattice values at integer points, smoothly interpolated between them.
/// The vertical interpolation of each lattice column is done once per row, so a pixel costs two
/// table reads and a mix.
class NoiseRow {
 public:
  NoiseRow(double cell, std::uint32_t seed) : inverseCell_(1.0 / cell), seed_(seed) {}

  /// Prepares row y (pixel centre, frame coordinates) for pixels x0 ... x0 + count - 1.
  void start(double y, double x0, std::size_t count) {
    const double v = y * inverseCell_;
    const double fv = std::floor(v);
    const auto j = static_cast<std::int64_t>(fv);
    const float sv = smooth(v - fv);
    first_ = static_cast<std::int64_t>(std::floor(x0 * inverseCell_));
    const auto last =
        static_cast<std::int64_t>(std::floor((x0 + static_cast<double>(count)) * inverseCell_)) + 1;
    columns_.resize(static_cast<std::size_t>(last - first_ + 1));
    for (std::int64_t i = first_; i <= last; ++i) {
      columns_[static_cast<std::size_t>(i - first_)] =
          detail::mix(latticeValue(i, j, seed_), latticeValue(i, j + 1, seed_), sv);
    }
  }
  /// The noise at pixel centre x (frame coordinates) of the started row.
  float at(double x) const {
    const double u = x * inverseCell_;
    const double fu = std::floor(u);
    const auto index = static_cast<std::size_t>(static_cast<std::int64_t>(fu) - first_);
    return detail::mix(columns_[index], columns_[index + 1], smooth(u - fu));
  }

 private:
  static float smooth(double t) { return static_cast<float>(t * t * (3.0 - 2.0 * t)); }
  double inverseCell_;
  std::uint32_t seed_;
  std::int64_t first_ = 0;
  std::vector<float> columns_;
};

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
  // Each row band keeps its own lattice rows; the grain of a pixel depends only on its place.
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int x0, int y) {
    NoiseRow coarse(cell, seed);
    NoiseRow fine(fineCell, fineSeed);
    const double fy = static_cast<double>(y - window.frame.y) + 0.5;
    const double fx0 = static_cast<double>(x0 - window.frame.x) + 0.5;
    coarse.start(fy, fx0, count);
    fine.start(fy, fx0, count);
    for (std::size_t i = 0; i < count; ++i) {
      const double fx = fx0 + static_cast<double>(i);
      const float n = coarseAmplitude * coarse.at(fx) + fineAmplitude * fine.at(fx);
      const float l = detail::unitClamp(detail::luminance(in[i]));
      const float strength = kShadowFloor + (1.0f - kShadowFloor) * 4.0f * l * (1.0f - l);
      const float g = n * strength;
      // Grain never pushes a channel below black.
      const auto grained = [g](float c) { return std::fmax(c + g, std::fmin(c, 0.0f)); };
      out[i] = PixelRGB<float>(grained(in[i].r), grained(in[i].g), grained(in[i].b));
    }
  });
}

}  // namespace vorn
