#pragma once

#include <array>
#include <optional>

#include "vorn/io/image_metadata.h"

// The light the camera balanced for, recovered from a raw file's colour calibration.
namespace vorn::detail {

struct AsShotWhite {
  std::array<double, 2> xy;  ///< CIE xy
  double kelvin;             ///< correlated colour temperature
};

/// The as-shot white of a raw file: the camera's neutral (the reciprocal of its white-balance
/// multipliers) taken to XYZ by the colour matrix interpolated for that very white. Empty when
/// the file carries no multipliers or no usable matrix.
std::optional<AsShotWhite> asShotWhite(const ImageMetadata::CameraColor& color);

/// Correlated colour temperature of a chromaticity near the Planckian locus (McCamy's cubic:
/// within a few kelvin from 2800 K to 6500 K, and monotonic well beyond).
double correlatedKelvin(std::array<double, 2> xy);

}  // namespace vorn::detail
