#pragma once

#include <algorithm>
#include <cmath>

namespace vorn::detail {

/// Spatial sizes (radii, grain) are written in pixels of a frame of this short side, a 24 MP
/// photograph, and scale with the short side of the frame actually rendered.
inline constexpr float kReferenceShortSide = 4000.0f;

/// A size given in reference pixels, in pixels of a render at `spatialScale`, at least 1.
inline int pixelsAt(float referencePixels, float spatialScale) {
  return std::max(1, static_cast<int>(std::lround(referencePixels * spatialScale)));
}

}  // namespace vorn::detail
