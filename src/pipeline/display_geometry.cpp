// Where the pixels of a render land in the picture shown: orientation, crop and ROI.
#include "pipeline/display_geometry.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace vorn {
namespace {

/// Rounding slack for cell and pixel bounds that should be whole.
constexpr double kSnap = 1e-6;
/// Cell and pixel counts beyond this are refused before they become ints.
constexpr double kMaxSide = 1 << 30;

struct Bounds {
  double x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;

  void add(_Point<double> p) {
    x0 = std::min(x0, p.x);
    y0 = std::min(y0, p.y);
    x1 = std::max(x1, p.x);
    y1 = std::max(y1, p.y);
  }
  bool finite() const {
    return std::isfinite(x0) && std::isfinite(y0) && std::isfinite(x1) && std::isfinite(y1);
  }
};

/// The bounds of a rectangle's four corners under a map.
Bounds mappedBounds(const PlaneMap& map, double x, double y, double w, double h) {
  Bounds b;
  for (const double px : {x, x + w})
    for (const double py : {y, y + h}) b.add(map.apply(_Point<double>(px, py)));
  return b;
}

/// The whole cells covering the bounds (outward); values within kSnap of a whole number count
/// as that number. Limited to `limit` so that no double overflows an int.
_Rect<int> outwardCells(const Bounds& b, const _Rect<int>& limit) {
  if (!b.finite()) return {};
  const auto clampTo = [](double v, int lo, int hi) {
    return static_cast<int>(std::clamp(v, static_cast<double>(lo), static_cast<double>(hi)));
  };
  const int x0 = clampTo(std::floor(b.x0 + kSnap), limit.x, limit.x + limit.width);
  const int y0 = clampTo(std::floor(b.y0 + kSnap), limit.y, limit.y + limit.height);
  const int x1 = clampTo(std::ceil(b.x1 - kSnap), limit.x, limit.x + limit.width);
  const int y1 = clampTo(std::ceil(b.y1 - kSnap), limit.y, limit.y + limit.height);
  if (x1 <= x0 || y1 <= y0) return {};
  return _Rect<int>(x0, y0, x1 - x0, y1 - y0);
}

bool nearWhole(double v) {
  return std::fabs(v - std::round(v)) < kSnap;
}

/// A linear part that only swaps or mirrors axes, with a whole-pixel shift.
bool isWholePixelMap(const PlaneMap& m) {
  const auto unitOrZero = [](double v) { return nearWhole(v) && std::fabs(v) < 1.5; };
  if (!unitOrZero(m.a) || !unitOrZero(m.b) || !unitOrZero(m.c) || !unitOrZero(m.d)) return false;
  const bool straight = std::lround(m.b) == 0 && std::lround(m.c) == 0 && std::lround(m.a) != 0 &&
                        std::lround(m.d) != 0;
  const bool swapped = std::lround(m.a) == 0 && std::lround(m.d) == 0 && std::lround(m.b) != 0 &&
                       std::lround(m.c) != 0;
  return (straight || swapped) && nearWhole(m.tx) && nearWhole(m.ty);
}

}  // namespace

_Rect<int> intersectRects(const _Rect<int>& r, const _Rect<int>& s) {
  const int x0 = std::max(r.x, s.x), y0 = std::max(r.y, s.y);
  const int x1 = std::min(r.x + r.width, s.x + s.width);
  const int y1 = std::min(r.y + r.height, s.y + s.height);
  if (x1 <= x0 || y1 <= y0) return {};
  return _Rect<int>(x0, y0, x1 - x0, y1 - y0);
}

PlaneMap PlaneMap::from(const AffineTransform& t) {
  return PlaneMap{t.a, t.b, t.c, t.d, t.tx, t.ty};
}

_Point<double> PlaneMap::apply(_Point<double> p) const {
  return _Point<double>(a * p.x + b * p.y + tx, c * p.x + d * p.y + ty);
}

PlaneMap PlaneMap::then(const PlaneMap& n) const {
  return PlaneMap{n.a * a + n.b * c, n.a * b + n.b * d,          n.c * a + n.d * c,
                  n.c * b + n.d * d, n.a * tx + n.b * ty + n.tx, n.c * tx + n.d * ty + n.ty};
}

std::optional<PlaneMap> PlaneMap::inverse() const {
  const double det = a * d - b * c;
  if (!std::isfinite(det) || det == 0.0) return std::nullopt;
  const double i = 1.0 / det;
  return PlaneMap{d * i, -b * i, -c * i, a * i, (b * ty - d * tx) * i, (c * tx - a * ty) * i};
}

