// Lens blur: a flat disc kernel in approximately linear light, highlights boosted before the blur
// and compressed after it so that bright points bloom into discs as a lens draws them.
#include <algorithm>
#include <cmath>
#include <vector>

#include "effects/creative/slider.h"
#include "effects/kernels/decimate.h"
#include "effects/kernels/frame_geometry.h"
#include "effects/kernels/mix.h"
#include "effects/kernels/plane.h"
#include "effects/kernels/window_blur.h"
#include "vorn/effects/creative_effects.h"

namespace vorn {

namespace {

using detail::fraction;
using detail::signedFraction;

using detail::ImageRGBf;

/// The bokeh disc's radius in reference pixels.
float discRadius(const Effect& effect) {
  return 60.0f * fraction(effect, 0);
}

/// The disc is convolved at a resolution where its radius is at most this many pixels, so the
/// cost per output pixel does not grow with the radius.
constexpr float kLargestDecimatedRadius = 5.0f;

/// How the window is decimated for a disc of `radius` pixels.
struct DiscPlan {
  explicit DiscPlan(float radius)
      : factor(std::max(1, static_cast<int>(std::ceil(radius / kLargestDecimatedRadius)))),
        decimatedRadius(radius / static_cast<float>(factor)) {}
  int reach() const { return (static_cast<int>(std::ceil(decimatedRadius)) + 2) * factor + factor; }
  int factor;
  float decimatedRadius;
};

// The highlight boost v / (1 - c v) and its inverse g / (1 + c g): invertible, so mid-tones come
// back where they were and only what was bright spreads brightly.
constexpr float kBloom = 0.85f;
inline float boosted(float v) {
  const float u = std::clamp(v, 0.0f, 1.0f);
  return u * u / (1.0f - kBloom * u * u);
}
inline float compressed(float g) {
  return std::sqrt(std::max(g, 0.0f) / (1.0f + kBloom * std::max(g, 0.0f)));
}

/// A flat disc of the given radius (edges anti-aliased by partial span weights), from row prefix
/// sums: one span per kernel row, clamped at the borders.
ImageRGBf discBlur(const ImageRGBf& image, float radius, const detail::RenderControl& control) {
  const int width = image.width;
  const int height = image.height;
  const int rows = static_cast<int>(std::floor(radius));
  std::vector<double> prefix(static_cast<std::size_t>(height) * (width + 1) * 3);
  const auto at = [&](int y, int x, int c) -> double& {
    return prefix[(static_cast<std::size_t>(y) * (width + 1) + x) * 3 + c];
  };
  detail::parallelRows(height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      for (int c = 0; c < 3; ++c) at(y, 0, c) = 0.0;
      for (int x = 0; x < width; ++x) {
        const PixelRGB<float>& p = image.at(x, y);
        at(y, x + 1, 0) = at(y, x, 0) + p.r;
        at(y, x + 1, 1) = at(y, x, 1) + p.g;
        at(y, x + 1, 2) = at(y, x, 2) + p.b;
      }
    }
  });
  control.checkpoint();
  std::vector<float> halfWidths(static_cast<std::size_t>(2 * rows + 1));
  for (int dy = -rows; dy <= rows; ++dy)
    halfWidths[static_cast<std::size_t>(dy + rows)] =
        std::sqrt(std::max(0.0f, radius * radius - static_cast<float>(dy * dy)));
  ImageRGBf out(image.size());
  detail::parallelRowsCancellable(height, control, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      for (int x = 0; x < width; ++x) {
        double sum[3] = {0.0, 0.0, 0.0};
        double weight = 0.0;
        for (int dy = -rows; dy <= rows; ++dy) {
          const int yy = std::clamp(y + dy, 0, height - 1);
          const float half = halfWidths[static_cast<std::size_t>(dy + rows)];
          const int inner = static_cast<int>(std::floor(half));
          const float edge = half - static_cast<float>(inner);
          const int left = std::max(0, x - inner);
          const int right = std::min(width - 1, x + inner);
          for (int c = 0; c < 3; ++c) sum[c] += at(yy, right + 1, c) - at(yy, left, c);
          weight += right - left + 1;
          // The partial pixels at the span's two ends.
          for (const int xx : {x - inner - 1, x + inner + 1}) {
            const int clamped = std::clamp(xx, 0, width - 1);
            const PixelRGB<float>& p = image.at(clamped, yy);
            sum[0] += edge * p.r;
            sum[1] += edge * p.g;
            sum[2] += edge * p.b;
            weight += edge;
          }
        }
        out.at(x, y) = PixelRGB<float>(static_cast<float>(sum[0] / weight),
                                       static_cast<float>(sum[1] / weight),
                                       static_cast<float>(sum[2] / weight));
      }
    }
  });
  return out;
}

}  // namespace

int FocusBlurDevEffect::reach(float spatialScale) const {
  return DiscPlan(discRadius(*this) * spatialScale).reach();
}

bool FocusBlurDevEffect::isIdentity() const {
  return discRadius(*this) * spatialScale() < 0.5f;
}

// Lens blur: highlights boosted (an invertible tone map on squared values), a flat disc convolved
// on a frame-aligned decimated copy, bilinearly enlarged, compressed back, and mixed in outside
// the sharp centre.
void FocusBlurDevEffect::render(const Window& window) const {
  const DiscPlan plan(discRadius(*this) * window.spatialScale);
  const detail::DecimationGrid grid(window, plan.factor);
  const ImageRGBf small = grid.decimate([](const PixelRGB<float>& p) {
    return PixelRGB<float>(boosted(p.r), boosted(p.g), boosted(p.b));
  });
  const ImageRGBf blurred = discBlur(small, plan.decimatedRadius, window.control);

  const detail::FrameCentre centre(window.frame);
  const float sharp = 0.6f * fraction(*this, 1);
  const float feather = 0.05f + 0.6f * fraction(*this, 2);
  // Each column's distance term and blocks, worked out once for all rows.
  const auto width = static_cast<std::size_t>(window.output.width);
  const auto columns = grid.columnTaps(window.output.x, width);
  std::vector<float> columnDistance(width);
  for (std::size_t i = 0; i < width; ++i) {
    const float dx = centre.dx(window.output.x + static_cast<int>(i)) / centre.halfWidth;
    columnDistance[i] = dx * dx;
  }
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int, int y) {
    const float dy = centre.dy(y) / centre.halfHeight;
    const detail::DecimationGrid::Tap row = grid.rowTap(y);
    for (std::size_t i = 0; i < count; ++i) {
      const float w =
          detail::smoothStep(sharp, sharp + feather, std::sqrt(columnDistance[i] + dy * dy));
      if (w == 0.0f) {
        out[i] = in[i];
        continue;
      }
      const PixelRGB<float> lens = detail::DecimationGrid::sample(blurred, columns[i], row);
      const PixelRGB<float> back(compressed(lens.r), compressed(lens.g), compressed(lens.b));
      out[i] = detail::mix(in[i], back, w);
    }
  });
}

}  // namespace vorn
