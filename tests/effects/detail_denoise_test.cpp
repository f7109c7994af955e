// Properties that tell the structure and denoise algorithms apart from wrong ones.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

#include "effects/effect_test_support.h"
#include "vorn/effects/effect_factory.h"

namespace vorn {
namespace {

using test::ImageRGBf;

/// Sizes here are in reference pixels: the tests run at full scale.
std::shared_ptr<Effect> makeEffect(const std::string& id, std::initializer_list<float> values) {
  return test::makeEffect(id, values, 1.0f);
}

/// Mean, and deviation about it, of the green channel over rect.
std::pair<double, double> statsOf(const ImageRGBf& image, _Rect<int> rect) {
  double sum = 0.0, squares = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y)
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      sum += image.at(x, y).g;
      squares += double(image.at(x, y).g) * image.at(x, y).g;
    }
  const double n = static_cast<double>(rect.width) * rect.height;
  return {sum / n, std::sqrt(std::max(0.0, squares / n - (sum / n) * (sum / n)))};
}

/// Left half flat grey, right half a grey texture of the given period in pixels.
std::shared_ptr<ImageRGBf> textureBesideFlat(int side, float period, float base = 0.4f) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(side, side));
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x) {
      const float wave = x < side / 2
                             ? 0.0f
                             : 0.05f * std::sin(6.2831853f * static_cast<float>(x) / period) *
                                   std::sin(6.2831853f * static_cast<float>(y) / period);
      image->at(x, y) = PixelRGB<float>(base + wave);
    }
  return image;
}

/// Amplitude of the texture in the right half, after the effect, relative to before.
double textureGain(const std::string& id, float period) {
  const auto source = textureBesideFlat(256, period);
  const auto output = test::renderOrFail(*makeEffect(id, {100}), source);
  const _Rect<int> textured(160, 32, 64, 192);
  return statsOf(*output, textured).second / statsOf(*source, textured).second;
}

// Each variant boosts the scales its name promises, and never touches a flat area.
TEST(StructureEffects, BoostTheirOwnScalesAndLeaveFlatAreasAlone) {
  const double microFine = textureGain("VORNMicroStructureEffect", 4.0f);
  const double microCoarse = textureGain("VORNMicroStructureEffect", 128.0f);
  const double superFine = textureGain("VORNSuperStructureEffect", 4.0f);
  const double superCoarse = textureGain("VORNSuperStructureEffect", 128.0f);
  const double mid = textureGain("VORNStructureEffect", 24.0f);
  EXPECT_GT(microFine, 1.3);
  EXPECT_LT(microCoarse, 1.1);
  EXPECT_GT(superCoarse, 1.3);
  EXPECT_LT(superFine, 1.1);
  EXPECT_GT(mid, 1.3);

  for (const char* id : {"VORNStructureEffect", "VORNMicroStructureEffect",
                         "VORNSuperStructureEffect", "VORNStructureHDREffect"}) {
    SCOPED_TRACE(id);
    const auto source = textureBesideFlat(256, 16.0f);
    const auto output = test::renderOrFail(*makeEffect(id, {100}), source);
    // Far enough from the texture that no band reaches it.
    EXPECT_LE(test::maxDifference(*source, *output, _Rect<int>(0, 0, 40, 256)), 1e-3f);
  }
}

TEST(StructureEffects, NegativeAmountSmoothsAndBoostedDetailStaysBelowWhite) {
  const auto source = textureBesideFlat(256, 48.0f);
  const auto smoothed = test::renderOrFail(*makeEffect("VORNStructureEffect", {-100}), source);
  const _Rect<int> textured(160, 32, 64, 192);
  EXPECT_LT(statsOf(*smoothed, textured).second, 0.5 * statsOf(*source, textured).second);

  const auto bright = textureBesideFlat(256, 24.0f, 0.94f);
  const auto boosted =
      test::renderOrFail(*makeEffect("VORNStructureHDREffect", {100, 0, 100}), bright);
  float brightest = 0.0f;
  for (int y = 0; y < 256; ++y)
    for (int x = 0; x < 256; ++x) brightest = std::max(brightest, boosted->at(x, y).g);
  EXPECT_GT(statsOf(*boosted, textured).second, statsOf(*bright, textured).second);
  EXPECT_LE(brightest, 1.0f);
}

/// A grey field with Gaussian noise of sigma in every channel (independent, so chroma is noisy
/// too) and a step up on its right half; blotchy noise is white noise averaged over 4 x 4.
std::shared_ptr<ImageRGBf> noisyEdge(int width, int height, float sigma, float step, bool blotchy,
                                     unsigned seed = 9) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(width, height));
  std::mt19937 random(seed);
  std::normal_distribution<float> noise(0.0f, blotchy ? 4.0f * sigma : sigma);
  ImageRGBf white(_Size<int>(width + 3, height + 3));
  for (int y = 0; y < white.height; ++y)
    for (int x = 0; x < white.width; ++x)
      white.at(x, y) = PixelRGB<float>(noise(random), noise(random), noise(random));
  const int side = blotchy ? 4 : 1;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      PixelRGB<float> sum(0.0f);
      for (int dy = 0; dy < side; ++dy)
        for (int dx = 0; dx < side; ++dx) {
          const PixelRGB<float>& n = white.at(x + dx, y + dy);
          sum = PixelRGB<float>(sum.r + n.r, sum.g + n.g, sum.b + n.b);
        }
      const float base = 0.3f + (x >= width / 2 ? step : 0.0f);
      const float k = 1.0f / static_cast<float>(side * side);
      image->at(x, y) = PixelRGB<float>(base + k * sum.r, base + k * sum.g, base + k * sum.b);
    }
  return image;
}

