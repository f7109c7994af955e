#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "effects/kernels/mix.h"
#include "vorn/core/geometry.h"
#include "vorn/core/pixel.h"

// Where a face's retouch applies: a feathered ellipse around the face, discs on the eyes, and a
// weight for pixels that look like skin.
namespace vorn::detail {

/// An ellipse feathered from full weight at `inner` of its radii to none at its rim.
struct SoftEllipse {
  float cx = 0.0f;
  float cy = 0.0f;
  float rx = 1.0f;
  float ry = 1.0f;
  float inner = 0.7f;

  float weight(float x, float y) const {
    const float u = (x - cx) / rx;
    const float v = (y - cy) / ry;
    return 1.0f - smoothStep(inner, 1.0f, std::sqrt(u * u + v * v));
  }
  /// The pixels the ellipse may touch.
  _Rect<int> bounds() const {
    const auto x0 = static_cast<int>(std::floor(cx - rx));
    const auto y0 = static_cast<int>(std::floor(cy - ry));
    return {x0, y0, static_cast<int>(std::ceil(cx + rx)) - x0 + 1,
            static_cast<int>(std::ceil(cy + ry)) - y0 + 1};
  }
};

/// A face in the pixels of the picture being rendered.
struct FaceShape {
  _Rect<float> box;
  SoftEllipse outline;
  std::vector<SoftEllipse> eyes;
};

/// The retouch area of a face box: the cascade's box runs from the brows to the mouth, so the
/// ellipse is taller and sits a little lower to take in forehead and chin. Without eyes from
/// the eye cascade they are placed where they sit in a frontal face box.
inline FaceShape faceShape(_Rect<float> box, const std::vector<_Rect<float>>& eyeBoxes) {
  FaceShape face;
  face.box = box;
  face.outline = {box.x + 0.5f * box.width, box.y + 0.55f * box.height, 0.62f * box.width,
                  0.78f * box.height, 0.7f};
  const float eyeRadius = 0.12f * box.width;
  if (eyeBoxes.size() == 2) {
    for (const _Rect<float>& eye : eyeBoxes) {
      const float radius = 0.45f * std::max(eye.width, eye.height);
      face.eyes.push_back(
          {eye.x + 0.5f * eye.width, eye.y + 0.5f * eye.height, radius, radius, 0.5f});
    }
  } else {
    for (const float across : {0.3f, 0.7f}) {
      face.eyes.push_back(
          {box.x + across * box.width, box.y + 0.4f * box.height, eyeRadius, eyeRadius, 0.5f});
    }
  }
  return face;
}

/// How much a colour looks like skin: a Gaussian around the skin cluster of BT.601 Cb/Cr on
/// display-encoded values, faded out in near-black where chroma means nothing.
inline float skinWeight(const PixelRGB<float>& p) {
  constexpr float kCbCentre = -0.10f;
  constexpr float kCrCentre = 0.11f;
  constexpr float kCbSigma = 0.06f;
  constexpr float kCrSigma = 0.06f;
  const float r = std::clamp(p.r, 0.0f, 1.0f);
  const float g = std::clamp(p.g, 0.0f, 1.0f);
  const float b = std::clamp(p.b, 0.0f, 1.0f);
  const float y = 0.299f * r + 0.587f * g + 0.114f * b;
  const float cb = (0.564f * (b - y) - kCbCentre) / kCbSigma;
  const float cr = (0.713f * (r - y) - kCrCentre) / kCrSigma;
  return std::exp(-0.5f * (cb * cb + cr * cr)) * smoothStep(0.04f, 0.12f, y);
}

}  // namespace vorn::detail
