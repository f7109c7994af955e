#pragma once

#include <vector>

#include "effects/lens/lens_database.h"
#include "vorn/core/geometry.h"

// The lens models are smooth over the frame: evaluated on a grid of nodes and interpolated, they
// cost a fraction of a per-pixel evaluation for errors far below a thousandth of a pixel.
namespace vorn::detail {

/// A lens modifier's source coordinates and shading gains at nodes every few frame pixels
/// (nodes sit at fixed frame positions, so a region render reads the values a whole one does).
class LensField {
 public:
  /// The nodes around `area` (in the coordinates of `frame`), evaluated in parallel.
  LensField(const LensModifier& modifier, _Size<int> frame, _Rect<int> area);

  /// Six source coordinates per pixel (as LensModifier::sourceAt) into coordinates and one gain
  /// per pixel into gains (either may be null) for count pixels of frame row y from column x.
  void row(int x, int y, int count, float* coordinates, float* gains) const;

 private:
  static constexpr int kValues = 7;
  /// The node at or before position v.
  int nodeOf(int v) const;

  int cell_ = 1;
  int firstColumn_ = 0;
  int firstRow_ = 0;
  int columns_ = 0;
  std::vector<float> nodes_;
};

}  // namespace vorn::detail
