#pragma once

#include <optional>
#include <string>

#include "vorn/core/crop_description.h"
#include "vorn/core/geometry.h"
#include "vorn/core/image_data.h"

namespace vorn {

/// A plane map in double precision, so that whole-pixel offsets of large frames stay whole.
struct PlaneMap {
  double a = 1.0, b = 0.0, c = 0.0, d = 1.0, tx = 0.0, ty = 0.0;

  static PlaneMap from(const AffineTransform& t);
  _Point<double> apply(_Point<double> p) const;
  /// `next` applied after this one.
  PlaneMap then(const PlaneMap& next) const;
  std::optional<PlaneMap> inverse() const;
};

/// The common part of two rectangles; all-zero when they do not overlap.
_Rect<int> intersectRects(const _Rect<int>& r, const _Rect<int>& s);

/// EXIF orientation 1..8 as a map of canvas points onto the upright frame (pixel i spans
/// [i, i + 1)); an unknown value maps as 1.
PlaneMap orientationMap(int orientation, _Size<int> canvas);
/// The upright frame: the canvas with its sides swapped for orientations 5..8.
_Size<int> uprightSize(int orientation, _Size<int> canvas);

/// What a render shows. The display frame is the upright canvas, cut to the crop when one
/// applies; the crop rectangle is in upright-frame pixels. A canvas ROI shows the part of the
/// display frame it maps to, at the ROI's scale per canvas axis.
struct DisplayRequest {
  _Size<int> canvas;
  /// The default value when no crop applies.
  CropDescription crop;
  int orientation = 1;
  /// In canvas pixels, inside the canvas, with positive sides.
  _Rect<float> roi;
  _Size<int> size;
};

/// The engine renders cells of a grid of canvas points one output pixel apart. Without a crop
/// rotation the grid is anchored at the output's top-left corner, so the output is a
/// whole-pixel copy (or turn) of the render; a turned crop takes the grid of the canvas origin
/// and one bilinear resample.
class DisplayGeometry {
 public:
  /// Empty, with `error` set, when the parameters are unusable or the ROI shows nothing.
  static std::optional<DisplayGeometry> plan(const DisplayRequest& request, std::string& error);

  _Size<int> outputSize() const { return output_; }
  /// The cells the output pixels read, bilinear neighbours included.
  _Rect<int> neededCells() const;
  /// The cells wholly inside the canvas.
  _Rect<int> canvasCells() const { return canvasCells_; }
  /// The canvas region and size the engine renders for a block of cells.
  _Rect<float> canvasRoi(const _Rect<int>& cells) const;
  /// The cells a canvas region touches, kept within one cell of the canvas.
  _Rect<int> cellsForCanvasRect(const _Rect<float>& rect) const;
  /// The output pixels a block of cells touches, clipped to the output.
  _Rect<int> outputRectForCells(const _Rect<int>& cells) const;
  /// Whether the render of `cells` already is the output.
  bool isIdentity(const _Rect<int>& cells) const;

  /// The output made from a render of `cells`: a whole-pixel copy or turn when the geometry
  /// allows, one bilinear resample otherwise; pixels off the canvas are black. Written into
  /// `into` when it has the output's size (every pixel is written), else into a new buffer.
  std::shared_ptr<_ImageData<PixelRGB<float>>> present(
      const _ImageData<PixelRGB<float>>& render, const _Rect<int>& cells,
      std::shared_ptr<_ImageData<PixelRGB<float>>> into = {}) const;
  std::shared_ptr<_ImageData<float>> present(const _ImageData<float>& render,
                                             const _Rect<int>& cells) const;

 private:
  template <typename T>
  std::shared_ptr<_ImageData<T>> presentAny(const _ImageData<T>& render, const _Rect<int>& cells,
                                            std::shared_ptr<_ImageData<T>> into) const;
  PlaneMap cellToCanvas() const;
  PlaneMap canvasToCell() const;
  /// Output pixel centres to render pixel centres, both with pixel i centred on i.
  PlaneMap outputToRender(const _Rect<int>& cells) const;

  _Size<int> output_;
  PlaneMap outputToCanvas_;
  PlaneMap canvasToOutput_;
  /// The canvas point of cell (0, 0) and cells per canvas pixel along each canvas axis.
  _Point<double> anchor_;
  _Point<double> scale_;
  _Rect<int> canvasCells_;
  /// Cells map onto output pixels one to one (a whole-pixel shift, flip or transpose).
  bool wholePixel_ = false;
};

}  // namespace vorn
