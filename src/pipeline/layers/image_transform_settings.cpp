#include "vorn/pipeline/image_transform_settings.h"

#include <array>

namespace vorn {

ImageTransformSettings ImageTransformSettings::forCanvas(_Size<int> canvas) {
  ImageTransformSettings settings;
  settings.canvasSize = canvas;
  settings.roi =
      _Rect<float>(0.0f, 0.0f, static_cast<float>(canvas.width), static_cast<float>(canvas.height));
  settings.outputSize = canvas;
  return settings;
}

AffineTransform ImageTransformSettings::layerToOutput() const {
  AffineTransform toOutput = layerToCanvas;
  toOutput.append(AffineTransform(1.0f, 0.0f, 0.0f, 1.0f, -roi.x, -roi.y));
  if (hasRender())
    toOutput.append(AffineTransform(static_cast<float>(outputSize.width) / roi.width, 0.0f, 0.0f,
                                    static_cast<float>(outputSize.height) / roi.height, 0.0f,
                                    0.0f));
  return toOutput;
}

bool ImageTransformSettings::hasRender() const {
  return roi.width > 0.0f && roi.height > 0.0f && outputSize.width > 0 && outputSize.height > 0;
}

bool ImageTransformSettings::layerCoversCanvas(_Size<int> layerSize) const {
  if (layerSize.width < 1 || layerSize.height < 1) return false;
  AffineTransform toLayer = layerToCanvas;
  if (!toLayer.invert()) return false;
  // A parallelogram holds the canvas rectangle exactly when it holds its four corners; the
  // tolerance absorbs float error of transforms that place the layer edge on the canvas edge.
  constexpr float kTolerance = 1e-3f;
  const auto w = static_cast<float>(canvasSize.width);
  const auto h = static_cast<float>(canvasSize.height);
  const std::array<_Point<float>, 4> corners = {_Point<float>(0, 0), _Point<float>(w, 0),
                                                _Point<float>(0, h), _Point<float>(w, h)};
  for (const _Point<float>& corner : corners) {
    const _Point<float> p = toLayer.transformPoint(corner);
    if (!(p.x >= -kTolerance && p.y >= -kTolerance &&
          p.x <= static_cast<float>(layerSize.width) + kTolerance &&
          p.y <= static_cast<float>(layerSize.height) + kTolerance))
      return false;
  }
  return true;
}

bool ImageTransformSettings::operator==(const ImageTransformSettings& o) const {
  return canvasSize == o.canvasSize && layerToCanvas == o.layerToCanvas && crop == o.crop &&
         orientation == o.orientation && roi == o.roi && outputSize == o.outputSize;
}

}  // namespace vorn
