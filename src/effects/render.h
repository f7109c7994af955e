#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "core/parallel.h"
#include "vorn/effects/declared_effect.h"
#include "vorn/effects/effect.h"

namespace vorn::detail {

using ImageRGBf = _ImageData<PixelRGB<float>>;

/// True when the call has a non-empty source and a destination of its size; an empty
/// destination is first made with the source's size and profile.
bool prepareDestination(EffectCallContext& call);

/// Runs kernel(const float* in, float* out, std::size_t count) over the pixel channels of
/// source into destination, one contiguous span of whole rows per task.
template <typename Kernel>
void forEachRowSpan(const ImageRGBf& source, ImageRGBf& destination, Kernel&& kernel) {
  const std::size_t rowFloats = static_cast<std::size_t>(source.width) * 3;
  const float* in = &source.data->r;
  float* out = &destination.data->r;
  parallelRows(source.height, [&](int first, int end) {
    const std::size_t offset = static_cast<std::size_t>(first) * rowFloats;
    kernel(in + offset, out + offset, static_cast<std::size_t>(end - first) * rowFloats);
  });
}

/// A radius given for the full-resolution image, at the render's scale, at least 1 pixel.
inline int scaledRadius(float fullResolutionRadius, float scale) {
  return std::max(1, static_cast<int>(std::lround(fullResolutionRadius * scale)));
}

/// outRect grown by margin on every side (no clipping: the owner clips to its image).
inline _Rect<int> grownRect(_Rect<int> rect, int margin) {
  return rect.inset(-margin, -margin);
}

}  // namespace vorn::detail
