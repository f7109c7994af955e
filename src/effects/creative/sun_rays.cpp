// Sun-light rays: the bright parts of the picture smeared along the lines through the sun, so
// light streams outward from it, then screened over the picture.
#include <algorithm>
#include <cmath>

#include "effects/creative/slider.h"
#include "effects/kernels/bilinear.h"
#include "effects/kernels/decimate.h"
#include "effects/kernels/frame_geometry.h"
#include "effects/kernels/mix.h"
#include "effects/kernels/window_blur.h"
#include "vorn/effects/creative_effects.h"

namespace vorn {

namespace {

using detail::fraction;
using detail::signedFraction;

using detail::ImageRGBf;

/// Ray length in reference pixels.
float rayLength(const Effect& effect) {
  return 50.0f + 1000.0f * fraction(effect, 1);
}

/// Each pass doubles the samples along the ray, so the cost does not grow with its length.
constexpr int kPasses = 7;

/// Bilinear sample of image at (x, y), clamped to its edges.
PixelRGB<float> sample(const ImageRGBf& image, float x, float y) {
  return detail::BilinearTap(image.rect(), x, y).pixel(image);
}

/// Rays are soft along their length and a few pixels wide, so they are drawn on blocks of up to
/// 4 x 4 pixels: about one block per hundredth of their length.
int rayDecimation(float lengthPixels) {
  return std::clamp(static_cast<int>(std::lround(lengthPixels / 100.0f)), 1, 4);
}

}  // namespace

int SunLightRaysEffect::reach(float spatialScale) const {
  const float length = rayLength(*this) * spatialScale;
  return static_cast<int>(std::ceil(length)) + 3 * rayDecimation(length) + 2;
}

bool SunLightRaysEffect::isIdentity() const {
  return fraction(*this, 0) == 0.0f;
}

// Sun rays: a bright-pass of the picture averaged along the line towards the sun by passes of
// doubling step (a box of 2^passes samples), tinted, and screened over the picture.
void SunLightRaysEffect::render(const Window& window) const {
  const float amount = 1.6f * fraction(*this, 0);
  const float warmth = mappedValue(2, -1.0f, 0.0f, 1.0f);
  const float length = rayLength(*this) * window.spatialScale;
  const detail::DecimationGrid grid(window, rayDecimation(length));
  const float k = static_cast<float>(grid.factor());
  // The sun in block coordinates: block b covers window pixels origin + b k ... + k.
  const float sunX = (static_cast<float>(window.frame.x) +
                      fraction(*this, 3) * static_cast<float>(window.frame.width) -
                      static_cast<float>(window.input.x) - grid.originX()) /
                         k -
                     0.5f;
  const float sunY = (static_cast<float>(window.frame.y) +
                      fraction(*this, 4) * static_cast<float>(window.frame.height) -
                      static_cast<float>(window.input.y) - grid.originY()) /
                         k -
                     0.5f;
  ImageRGBf rays = grid.decimate([](const PixelRGB<float>& p) {
    return detail::scaled(p, detail::smoothStep(0.45f, 1.0f, detail::luminance(p)));
  });
  ImageRGBf next(rays.size());
  float step = length / k / static_cast<float>(1 << kPasses);
  for (int pass = 0; pass < kPasses; ++pass, step *= 2.0f) {
    detail::parallelRowsCancellable(rays.height, window.control, [&](int first, int end) {
      for (int y = first; y < end; ++y) {
        const float dy = sunY - (static_cast<float>(y));
        for (int x = 0; x < rays.width; ++x) {
          const float dx = sunX - static_cast<float>(x);
          const float distance = std::sqrt(dx * dx + dy * dy);
          const float t = distance > 1e-3f ? step / distance : 0.0f;
          const PixelRGB<float> along =
              sample(rays, static_cast<float>(x) + dx * t, static_cast<float>(y) + dy * t);
          next.at(x, y) = detail::mix(rays.at(x, y), along, 0.5f);
        }
      }
    });
    std::swap(rays, next);
  }
  constexpr float kTint = 0.35f;
  const PixelRGB<float> tint(amount * (1.0f + kTint * warmth), amount,
                             amount * (1.0f - kTint * warmth));
  const auto columns =
      grid.columnTaps(window.output.x, static_cast<std::size_t>(window.output.width));
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int, int y) {
    const detail::DecimationGrid::Tap row = grid.rowTap(y);
    for (std::size_t i = 0; i < count; ++i) {
      const PixelRGB<float> r = detail::DecimationGrid::sample(rays, columns[i], row);
      const PixelRGB<float> light(r.r * tint.r, r.g * tint.g, r.b * tint.b);
      out[i] =
          detail::perChannel(in[i], light, [](float a, float b) { return detail::screen(a, b); });
    }
  });
}

}  // namespace vorn
