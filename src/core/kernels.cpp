#include "core/kernels.h"

#include "core/dispatch.h"

namespace vorn::detail {

VORN_DISPATCH void clampFloats(float* values, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    float v = values[i];
    v = v > 0.0f ? v : 0.0f;
    values[i] = v > 1.0f ? 1.0f : v;
  }
}

VORN_DISPATCH void clampCopyFloats(float* __restrict dst, const float* __restrict src,
                                   std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    float v = src[i];
    v = v > 0.0f ? v : 0.0f;
    dst[i] = v > 1.0f ? 1.0f : v;
  }
}

VORN_DISPATCH void accumulateScaledFloats(float* __restrict acc, const float* __restrict row,
                                          float weight, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) acc[i] += weight * row[i];
}

}  // namespace vorn::detail
