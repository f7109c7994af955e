#pragma once

#include <random>

#include "effects/kernels/plane.h"

namespace vorn::detail::test {

/// A plane of uniform noise in [0, 1), the same for the same seed.
inline Plane noisePlane(int width, int height, unsigned seed) {
  Plane plane(width, height);
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> value(0.0f, 1.0f);
  for (std::size_t i = 0; i < plane.size(); ++i) plane.data()[i] = value(random);
  return plane;
}

}  // namespace vorn::detail::test
