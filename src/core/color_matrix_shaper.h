#pragma once

#include <cstddef>
#include <memory>

#include "vorn/core/color_profile.h"

namespace vorn::detail {

class MatrixShaperTransform;

/// The float conversion between two RGB matrix-shaper profiles, built once per pair and kept in a
/// small cache; null when either profile needs lcms's general path.
std::shared_ptr<const MatrixShaperTransform> findMatrixShaperTransform(
    const std::shared_ptr<ColorProfile>& source, const std::shared_ptr<ColorProfile>& target);

/// Converts `pixels` pixels of `channels` floats (3, or 4 with the fourth passed through) as lcms's
/// float transform would; src may equal dst.
void runMatrixShaperTransform(const MatrixShaperTransform& transform, const float* src, float* dst,
                              std::size_t pixels, int channels);

}  // namespace vorn::detail
