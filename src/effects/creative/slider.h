#pragma once

#include <cstddef>

#include "vorn/effects/effect.h"

// How the creative effects read their sliders.
namespace vorn::detail {

/// Parameter `index` as 0 ... 1 over its range (a 0 ... 100 slider divided by 100).
inline float fraction(const Effect& effect, std::size_t index) {
  return effect.mappedValue(index, 0.0f, 0.5f, 1.0f);
}

/// A symmetric parameter (-100 ... 100) as -1 ... 1.
inline float signedFraction(const Effect& effect, std::size_t index) {
  return effect.mappedValue(index, -1.0f, 0.0f, 1.0f);
}

}  // namespace vorn::detail
