#include "pipeline/overlay_pixel_effects.h"

#include "effects/render.h"

namespace vorn {

PointEffect::Kernel HotAndColdPixelsEffect::prepare(const Setup&) const {
  const bool hot = parameters()[0].value() >= 0.5f;
  const bool cold = parameters()[1].value() >= 0.5f;
  if (!hot && !cold) return nullptr;
  return detail::rowKernel(
      [hot, cold](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
          const PixelRGB<float> p = in[i];
          if (hot && (p.r >= 1.0f || p.g >= 1.0f || p.b >= 1.0f))
            out[i] = PixelRGB<float>(1.0f, 0.0f, 0.0f);
          else if (cold && p.r <= 0.0f && p.g <= 0.0f && p.b <= 0.0f)
            out[i] = PixelRGB<float>(0.0f, 0.0f, 1.0f);
          else
            out[i] = p;
        }
      });
}

PointEffect::Kernel BlackAndWhiteOverlayPixelsEffect::prepare(const Setup&) const {
  const float grey = parameters()[0].value();
  return detail::finiteRowKernel(
      [grey](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
          const PixelRGB<float> p = in[i];
          float v = grey;
          if (p.r >= 1.0f && p.g >= 1.0f && p.b >= 1.0f)
            v = 1.0f;
          else if (p.r <= 0.0f && p.g <= 0.0f && p.b <= 0.0f)
            v = 0.0f;
          out[i] = PixelRGB<float>(v);
        }
      });
}

}  // namespace vorn
