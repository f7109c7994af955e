#include <cmath>

#include "core/dispatch.h"
#include "pipeline/blend_row.h"
#include "pipeline/lab_curves.h"

namespace vorn::detail {

namespace {

// A colour as f(Y/Yn) and the two differences a* / 500 and b* / 200: L*a*b* without its
// constant factors, which only the chroma of Hue needs.
struct LabF {
  float fy, da, db;
};

// Below this chroma (in L*a*b* units) a top pixel is taken as grey: it has no hue to give.
constexpr float kNeutralChroma = 0.01f;

// The colour of linear RGB; with LightnessOnly just fy, for a layer whose a* and b* are unused.
template <bool LightnessOnly>
[[gnu::always_inline]] inline LabF labOf(const LabMatrices& matrices, const float* linear) {
  const float* m = matrices.toXyz.data();
  const float fy = labF(clampUnit(m[3] * linear[0] + m[4] * linear[1] + m[5] * linear[2]));
  if constexpr (LightnessOnly) return {fy, 0.0f, 0.0f};
  const float fx = labF(clampUnit(m[0] * linear[0] + m[1] * linear[1] + m[2] * linear[2]));
  const float fz = labF(clampUnit(m[6] * linear[0] + m[7] * linear[1] + m[8] * linear[2]));
  return {fy, fx - fy, fy - fz};
}

// Linear RGB of the colour, clamped to [0, 1] where it falls outside the gamut.
[[gnu::always_inline]] inline void linearOf(const LabMatrices& matrices, LabF c, float* linear) {
  const float* m = matrices.fromXyz.data();
  const float x = labFInverse(c.fy + c.da);
  const float y = labFInverse(c.fy);
  const float z = labFInverse(c.fy - c.db);
  for (int k = 0; k < 3; ++k) {
    const float v = m[3 * k] * x + m[3 * k + 1] * y + m[3 * k + 2] * z;
    linear[k] = clampUnit(v);
  }
}

[[gnu::always_inline]] inline float chromaOf(LabF c) {
  const float a = 500.0f * c.da;
  const float b = 200.0f * c.db;
  return std::sqrt(a * a + b * b);
}

template <BlendModeType Mode>
[[gnu::always_inline]] inline LabF combine(LabF top, LabF bottom) {
  if constexpr (Mode == kBlendLuminosity) {
    return {top.fy, bottom.da, bottom.db};
  } else if constexpr (Mode == kBlendColor) {
    return {bottom.fy, top.da, top.db};
  } else {
    // Top's (a*, b*) scaled to the bottom's chroma keeps top's hue angle without trigonometry.
    const float topChroma = chromaOf(top);
    const float ratio = chromaOf(bottom) / topChroma;
    const float scale = topChroma < kNeutralChroma ? 0.0f : ratio;
    return {bottom.fy, top.da * scale, top.db * scale};
  }
}

// A block's colours in L*a*b*, one plane per component: the per-pixel passes then read whole
// vectors instead of regrouping interleaved channels, and each pass keeps few constants live.
struct LabPlanes {
  alignas(64) float fy[kBlendBlockPixels];
  alignas(64) float da[kBlendBlockPixels];
  alignas(64) float db[kBlendBlockPixels];
};

template <bool LightnessOnly>
[[gnu::always_inline]] inline void toLabPlanes(const LabMatrices& matrices,
                                               const float* __restrict linear, float* __restrict fy,
                                               float* __restrict da, float* __restrict db,
                                               std::size_t pixels) {
  for (std::size_t p = 0; p < pixels; ++p) {
    const LabF c = labOf<LightnessOnly>(matrices, linear + 3 * p);
    fy[p] = c.fy;
    da[p] = c.da;
    db[p] = c.db;
  }
}

template <BlendModeType Mode>
[[gnu::always_inline]] inline void labBlock(const LabMatrices& matrices, const float* top,
                                            const float* bottom, const float* __restrict alpha,
                                            float* __restrict out, std::size_t floats) {
  alignas(64) float linearTop[kBlendBlockFloats];
  alignas(64) float linearBottom[kBlendBlockFloats];
  LabPlanes labTop, labBottom;
  // srgbToLinear limits its argument to [0, 1], which is the clamp of the inputs.
  for (std::size_t i = 0; i < floats; ++i) {
    linearTop[i] = srgbToLinear(top[i]);
    linearBottom[i] = srgbToLinear(bottom[i]);
  }
  const std::size_t pixels = floats / 3;
  toLabPlanes<Mode == kBlendLuminosity>(matrices, linearTop, labTop.fy, labTop.da, labTop.db,
                                        pixels);
  toLabPlanes<Mode == kBlendColor>(matrices, linearBottom, labBottom.fy, labBottom.da, labBottom.db,
                                   pixels);
  float* __restrict linearResult = linearTop;
  for (std::size_t p = 0; p < pixels; ++p) {
    const LabF blended = combine<Mode>({labTop.fy[p], labTop.da[p], labTop.db[p]},
                                       {labBottom.fy[p], labBottom.da[p], labBottom.db[p]});
    linearOf(matrices, blended, linearResult + 3 * p);
  }
  for (std::size_t i = 0; i < floats; ++i)
    out[i] = mixBlend(linearToSrgb(linearResult[i]), bottom[i], alpha[i]);
}

// A functor rather than a lambda: its call must inline into each instruction-set clone.
template <BlendModeType Mode>
struct LabBlock {
  const LabMatrices& matrices;
  [[gnu::always_inline]] void operator()(const float* top, const float* bottom, const float* alpha,
                                         float* out, std::size_t floats) const {
    labBlock<Mode>(matrices, top, bottom, alpha, out, floats);
  }
};

}  // namespace

VORN_DISPATCH void blendLabRow(BlendModeType mode, const BlendRow& row) {
  switch (mode) {
    case kBlendLuminosity:
      forEachBlendBlock(row, LabBlock<kBlendLuminosity>{labMatrices()});
      break;
    case kBlendHue:
      forEachBlendBlock(row, LabBlock<kBlendHue>{labMatrices()});
      break;
    case kBlendColor:
      forEachBlendBlock(row, LabBlock<kBlendColor>{labMatrices()});
      break;
    default:
      break;
  }
}

}  // namespace vorn::detail
