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

// Normal's fast path: one subtraction and one product per channel.
struct NormalWeighted {
  float operator()(float t, float b, float a) const { return (t - b) * a + b; }
};

template <typename F>
struct Weighted {
  float operator()(float t, float b, float a) const { return mixBlend(F{}(t, b), b, a); }
};

template <typename W>
[[gnu::always_inline]] inline void blendChannels(const float* __restrict top,
                                                 const float* __restrict bottom,
                                                 const float* __restrict alpha,
                                                 float* __restrict out, std::size_t floats) {
  const W weighted;
  for (std::size_t i = 0; i < floats; ++i) out[i] = weighted(top[i], bottom[i], alpha[i]);
}

// A functor rather than a lambda: its call must inline into each instruction-set clone.
template <typename W>
struct ChannelBlock {
  [[gnu::always_inline]] void operator()(const float* top, const float* bottom, const float* alpha,
                                         float* out, std::size_t floats) const {
    blendChannels<W>(top, bottom, alpha, out, floats);
  }
};

template <typename W>
[[gnu::always_inline]] inline void blendRowWith(const BlendRow& row) {
  forEachBlendBlock(row, ChannelBlock<W>{});
}

}  // namespace

VORN_DISPATCH void blendChannelRow(BlendModeType mode, const BlendRow& row) {
  switch (mode) {
    case kBlendNormal:
      return blendRowWith<NormalWeighted>(row);
    case kBlendMultiply:
      return blendRowWith<Weighted<Multiply>>(row);
    case kBlendColorBurn:
      return blendRowWith<Weighted<ColorBurn>>(row);
    case kBlendScreen:
      return blendRowWith<Weighted<Screen>>(row);
    case kBlendOverlay:
      return blendRowWith<Weighted<Overlay>>(row);
    case kBlendSoftLight:
      return blendRowWith<Weighted<SoftLight>>(row);
    case kBlendDarken:
      return blendRowWith<Weighted<Darken>>(row);
    case kBlendHardLight:
      return blendRowWith<Weighted<HardLight>>(row);
    case kBlendLighten:
      return blendRowWith<Weighted<Lighten>>(row);
    case kBlendDifference:
      return blendRowWith<Weighted<Difference>>(row);
    case kBlendSubtract:
      return blendRowWith<Weighted<Subtract>>(row);
    default:
      return;
  }
}

}  // namespace vorn::detail
