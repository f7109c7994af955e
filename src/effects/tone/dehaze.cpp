#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "core/parallel.h"
#include "effects/tone/guided_filter.h"
#include "effects/tone/tone_render.h"
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
/// 0.1 %. Taken from the reference image when given, so that every tile agrees.
std::array<float, 3> airlight(const detail::ImageRGBf& image) {
  const std::vector<std::uint64_t> counts =
      detail::histogram(image, kBins, [](const PixelRGB<float>& p) { return pixelMinimum(p); });
  std::uint64_t total = 0;
  for (const std::uint64_t count : counts) total += count;
  const auto wanted = static_cast<std::uint64_t>(kAirlightFraction * static_cast<double>(total));
  std::uint64_t seen = 0;
  std::size_t bin = kBins;
  while (bin > 0 && seen <= wanted) seen += counts[--bin];
  const float cut = static_cast<float>(bin) / static_cast<float>(kBins - 1);

  using Sum = std::array<double, 4>;
  // Deterministic: the same sum, to the last bit, whatever the number of threads.
  constexpr int kRowsPerTask = 16;
  const Sum sum = detail::deterministicReduce(
      image.height, kRowsPerTask, Sum{},
      [&](int first, int end, Sum s) {
        for (int y = first; y < end; ++y) {
          const PixelRGB<float>* row = image.row(y);
          for (int x = 0; x < image.width; ++x) {
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

/// J = (I - A) / t + A with t the refined transmission of the dark channel.
bool dehaze(const detail::ImageRGBf& source, detail::ImageRGBf& destination,
            const std::array<float, 3>& light, float strength, float scale) {
  const int width = source.width;
  const int height = source.height;

  Plane dark(width, height), guide(width, height);
  detail::parallelRows(height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const PixelRGB<float>* in = source.row(y);
      float* d = dark.row(y);
      float* g = guide.row(y);
      for (int x = 0; x < width; ++x) {
        const float r = finiteUnit(in[x].r);
        const float gr = finiteUnit(in[x].g);
        const float b = finiteUnit(in[x].b);
        d[x] = std::min({r / light[0], gr / light[1], b / light[2]});
        g[x] = 0.2126f * r + 0.7152f * gr + 0.0722f * b;
      }
    }
  });
  const int patch = detail::scaledRadius(kPatchRadius, scale);
  Plane rawTransmission(width, height);
  cv::Mat patchMinimum(height, width, CV_32FC1, rawTransmission.data());
  cv::erode(cv::Mat(height, width, CV_32FC1, dark.data()), patchMinimum,
            cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * patch + 1, 2 * patch + 1)));
  detail::parallelRows(height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      float* t = rawTransmission.row(y);
      for (int x = 0; x < width; ++x) t[x] = 1.0f - strength * t[x];
    }
  });
  Plane transmission;
  detail::guidedFilter(guide, rawTransmission, detail::scaledRadius(kRefineRadius, scale),
                       kRefineEps, transmission);

  detail::parallelRows(height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const PixelRGB<float>* in = source.row(y);
      PixelRGB<float>* out = destination.row(y);
      const float* t = transmission.row(y);
      for (int x = 0; x < width; ++x) {
        const float inverse = 1.0f / std::clamp(t[x], kMinTransmission, 1.0f);
        // Clearing haze darkens; it must not push values below black.
        out[x] = PixelRGB<float>(std::max(0.0f, (in[x].r - light[0]) * inverse + light[0]),
                                 std::max(0.0f, (in[x].g - light[1]) * inverse + light[1]),
                                 std::max(0.0f, (in[x].b - light[2]) * inverse + light[2]));
      }
    }
  });
  return true;
}

}  // namespace

int DehazeEffect::reach(float scale) {
  return detail::scaledRadius(kPatchRadius, scale) + 2 * detail::scaledRadius(kRefineRadius, scale);
}

bool DehazeEffect::processImage(EffectCallContext& call) {
  const float strength = mappedValue(0, 0.0f, 0.5f * kMaxStrength, kMaxStrength);
  if (strength == 0.0f) return detail::copySourceToDestination(call);
  if (!detail::prepareDestination(call)) return false;
  const std::array<float, 3> light =
      airlight(call.reference && !call.reference->empty() ? *call.reference : *call.source);
  return detail::failOnExhaustion(
      [&] { return dehaze(*call.source, *call.destination, light, strength, renderScale()); });
}

}  // namespace vorn
