#include "pipeline/lab_curves.h"

#include <cstddef>

namespace vorn::detail {

namespace {

LabMatrices buildLabMatrices() {
  // Linear sRGB (D65) to XYZ; each row divided by its sum is the row divided by the white.
  double m[9] = {0.4124564, 0.3575761, 0.1804375, 0.2126729, 0.7151522,
                 0.0721750, 0.0193339, 0.1191920, 0.9503041};
  for (int r = 0; r < 3; ++r) {
    const double white = m[3 * r] + m[3 * r + 1] + m[3 * r + 2];
    for (int c = 0; c < 3; ++c) m[3 * r + c] /= white;
  }
  const double det = m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
                     m[2] * (m[3] * m[7] - m[4] * m[6]);
  const double inverse[9] = {(m[4] * m[8] - m[5] * m[7]) / det, (m[2] * m[7] - m[1] * m[8]) / det,
                             (m[1] * m[5] - m[2] * m[4]) / det, (m[5] * m[6] - m[3] * m[8]) / det,
                             (m[0] * m[8] - m[2] * m[6]) / det, (m[2] * m[3] - m[0] * m[5]) / det,
                             (m[3] * m[7] - m[4] * m[6]) / det, (m[1] * m[6] - m[0] * m[7]) / det,
                             (m[0] * m[4] - m[1] * m[3]) / det};
  LabMatrices matrices;
  for (std::size_t i = 0; i < 9; ++i) {
    matrices.toXyz[i] = static_cast<float>(m[i]);
    matrices.fromXyz[i] = static_cast<float>(inverse[i]);
  }
  return matrices;
}

}  // namespace

const LabMatrices& labMatrices() {
  static const LabMatrices matrices = buildLabMatrices();
  return matrices;
}

}  // namespace vorn::detail
