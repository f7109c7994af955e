#include <array>

#include "effects/color/color_kernels.h"
#include "effects/creative/slider.h"
#include "effects/kernels/frame_geometry.h"
#include "effects/kernels/luminance.h"
#include "vorn/effects/color_effects.h"

namespace vorn {

namespace {

/// A glass's transmission divided by its luminance, so a grey keeps its brightness under it.
std::array<float, 3> balancedGlass(float degrees, float density) {
  std::array<float, 3> t = detail::glassTransmission(degrees, density);
  const float y = detail::luminance(t[0], t[1], t[2]);
  for (float& c : t) c /= y;
  return t;
}

}  // namespace

int BiColorEffect::reach(float) const {
  return 0;
}

bool BiColorEffect::isIdentity() const {
  return detail::fraction(*this, 0) == 0.0f;
}

// Bi-colour filter: linear light through two coloured glasses, cross-faded by a smooth step
// across a line through the frame's centre (turned by Rotation, as wide as Transition).
void BiColorEffect::render(const Window& window) const {
  const float density = 0.7f * detail::fraction(*this, 0);
  const std::array<float, 3> top = balancedGlass(mappedValue(1, 0.0f, 180.0f, 360.0f), density);
  const std::array<float, 3> bottom = balancedGlass(mappedValue(2, 0.0f, 180.0f, 360.0f), density);
  constexpr float kNarrowest = 0.02f;
  const detail::FrameGradient gradient(
      window.frame, mappedValue(3, -180.0f, 0.0f, 180.0f), 0.0f,
      kNarrowest + (2.0f - kNarrowest) * detail::fraction(*this, 4));
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int x0, int y) {
    detail::adjustLinear(
        [&](float& r, float& g, float& b, std::size_t i) {
          const float w = gradient.at(x0 + static_cast<int>(i), y);
          r *= bottom[0] + (top[0] - bottom[0]) * w;
          g *= bottom[1] + (top[1] - bottom[1]) * w;
          b *= bottom[2] + (top[2] - bottom[2]) * w;
        },
        in, out, count);
  });
}

}  // namespace vorn
