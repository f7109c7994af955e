#pragma once

#include <memory>
#include <string>
#include <vector>

#include "effects/render.h"
#include "vorn/core/geometry.h"

// Finding faces and eyes for the face effects.
namespace vorn::detail {

/// One face found in a picture, in that picture's pixels; eyes holds 0 or 2 boxes, left first.
struct DetectedFace {
  _Rect<float> box;
  std::vector<_Rect<float>> eyes;
};

/// The environment variable, then the DataStore key, naming the folder of the Haar cascades;
/// without either, the folder of Debian's opencv-data package found at configure time.
inline constexpr const char* kCascadeDirEnvironment = "VORN_HAAR_CASCADE_DIR";
inline constexpr const char* kCascadeDirSetting = "FaceDetection.CascadeDir";
std::string cascadeDirectory();

/// Faces in `rect` of picture, ordered left to right, found on a reduced 8-bit copy; empty (and
/// one log line per missing file) when the frontal-face cascade cannot be loaded.
std::vector<DetectedFace> detectFaces(const ImageRGBf& picture, _Rect<int> rect,
                                      const RenderControl& control);

/// The faces of a whole frame in its pixels, remembered for the frame object (an editor's
/// source photo) so that each later call costs nothing.
std::vector<DetectedFace> facesOfFrame(const std::shared_ptr<const ImageRGBf>& frame);

/// Forgets the faces remembered for recently seen pictures.
void clearDetectedFaces();

}  // namespace vorn::detail
