// Structure: luminance detail boosted band by band on the shared a trous decomposition.
#include <algorithm>
#include <array>
#include <cmath>

#include "effects/kernels/atrous.h"
#include "effects/kernels/cloned_loop.h"
#include "effects/kernels/luminance.h"
#include "effects/kernels/mix.h"
#include "vorn/effects/detail_effects.h"

namespace vorn {

namespace {

using detail::Plane;

/// A raised-cosine bump over log2 of a band's scale in reference pixels.
struct Bump {
  float centre;
  float halfWidth;
  float gain;
};

/// Which bands a variant boosts and how much.
struct StructureSetting {
  std::array<Bump, 2> bumps;
  /// Detail gain at a bump's peak: -1 removes the band, 1 doubles it.
  float amount;
  /// Boosted detail is compressed beyond this, so strong edges gain little (no halos).
  float knee;

  float weight(float log2Scale) const {
    float sum = 0.0f;
    for (const Bump& bump : bumps) {
      const float distance = std::fabs(log2Scale - bump.centre);
      if (bump.gain != 0.0f && distance < bump.halfWidth)
        sum += bump.gain * 0.5f * (1.0f + std::cos(3.14159265f * distance / bump.halfWidth));
    }
    return sum;
  }
  int levels(float spatialScale) const {
    float top = 0.0f;
    for (const Bump& bump : bumps)
      if (bump.gain != 0.0f) top = std::max(top, bump.centre + bump.halfWidth);
    return detail::atrousLevelsFor(std::exp2(top), spatialScale);
  }
};

// Band centres in log2 reference pixels: micro 2 px, structure 16 px, super 90 px.
constexpr float kMicroCentre = 1.0f;
constexpr float kMicroHalfWidth = 2.5f;
constexpr float kMidCentre = 4.0f;
constexpr float kMidHalfWidth = 3.0f;
constexpr float kCoarseCentre = 6.5f;
constexpr float kCoarseHalfWidth = 2.5f;

/// Softness 0 ... 1 to the compression knee: soft structure only lifts fine texture.
float kneeOf(float softness) {
  const float hard = 1.0f - softness;
  return 0.02f + 0.25f * hard * hard;
}

StructureSetting structureSetting(const Effect& effect) {
  return {{Bump{kMidCentre, kMidHalfWidth, 1.0f}, Bump{0.0f, 1.0f, 0.0f}},
          effect.mappedValue(0, -1.0f, 0.0f, 1.5f),
          kneeOf(effect.mappedValue(1, 0.0f, 0.5f, 1.0f))};
}

// The HDR look: the coarse bands carry most of the boost; the knee keeps it off strong edges,
// where the coarse bands would otherwise draw halos.
StructureSetting structureHdrSetting(const Effect& effect) {
  const float boost = effect.mappedValue(2, 0.0f, 0.5f, 1.0f);
  return {
      {Bump{kMidCentre, kMidHalfWidth, 1.0f}, Bump{kCoarseCentre, kCoarseHalfWidth, 2.0f * boost}},
      effect.mappedValue(0, -1.0f, 0.0f, 1.5f),
      kneeOf(effect.mappedValue(1, 0.0f, 0.5f, 1.0f))};
}

StructureSetting microSetting(const Effect& effect) {
  return {{Bump{kMicroCentre, kMicroHalfWidth, 1.0f}, Bump{0.0f, 1.0f, 0.0f}},
          effect.mappedValue(0, 0.0f, 1.0f, 2.0f),
          kneeOf(effect.mappedValue(1, 0.0f, 0.5f, 1.0f))};
}

StructureSetting superSetting(const Effect& effect) {
  return {{Bump{kCoarseCentre, kCoarseHalfWidth, 1.0f}, Bump{0.0f, 1.0f, 0.0f}},
          effect.mappedValue(0, 0.0f, 0.6f, 1.2f),
          kneeOf(effect.mappedValue(1, 0.0f, 0.5f, 1.0f))};
}

/// Luminance limited to [0, 64], NaN as 0, so that one extreme pixel stays local.
float structureLuma(const PixelRGB<float>& p) {
  constexpr float kCeiling = 64.0f;
  const float luma = detail::luminance(p);
  if (!(luma > 0.0f)) return 0.0f;
  return luma < kCeiling ? luma : kCeiling;
}

/// Detail added near white or black fades out, so boosted edges do not clip.
float withHeadroom(float added, float luma) {
  constexpr float kRoom = 0.15f;
  const float room = added > 0.0f ? 1.0f - luma : luma;
  // smoothStep(0, kRoom, room) with its clamp as selects (same answers), so the loop vectorises.
  float t = (room - 0.0f) / (kRoom - 0.0f);
  t = t < 0.0f ? 0.0f : (1.0f < t ? 1.0f : t);
  return added * (t * t * (3.0f - 2.0f * t));
}

// Each band of the luminance gets amount x weight(scale) of itself, compressed past the knee;
// the change is added to every channel, so hue and saturation stay.
void renderStructure(const detail::StencilWindow& window, const StructureSetting& setting) {
  const int levels = setting.levels(window.spatialScale);
  std::array<float, detail::kMaxAtrousLevels> gains{};
  for (int level = 0; level < levels; ++level)
    gains[static_cast<std::size_t>(level)] =
        setting.amount *
        setting.weight(std::log2(detail::atrousBandScale(level, window.spatialScale)));
  // Through a lambda, which the plane's loop inlines; a function would be called per pixel.
  const Plane luma = detail::planeOf(window.source, window.input,
                                     [](const PixelRGB<float>& p) { return structureLuma(p); });
  const float knee = setting.knee;
  const Plane shaped = detail::atrousReshapeRows(
      luma, levels,
      [&](int level, float* band, int count) {
        const float gain = gains[static_cast<std::size_t>(level)];
        if (gain == 0.0f) return;
        const auto n = static_cast<std::size_t>(count);
        if (gain < 0.0f) {
          detail::clonedLoop([=](std::size_t i) { band[i] += gain * band[i]; }, n);
          return;
        }
        detail::clonedLoop(
            [=](std::size_t i) {
              const float added = gain * band[i];
              band[i] += added / (1.0f + std::fabs(added) / knee);
            },
            n);
      },
      &window.control);
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        const float* l = luma.data() + index;
        const float* s = shaped.data() + index;
        detail::clonedLoop(
            [=](std::size_t x) {
              const float added = withHeadroom(s[x] - l[x], l[x]);
              out[x] = PixelRGB<float>(in[x].r + added, in[x].g + added, in[x].b + added);
            },
            count);
      });
}

}  // namespace

#define VORN_STRUCTURE_OVERRIDES(Class, setting)                     \
  int Class::reach(float spatialScale) const {                       \
    return detail::atrousReach(setting(*this).levels(spatialScale)); \
  }                                                                  \
  bool Class::isIdentity() const {                                   \
    return setting(*this).amount == 0.0f;                            \
  }                                                                  \
  void Class::render(const Window& window) const {                   \
    renderStructure(window, setting(*this));                         \
  }

VORN_STRUCTURE_OVERRIDES(StructureEffect, structureSetting)
VORN_STRUCTURE_OVERRIDES(StructureHDREffect, structureHdrSetting)
VORN_STRUCTURE_OVERRIDES(MicroStructureEffect, microSetting)
VORN_STRUCTURE_OVERRIDES(SuperStructureEffect, superSetting)

#undef VORN_STRUCTURE_OVERRIDES

}  // namespace vorn
