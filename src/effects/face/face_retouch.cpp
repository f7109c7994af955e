#include <algorithm>
#include <cmath>
#include <optional>
#include <tuple>
#include <vector>

#include "effects/face/face_detection.h"
#include "effects/face/face_shape.h"
#include "effects/kernels/gaussian.h"
#include "effects/kernels/guided_filter.h"
#include "effects/kernels/luminance.h"
#include "effects/kernels/mix.h"
#include "effects/render.h"
#include "vorn/effects/face_effects.h"

namespace vorn::detail {

namespace {

/// Largest smoothing radius and eye-detail sigma, in reference pixels; below them both follow
/// the size of the face.
constexpr float kMaxSmoothingRadius = 40.0f;
constexpr float kMaxEyeSigma = 24.0f;
/// Smoothing radius and eye-detail sigma as fractions of the face and eye sizes.
constexpr float kSmoothingPerFaceWidth = 0.035f;
constexpr float kEyeSigmaPerRadius = 0.3f;
/// Skin texture below this standard deviation is flattened; stronger edges (eyes, lips,
/// nostrils) stand above the guided filter's eps and keep their shape.
constexpr float kSkinTexture = 0.06f;
/// Full Face Light raises a mid grey by this fraction of itself.
constexpr float kLightLift = 0.35f;
/// Full Eye Enhancement: gain of the eyes' fine detail and their brightening.
constexpr float kEyeDetailGain = 0.8f;
constexpr float kEyeBrighten = 0.06f;
/// Values fed to the filters: non-finite ones as black, huge ones as a bright highlight, so a
/// bad pixel neither spreads nor overflows the variances.
constexpr float kLargestFiltered = 16.0f;

float filtered(float v) {
  return v > 0.0f ? std::min(v, kLargestFiltered) : 0.0f;  // NaN becomes 0
}
PixelRGB<float> filtered(const PixelRGB<float>& p) {
  return PixelRGB<float>(filtered(p.r), filtered(p.g), filtered(p.b));
}

int eyeSigmaReach(float sigma) {
  return static_cast<int>(std::ceil(4.0f * sigma)) + 1;
}

std::optional<_Rect<int>> intersect(_Rect<int> a, _Rect<int> b) {
  const int x0 = std::max(a.x, b.x);
  const int y0 = std::max(a.y, b.y);
  const int x1 = std::min(a.x + a.width, b.x + b.width);
  const int y1 = std::min(a.y + a.height, b.y + b.height);
  if (x1 <= x0 || y1 <= y0) return std::nullopt;
  return _Rect<int>(x0, y0, x1 - x0, y1 - y0);
}

/// What one face adds to the picture over `rect` (pixels of the source), channel by channel.
struct FaceDelta {
  _Rect<int> rect;
  Plane r;
  Plane g;
  Plane b;
};

/// The faces of the render in source pixels: the host's, else those found on the statistics
/// picture (the whole picture when the call has a reference, so that every region agrees).
std::vector<FaceShape> facesInSource(const StencilWindow& window,
                                     const std::vector<FaceRetouchEffect::KnownFace>* knownFaces) {
  std::vector<FaceShape> faces;
  if (knownFaces) {
    const auto place = [&](const _Rect<int>& box) {
      return _Rect<float>(static_cast<float>(box.x + window.frame.x),
                          static_cast<float>(box.y + window.frame.y), static_cast<float>(box.width),
                          static_cast<float>(box.height));
    };
    for (const FaceRetouchEffect::KnownFace& face : *knownFaces) {
      std::vector<_Rect<float>> eyes;
      for (const _Rect<int>& eye : face.eyes) eyes.push_back(place(eye));
      faces.push_back(faceShape(place(face.box), eyes));
    }
    std::sort(faces.begin(), faces.end(), [](const FaceShape& a, const FaceShape& b) {
      return std::tie(a.box.x, a.box.y) < std::tie(b.box.x, b.box.y);
    });
    return faces;
  }
  const std::vector<DetectedFace> found =
      detectFaces(window.statistics, window.statisticsRect, window.control);
  // A separate reference covers the whole frame, possibly at another size.
  const bool reference = &window.statistics != &window.source;
  const _Rect<int> from = window.statisticsRect;
  const float sx = reference ? static_cast<float>(window.frame.width) /
                                   static_cast<float>(std::max(1, from.width))
                             : 1.0f;
  const float sy = reference ? static_cast<float>(window.frame.height) /
                                   static_cast<float>(std::max(1, from.height))
                             : 1.0f;
  const float ox = reference ? static_cast<float>(window.frame.x) : static_cast<float>(from.x);
  const float oy = reference ? static_cast<float>(window.frame.y) : static_cast<float>(from.y);
  const auto place = [&](_Rect<float> box) {
    return _Rect<float>(ox + (box.x - static_cast<float>(from.x)) * sx,
                        oy + (box.y - static_cast<float>(from.y)) * sy, box.width * sx,
                        box.height * sy);
  };
  for (const DetectedFace& face : found) {
    std::vector<_Rect<float>> eyes;
    for (const _Rect<float>& eye : face.eyes) eyes.push_back(place(eye));
    faces.push_back(faceShape(place(face.box), eyes));
  }
  return faces;
}

/// Gain of Face Light at luminance y: y + k y (1 - y) over y, a lift that leaves black and
/// white where they are and is largest in the midtones.
float lightGain(float y, float strength) {
  return 1.0f + strength * kLightLift * std::clamp(1.0f - y, 0.0f, 1.0f);
}

// Skin softening: a guided filter guided by luminance (He, Sun and Tang) flattens texture while
// keeping the face's edges, blended in by a skin-chroma weight times the feathered outline;
// eyes get unsharp-mask detail on luminance; Face Light is a midtone lift inside the outline.
std::optional<FaceDelta> retouchFace(const StencilWindow& window, const FaceShape& face,
                                     const FaceRetouchEffect::Retouch& retouch) {
  const int smoothingRadius =
      std::clamp(static_cast<int>(std::lround(kSmoothingPerFaceWidth * face.box.width)), 1,
                 window.pixels(kMaxSmoothingRadius));
  const float eyeSigma =
      std::min(kEyeSigmaPerRadius * (face.eyes.empty() ? 1.0f : face.eyes.front().rx),
               static_cast<float>(window.pixels(kMaxEyeSigma)));
  const int margin = std::max(2 * smoothingRadius, eyeSigmaReach(eyeSigma));
  const auto area = intersect(face.outline.bounds().inset(-margin, -margin), window.input);
  if (!area) return std::nullopt;
  const _Rect<int> rect = *area;
  const auto plane = [&](auto value) { return planeOf(window.source, rect, value); };
  const Plane luma = plane([](const PixelRGB<float>& p) { return luminance(filtered(p)); });
  Plane smoothR;
  Plane smoothG;
  Plane smoothB;
  if (retouch.smoothing > 0.0f) {
    const float eps = kSkinTexture * kSkinTexture;
    guidedFilter(luma, plane([](const PixelRGB<float>& p) { return filtered(p.r); }),
                 smoothingRadius, eps, smoothR, &window.control);
    guidedFilter(luma, plane([](const PixelRGB<float>& p) { return filtered(p.g); }),
                 smoothingRadius, eps, smoothG, &window.control);
    guidedFilter(luma, plane([](const PixelRGB<float>& p) { return filtered(p.b); }),
                 smoothingRadius, eps, smoothB, &window.control);
  }
  Plane lumaBlur;
  if (retouch.eyes > 0.0f) gaussianBlur(luma, eyeSigma, lumaBlur, &window.control);
  window.control.checkpoint();

  FaceDelta delta{rect, Plane(rect.width, rect.height), Plane(rect.width, rect.height),
                  Plane(rect.width, rect.height)};
  parallelRowsCancellable(rect.height, window.control, [&](int first, int end) {
    for (int row = first; row < end; ++row) {
      const PixelRGB<float>* in = window.source.row(rect.y + row) + rect.x;
      const std::size_t offset =
          static_cast<std::size_t>(row) * static_cast<std::size_t>(rect.width);
      const auto y = static_cast<float>(rect.y + row) + 0.5f;
      for (int i = 0; i < rect.width; ++i) {
        const std::size_t k = offset + static_cast<std::size_t>(i);
        const float x = static_cast<float>(rect.x + i) + 0.5f;
        const PixelRGB<float> original = filtered(in[i]);
        PixelRGB<float> c = original;
        const float inside = face.outline.weight(x, y);
        float onEye = 0.0f;
        if (retouch.eyes > 0.0f)
          for (const SoftEllipse& eye : face.eyes) onEye = std::max(onEye, eye.weight(x, y));
        if (inside > 0.0f || onEye > 0.0f) {
          if (retouch.smoothing > 0.0f) {
            const PixelRGB<float> smooth(smoothR.data()[k], smoothG.data()[k], smoothB.data()[k]);
            c = mix(c, smooth, retouch.smoothing * inside * skinWeight(smooth));
          }
          if (onEye > 0.0f) {
            // Added detail fades towards white, so the whites of the eyes do not clip.
            float detail =
                retouch.eyes * onEye * kEyeDetailGain * (luma.data()[k] - lumaBlur.data()[k]);
            if (detail > 0.0f) detail *= std::clamp(1.0f - luma.data()[k], 0.0f, 1.0f);
            const float brighten = 1.0f + retouch.eyes * onEye * kEyeBrighten;
            c = PixelRGB<float>(std::max(0.0f, (c.r + detail) * brighten),
                                std::max(0.0f, (c.g + detail) * brighten),
                                std::max(0.0f, (c.b + detail) * brighten));
          }
          if (retouch.light > 0.0f) {
            const float gain = lightGain(luminance(c), retouch.light * inside);
            c = PixelRGB<float>(c.r * gain, c.g * gain, c.b * gain);
          }
        }
        delta.r.data()[k] = c.r - original.r;
        delta.g.data()[k] = c.g - original.g;
        delta.b.data()[k] = c.b - original.b;
      }
    }
  });
  return delta;
}

}  // namespace

int FaceRetouchEffect::reach(float spatialScale) const {
  return std::max(2 * pixelsAt(kMaxSmoothingRadius, spatialScale),
                  eyeSigmaReach(static_cast<float>(pixelsAt(kMaxEyeSigma, spatialScale))));
}

void FaceRetouchEffect::render(const Window& window) const {
  const Retouch settings = retouch();
  std::vector<FaceShape> faces = facesInSource(window, hasKnownFaces_ ? &knownFaces_ : nullptr);
  if (settings.faceIndex >= 0) {
    const auto index = static_cast<std::size_t>(settings.faceIndex);
    faces = index < faces.size() ? std::vector<FaceShape>{faces[index]} : std::vector<FaceShape>{};
  }
  std::vector<FaceDelta> deltas;
  for (const FaceShape& face : faces) {
    if (auto delta = retouchFace(window, face, settings)) deltas.push_back(std::move(*delta));
  }
  // Each face adds its own change to the source, so overlapping faces do not read each other's
  // results and a region render reads nothing another region wrote.
  const int inputWidth = window.input.width;
  window.forOutputRows([&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index,
                           std::size_t count) {
    std::copy(in, in + count, out);
    const int y = window.input.y + static_cast<int>(index / static_cast<std::size_t>(inputWidth));
    const int x0 = window.output.x;
    for (const FaceDelta& delta : deltas) {
      if (y < delta.rect.y || y >= delta.rect.y + delta.rect.height) continue;
      const int from = std::max(x0, delta.rect.x);
      const int to = std::min(x0 + static_cast<int>(count), delta.rect.x + delta.rect.width);
      const std::size_t base =
          static_cast<std::size_t>(y - delta.rect.y) * static_cast<std::size_t>(delta.rect.width);
      for (int x = from; x < to; ++x) {
        const std::size_t k = base + static_cast<std::size_t>(x - delta.rect.x);
        PixelRGB<float>& o = out[x - x0];
        o = PixelRGB<float>(o.r + delta.r.data()[k], o.g + delta.g.data()[k],
                            o.b + delta.b.data()[k]);
      }
    }
  });
}

}  // namespace vorn::detail