PlaneMap orientationMap(int orientation, _Size<int> canvas) {
  const auto w = static_cast<double>(canvas.width);
  const auto h = static_cast<double>(canvas.height);
  switch (orientation) {
    case 2:
      return PlaneMap{-1, 0, 0, 1, w, 0};
    case 3:
      return PlaneMap{-1, 0, 0, -1, w, h};
    case 4:
      return PlaneMap{1, 0, 0, -1, 0, h};
    case 5:
      return PlaneMap{0, 1, 1, 0, 0, 0};
    case 6:
      return PlaneMap{0, -1, 1, 0, h, 0};
    case 7:
      return PlaneMap{0, -1, -1, 0, h, w};
    case 8:
      return PlaneMap{0, 1, -1, 0, 0, w};
    default:
      return PlaneMap{};
  }
}

_Size<int> uprightSize(int orientation, _Size<int> canvas) {
  return orientation >= 5 && orientation <= 8 ? _Size<int>(canvas.height, canvas.width) : canvas;
}

std::optional<DisplayGeometry> DisplayGeometry::plan(const DisplayRequest& r, std::string& error) {
  if (r.canvas.width < 1 || r.canvas.height < 1 || r.size.width < 1 || r.size.height < 1 ||
      !(r.roi.width > 0.0f) || !(r.roi.height > 0.0f) || !std::isfinite(r.roi.x) ||
      !std::isfinite(r.roi.y) || !std::isfinite(r.roi.width) || !std::isfinite(r.roi.height)) {
    error = "The canvas, ROI and size must be positive and finite";
    return std::nullopt;
  }
  if (r.orientation < 1 || r.orientation > 8) {
    error = "Incorrect image orientation! It must be 1..8";
    return std::nullopt;
  }
  const bool cropped = r.crop != CropDescription();
  if (cropped && (!std::isfinite(r.crop.rotation) || r.crop.cropRect.width < 1 ||
                  r.crop.cropRect.height < 1)) {
    error = "Incorrect crop description! The rectangle needs positive sides, the angle a value";
    return std::nullopt;
  }
  DisplayGeometry g;
  g.scale_ = _Point<double>(static_cast<double>(r.size.width) / r.roi.width,
                            static_cast<double>(r.size.height) / r.roi.height);
  const PlaneMap orient = orientationMap(r.orientation, r.canvas);
  const Bounds upright = mappedBounds(orient, r.roi.x, r.roi.y, r.roi.width, r.roi.height);
  PlaneMap toDisplay = orient;
  _Rect<double> display(upright.x0, upright.y0, upright.x1 - upright.x0, upright.y1 - upright.y0);
  if (cropped) {
    toDisplay = orient.then(PlaneMap::from(r.crop.getAffineTransform()));
    const _Rect<float> shown = r.crop.roiForWorkingRoi(
        _Rect<float>(static_cast<float>(display.x), static_cast<float>(display.y),
                     static_cast<float>(display.width), static_cast<float>(display.height)));
    display = _Rect<double>(shown.x, shown.y, shown.width, shown.height);
    // The whole canvas shows the whole crop, black where it reaches past the picture.
    if (r.roi == _Rect<float>(0.0f, 0.0f, static_cast<float>(r.canvas.width),
                              static_cast<float>(r.canvas.height)))
      display = _Rect<double>(0.0, 0.0, r.crop.cropRect.width, r.crop.cropRect.height);
  }
  // The display axes run along the canvas axes, or across them for the swapping orientations.
  const bool swap = r.orientation >= 5;
  const double sx = swap ? g.scale_.y : g.scale_.x;
  const double sy = swap ? g.scale_.x : g.scale_.y;
  const double outputWidth = std::round(display.width * sx);
  const double outputHeight = std::round(display.height * sy);
  if (!(outputWidth <= kMaxSide && outputHeight <= kMaxSide)) {
    error = "The cropped picture at this scale is too large";
    return std::nullopt;
  }
  g.output_ = _Size<int>(static_cast<int>(outputWidth), static_cast<int>(outputHeight));
  if (g.output_.width < 1 || g.output_.height < 1) {
    error = "The processingROI shows nothing of the cropped picture";
    return std::nullopt;
  }
  g.canvasToOutput_ = toDisplay.then(PlaneMap{sx, 0, 0, sy, -display.x * sx, -display.y * sy});
  const std::optional<PlaneMap> back = g.canvasToOutput_.inverse();
  if (!back) {
    error = "Incorrect crop description! Its map cannot be inverted";
    return std::nullopt;
  }
  g.outputToCanvas_ = *back;
  g.anchor_ = g.outputToCanvas_.apply(_Point<double>(0.0, 0.0));
  g.wholePixel_ = isWholePixelMap(g.cellToCanvas().then(g.canvasToOutput_));
  // A turned output is resampled anyway; cells on the canvas grid keep the render itself free
  // of a second resample.
  if (!g.wholePixel_) g.anchor_ = _Point<double>(0.0, 0.0);
  // Inward here: a cell only partly on the canvas would be rendered from past its edge.
  const Bounds canvas = mappedBounds(g.canvasToCell(), 0.0, 0.0, r.canvas.width, r.canvas.height);
  if (!(std::fabs(canvas.x0) <= kMaxSide && std::fabs(canvas.x1) <= kMaxSide &&
        std::fabs(canvas.y0) <= kMaxSide && std::fabs(canvas.y1) <= kMaxSide)) {
    error = "The processingROI is too small for the processingSize";
    return std::nullopt;
  }
  const int cx0 = static_cast<int>(std::ceil(canvas.x0 - kSnap));
  const int cy0 = static_cast<int>(std::ceil(canvas.y0 - kSnap));
  const int cx1 = static_cast<int>(std::floor(canvas.x1 + kSnap));
  const int cy1 = static_cast<int>(std::floor(canvas.y1 + kSnap));
  if (cx1 <= cx0 || cy1 <= cy0) {
    error = "The processingSize leaves no whole pixel of the canvas";
    return std::nullopt;
  }
  g.canvasCells_ = _Rect<int>(cx0, cy0, cx1 - cx0, cy1 - cy0);
  return g;
}

