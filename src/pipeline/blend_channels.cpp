#include <cmath>

#include "core/dispatch.h"
#include "pipeline/blend_row.h"

namespace vorn::detail {

namespace {

// f(t, b) of each per-channel mode: t is the top layer's channel, b the one beneath. Branches
// are written as selects over values computed on both sides so that the loops vectorise.
struct Multiply {
  float operator()(float t, float b) const { return t * b; }
};
struct ColorBurn {
  float operator()(float t, float b) const {
    const float burnt = 1.0f - (1.0f - b) / t;
    return t == 0.0f ? 0.0f : (burnt > 0.0f ? burnt : 0.0f);
  }
};
struct Screen {
  float operator()(float t, float b) const { return t + b - t * b; }
};
// Overlay and HardLight are the same curve keyed on the other layer.
inline float overlayOf(float key, float t, float b) {
  const float low = 2.0f * t * b;
  const float high = 1.0f - 2.0f * (1.0f - t) * (1.0f - b);
  return key < 0.5f ? low : high;
}
struct Overlay {
  float operator()(float t, float b) const { return overlayOf(b, t, b); }
};
struct HardLight {
  float operator()(float t, float b) const { return overlayOf(t, t, b); }
};
// A negative base has no square root; it reads as 0 there.
struct SoftLight {
  float operator()(float t, float b) const {
    const float low = 2.0f * t * b + b * b * (1.0f - 2.0f * t);
    const float high = std::sqrt(b > 0.0f ? b : 0.0f) * (2.0f * t - 1.0f) + 2.0f * b * (1.0f - t);
    return t < 0.5f ? low : high;
  }
};
struct Darken {
  float operator()(float t, float b) const { return t < b ? t : b; }
};
struct Lighten {
  float operator()(float t, float b) const { return t > b ? t : b; }
};
struct Difference {
  float operator()(float t, float b) const { return std::fabs(t - b); }
};
// Base minus layer.
struct Subtract {
  float operator()(float t, float b) const {
    const float d = b - t;
    return d > 0.0f ? d : 0.0f;
  }
};

template <typename F>
[[gnu::always_inline]] inline void mixChannels(const float* __restrict top,
                                               const float* __restrict bottom,
                                               const float* __restrict alpha, float* __restrict out,
                                               std::size_t floats) {
  const F f;
  for (std::size_t i = 0; i < floats; ++i)
    out[i] = mixBlend(f(top[i], bottom[i]), bottom[i], alpha[i]);
}

[[gnu::always_inline]] inline void normalChannels(const float* __restrict top,
                                                  const float* __restrict bottom,
                                                  const float* __restrict alpha,
                                                  float* __restrict out, std::size_t floats) {
  for (std::size_t i = 0; i < floats; ++i) out[i] = (top[i] - bottom[i]) * alpha[i] + bottom[i];
}

// Functors rather than lambdas: their calls must inline into each instruction-set clone.
template <typename F>
struct MixedBlock {
  [[gnu::always_inline]] void operator()(const float* top, const float* bottom, const float* alpha,
                                         float* out, std::size_t floats) const {
    mixChannels<F>(top, bottom, alpha, out, floats);
  }
};

struct NormalBlock {
  [[gnu::always_inline]] void operator()(const float* top, const float* bottom, const float* alpha,
                                         float* out, std::size_t floats) const {
    normalChannels(top, bottom, alpha, out, floats);
  }
};

}  // namespace

VORN_DISPATCH void blendChannelRow(BlendModeType mode, const BlendRow& row) {
  switch (mode) {
    case kBlendNormal:
      forEachBlendBlock(row, NormalBlock{});
      break;
    case kBlendMultiply:
      forEachBlendBlock(row, MixedBlock<Multiply>{});
      break;
    case kBlendColorBurn:
      forEachBlendBlock(row, MixedBlock<ColorBurn>{});
      break;
    case kBlendScreen:
      forEachBlendBlock(row, MixedBlock<Screen>{});
      break;
    case kBlendOverlay:
      forEachBlendBlock(row, MixedBlock<Overlay>{});
      break;
    case kBlendSoftLight:
      forEachBlendBlock(row, MixedBlock<SoftLight>{});
      break;
    case kBlendDarken:
      forEachBlendBlock(row, MixedBlock<Darken>{});
      break;
    case kBlendHardLight:
      forEachBlendBlock(row, MixedBlock<HardLight>{});
      break;
    case kBlendLighten:
      forEachBlendBlock(row, MixedBlock<Lighten>{});
      break;
    case kBlendDifference:
      forEachBlendBlock(row, MixedBlock<Difference>{});
      break;
    case kBlendSubtract:
      forEachBlendBlock(row, MixedBlock<Subtract>{});
      break;
    default:
      break;
  }
}

}  // namespace vorn::detail