/// Deviation of R - G over rect: the chroma noise.
double chromaDeviation(const ImageRGBf& image, _Rect<int> rect) {
  double sum = 0.0, squares = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y)
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      const double d = image.at(x, y).r - image.at(x, y).g;
      sum += d;
      squares += d * d;
    }
  const double n = static_cast<double>(rect.width) * rect.height;
  return std::sqrt(std::max(0.0, squares / n - (sum / n) * (sum / n)));
}

class DenoiseEffects : public testing::TestWithParam<std::string> {};

// Noise of a flat patch at least halved, chroma more than luma, the edge beside it within 10 %.
TEST_P(DenoiseEffects, HalveTheNoiseOfAFlatPatchAndKeepTheEdge) {
  const auto source = noisyEdge(256, 128, 0.04f, 0.3f, false);
  const auto output = test::renderOrFail(*makeEffect(GetParam(), {100}), source);
  const _Rect<int> flat(16, 16, 96, 96);
  const double before = statsOf(*source, flat).second;
  const double after = statsOf(*output, flat).second;
  EXPECT_LT(after, 0.5 * before);
  EXPECT_LT(chromaDeviation(*output, flat) / chromaDeviation(*source, flat), after / before);
  const auto contrast = [](const ImageRGBf& image) {
    return statsOf(image, _Rect<int>(130, 8, 8, 112)).first -
           statsOf(image, _Rect<int>(118, 8, 8, 112)).first;
  };
  EXPECT_NEAR(contrast(*output), contrast(*source), 0.1 * contrast(*source));
}

// Blotches a few pixels wide are what the coarse denoiser is for: it removes at least half of
// them, and far more than the fine one does.
TEST(DenoiseCoarse, RemovesBlotchesTheFineDenoiserLeaves) {
  const auto source = noisyEdge(256, 128, 0.04f, 0.3f, true);
  const _Rect<int> flat(16, 16, 96, 96);
  const double before = statsOf(*source, flat).second;
  const auto coarse = test::renderOrFail(*makeEffect("VORNDenoiseCoarseEffect", {100}), source);
  const auto fine = test::renderOrFail(*makeEffect("VORNDenoiseEffect", {100}), source);
  EXPECT_LT(statsOf(*coarse, flat).second, 0.5 * before);
  EXPECT_LT(statsOf(*coarse, flat).second, 0.7 * statsOf(*fine, flat).second);
}

// Noise lives at the pixel scale of the picture being rendered: a half-size noisy render,
// denoised, must look like the full one denoised and shrunk, far more than the inputs do.
TEST_P(DenoiseEffects, HalfSizeRenderLooksLikeTheFullRenderShrunk) {
  const auto addNoise = [&](std::shared_ptr<ImageRGBf> image, unsigned seed) {
    const auto noise = noisyEdge(image->width, image->height, 0.04f, 0.0f, false, seed);
    for (int y = 0; y < image->height; ++y)
      for (int x = 0; x < image->width; ++x) {
        PixelRGB<float>& p = image->at(x, y);
        const PixelRGB<float>& n = noise->at(x, y);
        p = PixelRGB<float>(p.r + n.r - 0.3f, p.g + n.g - 0.3f, p.b + n.b - 0.3f);
      }
    return image;
  };
  const auto large = addNoise(test::makeSceneImage(640, 480), 1);
  const auto small = addNoise(test::makeSceneImage(320, 240), 2);
  const auto effect = makeEffect(GetParam(), {100});
  const auto largeOutput = test::renderOrFail(*effect, large);
  const auto smallOutput = test::renderOrFail(*effect, small);
  const auto shrunkOutput = largeOutput->resize(small->size());
  const auto shrunkInput = large->resize(small->size());
  ASSERT_TRUE(shrunkOutput && shrunkInput);
  EXPECT_LT(test::meanDifference(*shrunkOutput, *smallOutput),
            0.6f * test::meanDifference(*shrunkInput, *small));
}

INSTANTIATE_TEST_SUITE_P(Shrinkage, DenoiseEffects,
                         testing::Values("VORNDenoiseEffect", "VORNDenoiseCoarseEffect",
                                         "VORNDenoiseStructureEffect", "VORNDenoiseDetailsEffect",
                                         "VORNDenoiseLaplacianEffect",
                                         "VORNDenoiseLaplacianNLBEffect"),
                         [](const testing::TestParamInfo<std::string>& param) {
                           return param.param;
                         });

}  // namespace
}  // namespace vorn