PlaneMap DisplayGeometry::cellToCanvas() const {
  return PlaneMap{1.0 / scale_.x, 0, 0, 1.0 / scale_.y, anchor_.x, anchor_.y};
}

PlaneMap DisplayGeometry::canvasToCell() const {
  return PlaneMap{scale_.x, 0, 0, scale_.y, -anchor_.x * scale_.x, -anchor_.y * scale_.y};
}

_Rect<int> DisplayGeometry::neededCells() const {
  const Bounds b =
      mappedBounds(outputToCanvas_.then(canvasToCell()), 0.0, 0.0, output_.width, output_.height);
  const _Rect<int> limit = canvasCells_.inset(-2, -2);
  const _Rect<int> cells = outwardCells(b, limit);
  return wholePixel_ ? cells : intersectRects(cells.inset(-1, -1), limit);
}

_Rect<float> DisplayGeometry::canvasRoi(const _Rect<int>& cells) const {
  const auto snapped = [](double v) {
    return static_cast<float>(nearWhole(v) ? std::round(v) : v);
  };
  const double x0 = anchor_.x + cells.x / scale_.x;
  const double y0 = anchor_.y + cells.y / scale_.y;
  const double x1 = anchor_.x + (cells.x + cells.width) / scale_.x;
  const double y1 = anchor_.y + (cells.y + cells.height) / scale_.y;
  const float left = snapped(x0), top = snapped(y0);
  return _Rect<float>(left, top, snapped(x1) - left, snapped(y1) - top);
}

_Rect<int> DisplayGeometry::cellsForCanvasRect(const _Rect<float>& rect) const {
  return outwardCells(mappedBounds(canvasToCell(), rect.x, rect.y, rect.width, rect.height),
                      canvasCells_.inset(-1, -1));
}

_Rect<int> DisplayGeometry::outputRectForCells(const _Rect<int>& cells) const {
  const PlaneMap cellToOutput = cellToCanvas().then(canvasToOutput_);
  const _Rect<int> all(0, 0, output_.width, output_.height);
  const _Rect<int> touched = outwardCells(
      mappedBounds(cellToOutput, cells.x, cells.y, cells.width, cells.height), all.inset(-2, -2));
  // A bilinear sample also reads the cells next to the one it falls in.
  return intersectRects(wholePixel_ ? touched : touched.inset(-1, -1), all);
}

bool DisplayGeometry::isIdentity(const _Rect<int>& cells) const {
  const PlaneMap m = outputToRender(cells);
  return wholePixel_ && cells == _Rect<int>(0, 0, output_.width, output_.height) &&
         std::lround(m.a) == 1 && std::lround(m.d) == 1 && std::lround(m.tx) == 0 &&
         std::lround(m.ty) == 0;
}

PlaneMap DisplayGeometry::outputToRender(const _Rect<int>& cells) const {
  return PlaneMap{1, 0, 0, 1, 0.5, 0.5}
      .then(outputToCanvas_)
      .then(canvasToCell())
      .then(PlaneMap{1, 0, 0, 1, -0.5 - cells.x, -0.5 - cells.y});
}

}  // namespace vorn
