#pragma once

#include "vorn/core/affine_transform.h"
#include "vorn/core/crop_description.h"
#include "vorn/core/geometry.h"

namespace vorn {

/// Where a layer sits on the canvas and which render of the canvas it is prepared for. The
/// canvas is the upright, uncropped document; crop and orientation travel along for the
/// processor, while the ROI is already in canvas pixels and so needs neither.
struct ImageTransformSettings {
  _Size<int> canvasSize;
  /// Layer pixels to canvas pixels; identity for a layer the size of the canvas.
  AffineTransform layerToCanvas;
  CropDescription crop;
  /// EXIF numbering, 1 upright.
  int orientation = 1;
  /// The canvas region rendered, in canvas pixels.
  _Rect<float> roi;
  /// The size the ROI is resampled to.
  _Size<int> outputSize;

  /// A layer covering the whole canvas, rendered whole at full size.
  static ImageTransformSettings forCanvas(_Size<int> canvas);

  /// Layer pixels to output pixels: onto the canvas, then the ROI stretched to the output.
  AffineTransform layerToOutput() const;
  /// A ROI with positive sides and a positive output size.
  bool hasRender() const;
  /// Whether a layer of layerSize placed by layerToCanvas covers every canvas pixel.
  bool layerCoversCanvas(_Size<int> layerSize) const;

  bool operator==(const ImageTransformSettings& o) const;
  bool operator!=(const ImageTransformSettings& o) const { return !(*this == o); }
};

}  // namespace vorn
