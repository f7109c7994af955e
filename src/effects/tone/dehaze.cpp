#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "effects/kernels/guided_filter.h"
#include "effects/kernels/histogram.h"
#include "effects/kernels/luminance.h"
#include "effects/render.h"
#include "vorn/effects/tone_effects.h"

namespace vorn {

namespace {

using detail::Plane;

// He, Sun and Tang's dark-channel prior: in haze-free patches some channel is near black,
// so the patch minimum measures the haze; the guided filter then snaps the blocky
// transmission to the image's edges.
constexpr float kPatchRadius = 7.0f;
constexpr float kRefineRadius = 28.0f;
constexpr float kRefineEps = 1.0e-3f;
/// Keeps a little haze even at full amount, as distant things should look distant.
constexpr float kMaxStrength = 0.95f;
/// Transmission floor: below it the division would amplify noise without bound.
constexpr float kMinTransmission = 0.1f;
/// The brightest part of the dark channel that estimates the airlight.
constexpr double kAirlightFraction = 0.001;
constexpr std::size_t kBins = 2048;

float finiteUnit(float value) {
  value = value > 0.0f ? value : 0.0f;  // NaN becomes 0
  return value < 1.0f ? value : 1.0f;
}

float pixelMinimum(const PixelRGB<float>& p) {
  return std::min({finiteUnit(p.r), finiteUnit(p.g), finiteUnit(p.b)});
}

/// The airlight: the mean colour of the pixels whose channel minimum is among the brightest
/// 0.1 % of the statistics picture (the reference when given, so that every tile agrees).
std::array<float, 3> airlight(const detail::ImageRGBf& image, _Rect<int> rect) {
  const std::vector<std::uint64_t> counts = detail::histogram(
      image, rect, kBins, [](const PixelRGB<float>& p) { return pixelMinimum(p); });
  const float cut = detail::histogramPercentile(counts, 1.0 - kAirlightFraction);

  using Sum = std::array<double, 4>;
  // Deterministic: the same sum, to the last bit, whatever the number of threads.
  constexpr int kRowsPerTask = 16;
  const Sum sum = detail::deterministicReduce(
      rect.height, kRowsPerTask, Sum{},
      [&](int first, int end, Sum s) {
        for (int y = first; y < end; ++y) {
          const PixelRGB<float>* row = image.row(rect.y + y) + rect.x;
          for (int x = 0; x < rect.width; ++x) {
            if (pixelMinimum(row[x]) < cut) continue;
            s[0] += finiteUnit(row[x].r);
            s[1] += finiteUnit(row[x].g);
            s[2] += finiteUnit(row[x].b);
            s[3] += 1.0;
          }
        }
        return s;
      },
      [](Sum a, const Sum& b) {
        for (std::size_t i = 0; i < 4; ++i) a[i] += b[i];
        return a;
      });
  // A dark picture has no visible airlight; the floor keeps the division below tame.
  constexpr float kMinAirlight = 0.2f;
  std::array<float, 3> light{1.0f, 1.0f, 1.0f};
  if (sum[3] > 0.0) {
    for (std::size_t c = 0; c < 3; ++c) {
      light[c] = std::max(kMinAirlight, static_cast<float>(sum[c] / sum[3]));
    }
  }
  return light;
}

/// The haze strength of the current value: 0 ... 0.95.
float dehazeStrength(const Effect& effect) {
  return effect.mappedValue(0, 0.0f, 0.5f * kMaxStrength, kMaxStrength);
}

}  // namespace

int DehazeEffect::reach(float spatialScale) const {
  return detail::pixelsAt(kPatchRadius, spatialScale) +
         2 * detail::pixelsAt(kRefineRadius, spatialScale);
}

bool DehazeEffect::isIdentity() const {
  return dehazeStrength(*this) == 0.0f;
}

// J = (I - A) / t + A with t the refined transmission of the dark channel.
void DehazeEffect::render(const Window& window) const {
  const float strength = dehazeStrength(*this);
  const std::array<float, 3> light = airlight(window.statistics, window.statisticsRect);
  window.control.checkpoint();
  Plane dark = detail::planeOf(window.source, window.input, [&](const PixelRGB<float>& p) {
    return std::min(
        {finiteUnit(p.r) / light[0], finiteUnit(p.g) / light[1], finiteUnit(p.b) / light[2]});
  });
  const Plane guide = detail::planeOf(window.source, window.input, [](const PixelRGB<float>& p) {
    return detail::luminance(finiteUnit(p.r), finiteUnit(p.g), finiteUnit(p.b));
  });
  const int patch = window.pixels(kPatchRadius);
  Plane rawTransmission;
  detail::boxMinimum(dark, patch, rawTransmission, &window.control);
  detail::parallelChunks(rawTransmission.size(), 1 << 16, [&](std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i)
      rawTransmission.data()[i] = 1.0f - strength * rawTransmission.data()[i];
  });
  window.control.checkpoint();
  Plane transmission;
  detail::guidedFilter(guide, rawTransmission, window.pixels(kRefineRadius), kRefineEps,
                       transmission, &window.control);
  window.forOutputRows(
      [&](const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t index, std::size_t count) {
        const float* t = transmission.data() + index;
        for (std::size_t x = 0; x < count; ++x) {
          const float inverse = 1.0f / std::clamp(t[x], kMinTransmission, 1.0f);
          // Clearing haze darkens; it must not push values below black.
          out[x] = PixelRGB<float>(std::max(0.0f, (in[x].r - light[0]) * inverse + light[0]),
                                   std::max(0.0f, (in[x].g - light[1]) * inverse + light[1]),
                                   std::max(0.0f, (in[x].b - light[2]) * inverse + light[2]));
        }
      });
}

}  // namespace vorn
