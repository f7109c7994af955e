#include "effects/kernels/atrous.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace vorn::detail {
namespace {

Plane gaussianNoise(int width, int height, float sigma, unsigned seed) {
  Plane plane(width, height);
  std::mt19937 random(seed);
  std::normal_distribution<float> value(0.0f, sigma);
  for (std::size_t i = 0; i < plane.size(); ++i) plane.data()[i] = value(random);
  return plane;
}

float maxDifference(const Plane& a, const Plane& b, int x0, int y0, int bx, int by, int w, int h) {
  float worst = 0.0f;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      worst = std::max(worst, std::fabs(a.row(y0 + y)[x0 + x] - b.row(by + y)[bx + x]));
  return worst;
}

TEST(AtrousReshape, UnchangedBandsSumBackToTheInputAndAFlatPlaneHasNoDetail) {
  const Plane noise = gaussianNoise(77, 53, 1.0f, 3);
  for (const int levels : {1, 3, 6, kMaxAtrousLevels}) {
    SCOPED_TRACE(levels);
    const Plane rebuilt = atrousReshape(noise, levels, {});
    EXPECT_LE(maxDifference(noise, rebuilt, 0, 0, 0, 0, 77, 53), 1e-5f);
  }
  Plane flat(40, 30);
  std::fill(flat.data(), flat.data() + flat.size(), 0.4f);
  float strongest = 0.0f;
  const Plane residual = atrousReshape(flat, 4, [&](int, Plane& band) {
    for (std::size_t i = 0; i < band.size(); ++i) {
      strongest = std::max(strongest, std::fabs(band.data()[i]));
      band.data()[i] = 0.0f;
    }
  });
  EXPECT_LE(strongest, 1e-6f);
  EXPECT_NEAR(residual.row(15)[20], 0.4f, 1e-6f);
}

// The noise gains are what the shrinkage thresholds are scaled by: measured on white noise.
TEST(AtrousReshape, BandsOfWhiteNoiseHaveTheTabulatedDeviation) {
  const Plane noise = gaussianNoise(512, 512, 1.0f, 7);
  std::vector<double> measured;
  atrousReshape(noise, 4, [&](int, Plane& band) {
    double sum = 0.0;
    for (int y = 64; y < 448; ++y)
      for (int x = 64; x < 448; ++x) sum += double(band.row(y)[x]) * band.row(y)[x];
    measured.push_back(std::sqrt(sum / (384.0 * 384.0)));
  });
  ASSERT_EQ(measured.size(), 4u);
  EXPECT_NEAR(atrousNoiseGain(0), 0.89f, 0.01f);
  for (int level = 0; level < 4; ++level)
    EXPECT_NEAR(measured[static_cast<std::size_t>(level)], atrousNoiseGain(level),
                0.06 * atrousNoiseGain(level))
        << level;
}

// A window grown by the reach renders its inside exactly as the whole plane does, even with
// a non-linear reshape.
TEST(AtrousReshape, AWindowGrownByTheReachMatchesTheWhole) {
  const Plane whole = gaussianNoise(200, 180, 0.3f, 11);
  constexpr int kLevels = 4;
  const auto shrink = [](int level, Plane& band) {
    const float t = 0.1f / static_cast<float>(level + 1);
    for (std::size_t i = 0; i < band.size(); ++i) {
      const float v = band.data()[i];
      band.data()[i] = std::copysign(std::max(std::fabs(v) - t, 0.0f), v);
    }
  };
  const Plane full = atrousReshape(whole, kLevels, shrink);
  const int reach = atrousReach(kLevels);
  const int x0 = 70, y0 = 60, w = 30, h = 25;
  Plane window(w + 2 * reach, h + 2 * reach);
  for (int y = 0; y < window.height(); ++y)
    for (int x = 0; x < window.width(); ++x)
      window.row(y)[x] = whole.row(y0 - reach + y)[x0 - reach + x];
  const Plane part = atrousReshape(window, kLevels, shrink);
  EXPECT_LE(maxDifference(full, part, x0, y0, reach, reach, w, h), 1e-6f);
  // The one-pass form gives the same picture for a reshape that reads no neighbours.
  const Plane rows = atrousReshapeRows(whole, kLevels, [&](int level, float* band, int count) {
    Plane row(count, 1);
    std::copy(band, band + count, row.data());
    shrink(level, row);
    std::copy(row.data(), row.data() + count, band);
  });
  EXPECT_LE(maxDifference(full, rows, 0, 0, 0, 0, 200, 180), 1e-6f);
}

// Wide levels visit their rows in runs a step apart: every band must still be the difference of
// two smoothings by the clamped B3 kernel, checked against a direct convolution on a tall plane.
TEST(AtrousReshape, WideLevelsMatchADirectSmoothing) {
  constexpr int kWidth = 23, kHeight = 150, kLevels = 6;
  const Plane noise = gaussianNoise(kWidth, kHeight, 1.0f, 13);
  const auto smoothed = [](const Plane& in, int step) {
    const float taps[5] = {1.0f / 16, 4.0f / 16, 6.0f / 16, 4.0f / 16, 1.0f / 16};
    const auto clamp = [](int v, int n) { return std::min(std::max(v, 0), n - 1); };
    Plane out(in.width(), in.height());
    for (int y = 0; y < in.height(); ++y)
      for (int x = 0; x < in.width(); ++x) {
        double sum = 0.0;
        for (int j = 0; j < 5; ++j)
          for (int i = 0; i < 5; ++i)
            sum += double(taps[j]) * taps[i] *
                   in.row(clamp(y + (j - 2) * step,
                                in.height()))[clamp(x + (i - 2) * step, in.width())];
        out.row(y)[x] = static_cast<float>(sum);
      }
    return out;
  };
  std::vector<float> worst(kLevels, 0.0f);
  Plane current(kWidth, kHeight);
  std::copy(noise.data(), noise.data() + noise.size(), current.data());
  std::vector<Plane> expected;
  for (int level = 0; level < kLevels; ++level) {
    Plane next = smoothed(current, 1 << level);
    Plane band(kWidth, kHeight);
    for (std::size_t i = 0; i < band.size(); ++i)
      band.data()[i] = current.data()[i] - next.data()[i];
    expected.push_back(std::move(band));
    current = std::move(next);
  }
  atrousReshape(noise, kLevels, [&](int level, Plane& band) {
    const Plane& want = expected[static_cast<std::size_t>(level)];
    worst[static_cast<std::size_t>(level)] = maxDifference(band, want, 0, 0, 0, 0, kWidth, kHeight);
  });
  for (int level = 0; level < kLevels; ++level) EXPECT_LE(worst[level], 1e-5f) << level;
}

TEST(AtrousBandNoise, MeasuresEachBandOfNoiseAndIgnoresAnEdge) {
  constexpr float kSigma = 0.04f;
  ImageRGBf image(_Size<int>(700, 500));
  std::mt19937 random(5);
  std::normal_distribution<float> noise(0.0f, kSigma);
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x)
      image.at(x, y) = PixelRGB<float>((x < 350 ? 0.2f : 0.8f) + noise(random));
  const auto red = [](const PixelRGB<float>& p) { return p.r; };
  const auto sigmas = bandNoise(image, image.rect(), 3, red);
  for (int level = 0; level < 3; ++level)
    EXPECT_NEAR(sigmas[static_cast<std::size_t>(level)], kSigma * atrousNoiseGain(level),
                0.1f * kSigma * atrousNoiseGain(level))
        << level;
  EXPECT_EQ(sigmas[3], 0.0f);
  EXPECT_EQ(bandNoise(image, _Rect<int>(0, 0, 0, 0), 3, red)[0], 0.0f);
  // A sliver narrower than the kernel still gives an answer.
  EXPECT_GT(bandNoise(image, _Rect<int>(10, 10, 3, 400), 2, red)[0], 0.0f);
}

}  // namespace
}  // namespace vorn::detail
