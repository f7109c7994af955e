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

[[gnu::always_inline]] inline LabF labOf(const LabMatrices& matrices, const float* linear) {
  const float* m = matrices.toXyz.data();
  const float fx = labF(clampUnit(m[0] * linear[0] + m[1] * linear[1] + m[2] * linear[2]));
  const float fy = labF(clampUnit(m[3] * linear[0] + m[4] * linear[1] + m[5] * linear[2]));
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

template <BlendModeType Mode>
[[gnu::always_inline]] inline void labBlock(const LabMatrices& matrices, const float* top,
                                            const float* bottom, const float* __restrict alpha,
                                            float* __restrict out, std::size_t floats) {
  alignas(64) float linearTop[kBlendBlockFloats];
  alignas(64) float linearBottom[kBlendBlockFloats];
  alignas(64) float linearResult[kBlendBlockFloats];
  // srgbToLinear limits its argument to [0, 1], which is the clamp of the inputs.
  for (std::size_t i = 0; i < floats; ++i) {
    linearTop[i] = srgbToLinear(top[i]);
    linearBottom[i] = srgbToLinear(bottom[i]);
  }
  for (std::size_t i = 0; i < floats; i += 3) {
    const LabF blended =
        combine<Mode>(labOf(matrices, linearTop + i), labOf(matrices, linearBottom + i));
    linearOf(matrices, blended, linearResult + i);
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
