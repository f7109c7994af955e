#include "vorn/core/crop_description.h"

#include <algorithm>
#include <cmath>

#include "vorn/core/float_compare.h"

namespace vorn {
namespace {

struct Bounds {
  float minX, maxX, minY, maxY;
};

// Corners (x0|x1, y0|y1) through (X, Y) -> (cx*X + sx*Y, cy*Y + sy*X), then their bounds.
Bounds turnedBounds(float x0, float x1, float y0, float y1, float cx, float sx, float cy,
                    float sy) {
  Bounds b{INFINITY, -INFINITY, INFINITY, -INFINITY};
  for (float X : {x0, x1}) {
    for (float Y : {y0, y1}) {
      const float mx = cx * X + sx * Y;
      const float my = cy * Y + sy * X;
      b.minX = std::min(b.minX, mx);
      b.maxX = std::max(b.maxX, mx);
      b.minY = std::min(b.minY, my);
      b.maxY = std::max(b.maxY, my);
    }
  }
  return b;
}

float clampTo(float v, float limit) { return std::min(limit, std::max(v, 0.0f)); }

}  // namespace

AffineTransform CropDescription::getAffineTransform() const {
  AffineTransform t;
  if (isFloatEqual(rotation, 0.0f) && cropRect.isZero()) return t;
  const float w = static_cast<float>(cropRect.width);
  const float h = static_cast<float>(cropRect.height);
  t.translate(w * 0.5f, h * 0.5f);
  t.rotate(-rotation);
  t.translate(-w * 0.5f, -h * 0.5f);
  t.translate(static_cast<float>(-cropRect.x), static_cast<float>(-cropRect.y));
  return t;
}

_Rect<float> CropDescription::workRoiForRoi(_Rect<float> roi, _Size<int> workingSize) const {
  const float hw = static_cast<float>(cropRect.width) * 0.5f;
  const float hh = static_cast<float>(cropRect.height) * 0.5f;
  const float c = std::cos(rotation);
  const float s = std::sin(rotation);
  // The inverse of the turn in getAffineTransform: (c*X + s*Y, c*Y - s*X).
  const Bounds b = turnedBounds(roi.x - hw, roi.x + roi.width - hw, roi.y - hh,
                                roi.y + roi.height - hh, c, s, c, -s);
  const float x = static_cast<float>(cropRect.x);
  const float y = static_cast<float>(cropRect.y);
  const float ww = static_cast<float>(workingSize.width);
  const float wh = static_cast<float>(workingSize.height);
  const float left = clampTo(x + b.minX + hw, ww);
  const float right = clampTo(x + b.maxX + hw, ww);
  const float top = clampTo(y + b.minY + hh, wh);
  const float bottom = clampTo(y + b.maxY + hh, wh);
  return _Rect<float>(left, top, right - left, bottom - top);
}

_Rect<float> CropDescription::roiForWorkingRoi(_Rect<float> roi) const {
  const float w = static_cast<float>(cropRect.width);
  const float h = static_cast<float>(cropRect.height);
  const float hw = w * 0.5f;
  const float hh = h * 0.5f;
  const float c = std::cos(rotation);
  const float s = std::sin(rotation);
  const float x = static_cast<float>(cropRect.x);
  const float y = static_cast<float>(cropRect.y);
  // The turn of getAffineTransform: (c*X - s*Y, s*X + c*Y).
  const Bounds b = turnedBounds(roi.x - x - hw, roi.x + roi.width - x - hw, roi.y - y - hh,
                                roi.y + roi.height - y - hh, c, -s, c, s);
  const float left = clampTo(b.minX + hw, w);
  const float right = clampTo(b.maxX + hw, w);
  const float top = clampTo(b.minY + hh, h);
  const float bottom = clampTo(b.maxY + hh, h);
  return _Rect<float>(left, top, right - left, bottom - top);
}

bool CropDescription::operator==(const CropDescription& o) const {
  return isFloatEqual(rotation, o.rotation) && cropRect == o.cropRect;
}

}  // namespace vorn
