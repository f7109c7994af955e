// Lens blur: a flat disc kernel in approximately linear light, highlights boosted before the blur
// and compressed after it so that bright points bloom into discs as a lens draws them.
#include <algorithm>
#include <cmath>
#include <vector>

#include "effects/creative/slider.h"
#include "effects/kernels/cloned_loop.h"
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
// Clamps written as selects with std::clamp's and std::max's answers (NaN included), so the
// pixel loops vectorise.
inline float unitClamped(float v) {
  return v < 0.0f ? 0.0f : (1.0f < v ? 1.0f : v);
}
inline float boosted(float v) {
  const float u = unitClamped(v);
  return u * u / (1.0f - kBloom * u * u);
}
inline float compressed(float g) {
  const float positive = g < 0.0f ? 0.0f : g;
  return std::sqrt(positive / (1.0f + kBloom * positive));
}

/// A flat disc of the given radius (edges anti-aliased by partial span weights): each kernel row
/// adds its span of a row, shifted copies summed across the whole row so the sums vectorise.
/// Spans are cut at the borders and the partial end pixels clamped to them; rows clamp.
ImageRGBf discBlur(const ImageRGBf& image, float radius, const detail::RenderControl& control) {
  const int width = image.width;
  const int height = image.height;
  const int rows = static_cast<int>(std::floor(radius));
  const auto values = static_cast<std::size_t>(3 * width);
  // Past the row's ends: zeros for the spans, the end pixels repeated for the partial pixels.
  const int pad = rows + 1;
  const auto padded = static_cast<std::size_t>(3 * (width + 2 * pad));
  std::vector<float> halfWidths(static_cast<std::size_t>(2 * rows + 1));
  for (int dy = -rows; dy <= rows; ++dy)
    halfWidths[static_cast<std::size_t>(dy + rows)] =
        std::sqrt(std::max(0.0f, radius * radius - static_cast<float>(dy * dy)));
  // The weight of each column: the span's pixels inside the row plus the two partial ones.
  std::vector<float> weights(static_cast<std::size_t>(width), 0.0f);
  for (int x = 0; x < width; ++x) {
    for (const float half : halfWidths) {
      const int inner = static_cast<int>(std::floor(half));
      weights[static_cast<std::size_t>(x)] +=
          static_cast<float>(std::min(width - 1, x + inner) - std::max(0, x - inner) + 1) +
          2.0f * (half - static_cast<float>(inner));
    }
  }
  ImageRGBf out(image.size());
  detail::parallelRowsCancellable(height, control, [&](int first, int end) {
    thread_local std::vector<float> zeroed, repeated, sums;
    zeroed.assign(padded, 0.0f);
    repeated.resize(padded);
    sums.resize(values);
    const float* spanRow = zeroed.data() + 3 * pad;
    const float* edgeRow = repeated.data() + 3 * pad;
    float* sum = sums.data();
    for (int y = first; y < end; ++y) {
      std::fill(sums.begin(), sums.end(), 0.0f);
      for (int dy = -rows; dy <= rows; ++dy) {
        const float* source = &image.row(std::clamp(y + dy, 0, height - 1))->r;
        std::copy(source, source + values, zeroed.begin() + 3 * pad);
        std::copy(source, source + values, repeated.begin() + 3 * pad);
        for (int k = 0; k < pad; ++k) {
          std::copy(source, source + 3, repeated.begin() + 3 * k);
          std::copy(source + values - 3, source + values,
                    repeated.begin() + static_cast<std::ptrdiff_t>(values) + 3 * (pad + k));
        }
        const float half = halfWidths[static_cast<std::size_t>(dy + rows)];
        const int inner = static_cast<int>(std::floor(half));
        for (int k = -inner; k <= inner; ++k) {
          const float* shifted = spanRow + 3 * k;
          detail::clonedLoop([=](std::size_t n) { sum[n] += shifted[n]; }, values);
        }
        const float edge = half - static_cast<float>(inner);
        const float* left = edgeRow - 3 * (inner + 1);
        const float* right = edgeRow + 3 * (inner + 1);
        detail::clonedLoop([=](std::size_t n) { sum[n] += edge * (left[n] + right[n]); }, values);
      }
      PixelRGB<float>* target = out.row(y);
      const float* weight = weights.data();
      detail::clonedLoop(
          [=](std::size_t x) {
            const float inverse = 1.0f / weight[x];
            target[x] = PixelRGB<float>(sum[3 * x] * inverse, sum[3 * x + 1] * inverse,
                                        sum[3 * x + 2] * inverse);
          },
          static_cast<std::size_t>(width));
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
  // The taps as value offsets and weights in plain arrays: the vectoriser gathers floats at an
  // index, not pixels.
  std::vector<int> leftValue(width);
  std::vector<int> rightValue(width);
  std::vector<float> across(width);
  std::vector<float> columnDistance(width);
  for (std::size_t i = 0; i < width; ++i) {
    const float dx = centre.dx(window.output.x + static_cast<int>(i)) / centre.halfWidth;
    columnDistance[i] = dx * dx;
    leftValue[i] = 3 * columns[i].first;
    rightValue[i] = 3 * columns[i].second;
    across[i] = columns[i].weight;
  }
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int, int y) {
    const float dy = centre.dy(y) / centre.halfHeight;
    const detail::DecimationGrid::Tap row = grid.rowTap(y);
    const float* top = &blurred.row(row.first)->r;
    const float* bottom = &blurred.row(row.second)->r;
    const float down = row.weight;
    const int* left = leftValue.data();
    const int* right = rightValue.data();
    const float* weight = across.data();
    const float* distance = columnDistance.data();
    const float span = (sharp + feather) - sharp;
    detail::clonedTableLoop(
        [=](std::size_t i) {
          const float t = unitClamped((std::sqrt(distance[i] + dy * dy) - sharp) / span);
          const float w = t * t * (3.0f - 2.0f * t);
          const int a = left[i];
          const int b = right[i];
          const auto lens = [=](int c) {
            return compressed(detail::mix(detail::mix(top[a + c], top[b + c], weight[i]),
                                          detail::mix(bottom[a + c], bottom[b + c], weight[i]),
                                          down));
          };
          // Outside the blend the pixel is kept to the bit; per channel, so it is a select.
          const auto blended = [=](float v, int c) {
            const float mixed = detail::mix(v, lens(c), w);
            return w == 0.0f ? v : mixed;
          };
          out[i] = PixelRGB<float>(blended(in[i].r, 0), blended(in[i].g, 1), blended(in[i].b, 2));
        },
        count);
  });
}

}  // namespace vorn
