#pragma once

#include <optional>
#include <vector>

#include "effects/color/color_kernels.h"
#include "effects/raw/dcp_profile.h"

// A camera profile turned into the per-pixel steps it applies to the frame's linear light.
namespace vorn::detail {

/// A hue/saturation table ready for lookups in HSV of linear working-space light.
class HueSatLookup {
 public:
  /// Entries of a and b mixed as (1 - weightB) a + weightB b; b may be empty.
  HueSatLookup(const DcpHueSatMap& a, const DcpHueSatMap& b, float weightB);
  /// Shifts hue, scales saturation and value of linear (r, g, b) by the trilinear table entry.
  void apply(float& r, float& g, float& b) const;

 private:
  const float* entry(std::size_t v, std::size_t h, std::size_t s) const {
    return &data_[3 * ((v * hues_ + h) * saturations_ + s)];
  }
  std::size_t hues_, saturations_, values_;
  bool srgbValues_;
  std::vector<float> data_;
};

/// Every step of a profile for one white: working -> camera by the profile's colour matrix,
/// camera -> XYZ (D50) by its forward matrix, hue/saturation map, look table and tone curve.
struct DcpRendering {
  DcpRendering(const DcpProfile& profile, double whiteKelvin);
  /// True when no step changes any colour.
  bool isIdentity() const;
  void apply(float& r, float& g, float& b) const {
    matrix.apply(r, g, b);
    if (hueSat) hueSat->apply(r, g, b);
    if (look) look->apply(r, g, b);
    if (curve) {
      r = (*curve)(r);
      g = (*curve)(g);
      b = (*curve)(b);
    }
  }

  Matrix3 matrix;
  std::optional<HueSatLookup> hueSat;
  std::optional<HueSatLookup> look;
  std::optional<ChannelCurve> curve;
};

}  // namespace vorn::detail
