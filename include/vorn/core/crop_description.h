#pragma once

#include "vorn/core/affine_transform.h"
#include "vorn/core/geometry.h"

namespace vorn {

/// A crop rectangle of the working image turned by `rotation` radians about its own centre.
/// The default value means no crop at all.
struct CropDescription {
  float rotation = 0.0f;
  _Rect<int> cropRect;

  CropDescription() = default;
  CropDescription(float r, const _Rect<int>& rect) : rotation(r), cropRect(rect) {}

  float getRotation() const { return rotation; }
  _Rect<int> getCropRect() const { return cropRect; }
  /// Maps working-image coordinates into crop coordinates.
  AffineTransform getAffineTransform() const;
  /// The working-image region (clamped to workingSize) that a region of the crop needs.
  _Rect<float> workRoiForRoi(_Rect<float> roi, _Size<int> workingSize) const;
  /// The crop region (clamped to the crop's size) that a working-image region touches.
  _Rect<float> roiForWorkingRoi(_Rect<float> roi) const;

  bool operator==(const CropDescription& o) const;
  bool operator!=(const CropDescription& o) const { return !(*this == o); }
};

}  // namespace vorn
