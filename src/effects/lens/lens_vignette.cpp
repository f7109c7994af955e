// A lens vignette placed on the whole frame: the natural cos^4 falloff of light, darkening or
// compensated, so a region render agrees with the whole one.
#include <algorithm>
#include <cmath>
#include <vector>

#include "effects/creative/slider.h"
#include "effects/kernels/cloned_loop.h"
#include "effects/kernels/color_space.h"
#include "effects/kernels/frame_geometry.h"
#include "effects/kernels/linear_gain.h"
#include "vorn/effects/lens_effects.h"

namespace vorn {

int LensVignetteEffect::reach(float) const {
  return 0;
}

bool LensVignetteEffect::isIdentity() const {
  return detail::signedFraction(*this, 0) == 0.0f;
}

// cos^4 vignetting: light falls as cos^4(atan(rho)) = (1 + rho^2)^-2, rho the radius past the
// midpoint over the half diagonal; Amount is its power (-1 the full falloff, 1 its inverse).
void LensVignetteEffect::render(const Window& window) const {
  const float amount = detail::signedFraction(*this, 0);
  // Midpoint -100 ... 100 starts the falloff at 5 % ... 55 % of the half diagonal.
  const float midpoint = 0.3f + 0.25f * detail::signedFraction(*this, 1);
  const detail::FrameCentre centre(window.frame);
  const float diagonal2 =
      centre.halfWidth * centre.halfWidth + centre.halfHeight * centre.halfHeight;
  // The gain and its encoded-value root share one logarithm of 1 + rho^2 per pixel.
  const float gainPower = 2.0f * amount;
  const float rootPower = gainPower / 2.4f;
  const float inverseSpan = 1.0f / (1.0f - midpoint);
  std::vector<float> columns(static_cast<std::size_t>(window.output.width));
  for (std::size_t i = 0; i < columns.size(); ++i) {
    const float dx = centre.dx(window.output.x + static_cast<int>(i));
    columns[i] = dx * dx / diagonal2;
  }
  // Columns fall towards the frame's centre and rise after it, so a row's pixels inside the
  // midpoint (gain exactly 1) form one run, found by bisection on each side and copied as is.
  const auto centreColumn =
      static_cast<std::size_t>(std::min_element(columns.begin(), columns.end()) - columns.begin());
  const auto gainOne = [&](std::size_t i, float row) {
    return std::sqrt(columns[i] + row) <= midpoint;
  };
  detail::forPlacedRows(window, [&](const PixelRGB<float>* in, PixelRGB<float>* out,
                                    std::size_t count, std::size_t, int, int y) {
    const float dy = centre.dy(y);
    const float row = dy * dy / diagonal2;
    // In blocks whose gains stay in the first-level cache until they are applied.
    constexpr std::size_t kBlock = 512;
    alignas(64) float gain[kBlock];
    alignas(64) float root[kBlock];
    const auto shade = [&](std::size_t first, std::size_t end) {
      for (std::size_t start = first; start < end; start += kBlock) {
        const std::size_t block = std::min(kBlock, end - start);
        const float* column = columns.data() + start;
        float* gains = gain;
        float* roots = root;
        detail::clonedLoop(
            [=](std::size_t i) {
              float rho = (std::sqrt(column[i] + row) - midpoint) * inverseSpan;
              rho = rho > 0.0f ? rho : 0.0f;
              // log2 of exactly 1 is 0, so the gain inside the midpoint is exactly 1.
              const float l = detail::fastLog2(1.0f + rho * rho);
              gains[i] = detail::fastExp2(gainPower * l);
              roots[i] = detail::fastExp2(rootPower * l);
            },
            block);
        // Inside the midpoint the gain is exactly 1 and the pixel is kept bit for bit.
        detail::applyEncodedGains(in + start, out + start, gains, roots, block);
      }
    };
    const auto split = [&](std::size_t from, std::size_t to, bool insideFirst) {
      std::size_t low = from, high = to;
      while (low < high) {
        const std::size_t mid = low + (high - low) / 2;
        if (gainOne(mid, row) == insideFirst)
          low = mid + 1;
        else
          high = mid;
      }
      return low;
    };
    const std::size_t first = split(0, centreColumn, false);
    const std::size_t end = split(centreColumn, count, true);
    shade(0, first);
    std::copy(in + first, in + end, out + first);
    shade(end, count);
  });
}

}  // namespace vorn
