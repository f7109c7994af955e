#include "vorn/effects/creative_effects.h"

#include "effects/render.h"

namespace vorn {

PointEffect::Kernel FillColorEffect::prepare(const Setup&) const {
  // Parameters clamp their values on entry.
  const auto value = [this](std::size_t index) { return parameters()[index].value(); };
  const float opacity = value(0) / 100.0f;
  if (opacity <= 0.0f) return nullptr;
  const PixelRGB<float> colour(value(1) / 255.0f * opacity, value(2) / 255.0f * opacity,
                               value(3) / 255.0f * opacity);
  const float keep = 1.0f - opacity;
  return detail::rowKernel(
      [colour, keep](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
          out[i] = PixelRGB<float>(in[i].r * keep + colour.r, in[i].g * keep + colour.g,
                                   in[i].b * keep + colour.b);
        }
      });
}

}  // namespace vorn
