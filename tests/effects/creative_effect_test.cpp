// Properties that tell the creative effects' algorithms apart from wrong ones: blurs, mixes,
// vignette, graduated filters, grain, edge-preserving blur and dodge and burn.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "effects/effect_test_support.h"
#include "vorn/effects/effect_factory.h"

namespace vorn {
namespace {

using test::ImageRGBf;

using test::makeEffect;

std::shared_ptr<ImageRGBf> flatImage(int width, int height, float value) {
  return std::make_shared<ImageRGBf>(_Size<int>(width, height), PixelRGB<float>(value));
}

/// A grey field with deterministic pseudo-random noise of the given amplitude, and a step of
/// `step` up on its right half.
std::shared_ptr<ImageRGBf> noisyEdge(int width, int height, float noise, float step) {
  auto image = flatImage(width, height, 0.3f);
  std::uint32_t state = 12345u;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      state = state * 1664525u + 1013904223u;
      const float n = noise * (static_cast<float>(state >> 8) / 8388608.0f - 1.0f);
      image->at(x, y) = PixelRGB<float>(0.3f + (x >= width / 2 ? step : 0.0f) + n);
    }
  }
  return image;
}

double meanOf(const ImageRGBf& image, _Rect<int> rect) {
  double sum = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y)
    for (int x = rect.x; x < rect.x + rect.width; ++x) sum += image.at(x, y).g;
  return sum / static_cast<double>(rect.width * rect.height);
}

double deviationOf(const ImageRGBf& image, _Rect<int> rect) {
  const double mean = meanOf(image, rect);
  double sum = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y)
    for (int x = rect.x; x < rect.x + rect.width; ++x)
      sum += (image.at(x, y).g - mean) * (image.at(x, y).g - mean);
  return std::sqrt(sum / static_cast<double>(rect.width * rect.height));
}

/// Mean squared difference of horizontal and vertical neighbours: the high-frequency energy.
double highFrequencyEnergy(const ImageRGBf& image, _Rect<int> rect) {
  double sum = 0.0;
  for (int y = rect.y; y + 1 < rect.y + rect.height; ++y) {
    for (int x = rect.x; x + 1 < rect.x + rect.width; ++x) {
      const float dx = image.at(x + 1, y).g - image.at(x, y).g;
      const float dy = image.at(x, y + 1).g - image.at(x, y).g;
      sum += dx * dx + dy * dy;
    }
  }
  return sum / static_cast<double>(rect.width * rect.height);
}

double saturationOf(const PixelRGB<float>& p) {
  return std::max({p.r, p.g, p.b}) - std::min({p.r, p.g, p.b});
}

// --- Blurs -----------------------------------------------------------------------------------

TEST(CreativeBlurTest, BlurKeepsTheMeanAndLowersHighFrequenciesMoreAtALargerRadius) {
  const auto source = test::makeTestImage(160, 120);
  const _Rect<int> inner(20, 20, 120, 80);
  const double sourceEnergy = highFrequencyEnergy(*source, inner);
  double previous = sourceEnergy;
  for (const float radius : {20.0f, 60.0f}) {
    SCOPED_TRACE(radius);
    const auto output = test::renderOrFail(*makeEffect("VORNSimpleBlurEffect", {radius}), source);
    EXPECT_NEAR(meanOf(*output, source->rect()), meanOf(*source, source->rect()), 0.01);
    const double energy = highFrequencyEnergy(*output, inner);
    EXPECT_LT(energy, 0.5 * previous);
    previous = energy;
  }
}

TEST(CreativeBlurTest, SmartBlurRemovesNoiseButKeepsTheEdgeWhereAPlainBlurSoftensIt) {
  const auto source = noisyEdge(160, 80, 0.04f, 0.4f);
  const _Rect<int> flat(10, 10, 50, 60);
  const auto contrast = [](const ImageRGBf& image) {
    return meanOf(image, _Rect<int>(82, 10, 3, 60)) - meanOf(image, _Rect<int>(75, 10, 3, 60));
  };
  const double sourceContrast = contrast(*source);
  const auto smart =
      test::renderOrFail(*makeEffect("VORNSmartBlurEffect", {100, 100, 100}, 0.25f), source);
  EXPECT_LT(deviationOf(*smart, flat), 0.5 * deviationOf(*source, flat));
  EXPECT_NEAR(contrast(*smart), sourceContrast, 0.1 * sourceContrast);
  const auto plain = test::renderOrFail(*makeEffect("VORNSimpleBlurEffect", {30}), source);
  EXPECT_LT(contrast(*plain), 0.8 * sourceContrast);
}

TEST(CreativeBlurTest, DepthKeepsTheFocusBandSharpAndBlursAwayFromIt) {
  const auto source = test::makeTestImage(160, 200);
  const auto output = test::renderOrFail(*makeEffect("VORNDepthEffect", {100, 50}), source);
  const _Rect<int> band(0, 95, 160, 10);
  EXPECT_EQ(test::maxDifference(*output, *source, band), 0.0f);
  const _Rect<int> top(10, 5, 140, 20);
  EXPECT_LT(highFrequencyEnergy(*output, top), 0.5 * highFrequencyEnergy(*source, top));
  // Focus at the top: the top is sharp, the bottom blurred.
  const auto low = test::renderOrFail(*makeEffect("VORNDepthEffect", {100, 0}), source);
  EXPECT_EQ(test::maxDifference(*low, *source, _Rect<int>(0, 0, 160, 10)), 0.0f);
  const _Rect<int> bottom(10, 175, 140, 20);
  EXPECT_LT(highFrequencyEnergy(*low, bottom), 0.5 * highFrequencyEnergy(*source, bottom));
}

TEST(CreativeBlurTest, FocusBlurBloomsAHighlightIntoAFlatDiscAndKeepsTheCentreSharp) {
  auto source = test::makeTestImage(200, 200);
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 60; ++x) source->at(x, y) = PixelRGB<float>(0.05f);
  for (int y = 19; y <= 21; ++y)
    for (int x = 19; x <= 21; ++x) source->at(x, y) = PixelRGB<float>(1.0f);
  // A 6-pixel disc at this scale.
  const auto output = test::renderOrFail(*makeEffect("VORNFocusBlurDevEffect", {100}), source);
  const float near = output->at(23, 20).g;
  const float rim = output->at(25, 20).g;
  EXPECT_GT(near, 0.3f) << "the highlight must bloom, not average away";
  EXPECT_NEAR(rim, near, 0.3f * near) << "a disc is flat, unlike a Gaussian";
  EXPECT_LT(output->at(29, 20).g, 0.1f) << "nothing beyond the disc";
  EXPECT_EQ(test::maxDifference(*output, *source, _Rect<int>(95, 95, 10, 10)), 0.0f);
}

// The disc's sums and its weights are worked out apart, spans cut at the borders: a flat picture
// must stay flat everywhere, its corners included.
TEST(CreativeBlurTest, FocusBlurLeavesAFlatPictureFlatUpToItsCorners) {
  const auto source = flatImage(310, 190, 0.4f);
  for (const float radius : {20.0f, 100.0f}) {
    SCOPED_TRACE(radius);
    const auto output =
        test::renderOrFail(*makeEffect("VORNFocusBlurDevEffect", {radius, 0, 0}, 0.5f), source);
    EXPECT_LE(test::maxDifference(*output, *source), 1e-5f);
  }
}

// Lens blur and rays work on blocks aligned on the frame: a region whose window starts between
// blocks must still render exactly as the whole picture does there.
TEST(CreativeBlurTest, DecimatedEffectsRenderARegionAsTheWholeRendersIt) {
  const auto source = test::makeTestImage(600, 400);
  for (const char* id : {"VORNFocusBlurDevEffect", "VORNSunLightRaysEffect"}) {
    SCOPED_TRACE(id);
    const auto effect = makeEffect(id, {100, 50}, 0.3f);
    const auto whole = test::renderOrFail(*effect, source);
    // Neighbouring starts: one of each pair falls between blocks whatever the reach.
    for (const _Rect<int> region : {_Rect<int>(57, 331, 50, 40), _Rect<int>(58, 330, 50, 40),
                                    _Rect<int>(431, 121, 60, 50), _Rect<int>(433, 122, 60, 50)}) {
      auto destination = std::make_shared<ImageRGBf>(source->size(), PixelRGB<float>(0.0f));
      EffectCallContext call(source, destination, nullptr, region, nullptr, nullptr);
      ASSERT_TRUE(effect->processImage(call));
      EXPECT_LE(test::maxDifference(*whole, *destination, region), 1e-5f);
    }
  }
}

// --- Blur-and-mix looks ----------------------------------------------------------------------

/// A dark field with one bright square in the middle.
std::shared_ptr<ImageRGBf> brightSquare() {
  auto image = flatImage(120, 120, 0.1f);
  for (int y = 50; y < 70; ++y)
    for (int x = 50; x < 70; ++x) image->at(x, y) = PixelRGB<float>(0.9f);
  return image;
}

TEST(CreativeMixTest, GlowSoftFocusAndOrtonSpreadLightIntoTheDarkAroundABrightArea) {
  const auto source = brightSquare();
  const _Rect<int> beside(72, 55, 6, 10);
  const _Rect<int> far(100, 55, 6, 10);
  for (const char* id : {"VORNGlowEffect", "VORNSoftFocusFilterEffect", "VORNOrtonFilterEffect"}) {
    SCOPED_TRACE(id);
    const auto output = test::renderOrFail(*makeEffect(id, {100, 100}), source);
    EXPECT_GT(meanOf(*output, beside), meanOf(*output, far) + 0.02);
  }
}

TEST(CreativeMixTest, SoftFocusNeverDarkensAndGlowBrightnessScalesTheGlow) {
  const auto source = test::makeTestImage(120, 90);
  const auto soft = test::renderOrFail(*makeEffect("VORNSoftFocusFilterEffect", {100}), source);
  for (int y = 0; y < source->height; ++y)
    for (int x = 0; x < source->width; ++x) ASSERT_GE(soft->at(x, y).g, source->at(x, y).g);
  const auto dim = test::renderOrFail(*makeEffect("VORNGlowEffect", {60, 30, -100}), source);
  const auto bright = test::renderOrFail(*makeEffect("VORNGlowEffect", {60, 30, 100}), source);
  EXPECT_GT(meanOf(*bright, source->rect()), meanOf(*dim, source->rect()) + 0.03);
  EXPECT_GT(meanOf(*dim, source->rect()), meanOf(*source, source->rect()));
}

TEST(CreativeMixTest, FogLiftsBlacksAndLowersContrast) {
  const auto source = test::makeTestImage(120, 90);
  const auto dark = flatImage(40, 40, 0.0f);
  const auto fog = makeEffect("VORNFogFilterEffect", {100, 50});
  EXPECT_GT(meanOf(*test::renderOrFail(*fog, dark), dark->rect()), 0.3);
  const auto output = test::renderOrFail(*fog, source);
  EXPECT_LT(deviationOf(*output, source->rect()), 0.5 * deviationOf(*source, source->rect()));
}

TEST(CreativeMixTest, HighKeyBrightensAndDesaturates) {
  const auto source = test::makeTestImage(120, 90);
  const auto output = test::renderOrFail(*makeEffect("VORNHighKeyEffect", {100}), source);
  EXPECT_GT(meanOf(*output, source->rect()), meanOf(*source, source->rect()) + 0.1);
  const PixelRGB<float>& before = source->at(20, 80);
  const PixelRGB<float>& after = output->at(20, 80);
  EXPECT_LT(saturationOf(after), saturationOf(before));
}

TEST(CreativeMixTest, SunRaysStreamOutwardFromTheSunThroughBrightParts) {
  auto source = flatImage(200, 200, 0.05f);
  // The sun sits at (100, 50) by default; a bright patch 40 pixels below it.
  for (int y = 88; y <= 92; ++y)
    for (int x = 98; x <= 102; ++x) source->at(x, y) = PixelRGB<float>(1.0f);
  const auto output = test::renderOrFail(*makeEffect("VORNSunLightRaysEffect", {100, 50}), source);
  const float outward = output->at(100, 115).g;
  EXPECT_GT(outward, 0.1f);
  EXPECT_GT(outward, output->at(100, 70).g + 0.05f) << "rays point away from the sun";
  EXPECT_LT(output->at(125, 90).g, 0.07f) << "nothing across the ray";
  // Warmth tints the rays.
  const auto warm =
      test::renderOrFail(*makeEffect("VORNSunLightRaysEffect", {100, 50, 100}), source);
  EXPECT_GT(warm->at(100, 115).r, warm->at(100, 115).b + 0.02f);
}

// --- Placed on the frame ---------------------------------------------------------------------

TEST(CreativePlacedTest, VignetteDarkensCornersLeavesTheCentrePixelAndProtectsHighlights) {
  const auto grey = flatImage(121, 81, 0.5f);
  const auto output = test::renderOrFail(*makeEffect("VORNVignetteEffect", {-100}), grey);
  EXPECT_EQ(output->at(60, 40).g, 0.5f);
  EXPECT_NEAR(output->at(0, 0).g, 0.5f / std::exp2(2.5f), 0.01f);
  EXPECT_LT(output->at(120, 80).g, output->at(90, 60).g);
  EXPECT_LT(output->at(90, 60).g, 0.5f + 1e-6f);
  // A bright corner keeps more of its level than a grey one.
  const auto white = flatImage(121, 81, 1.0f);
  const auto whiteOutput = test::renderOrFail(*makeEffect("VORNVignetteEffect", {-100}), white);
  EXPECT_GT(whiteOutput->at(0, 0).g / 1.0f, 2.0f * output->at(0, 0).g / 0.5f);
  EXPECT_LT(whiteOutput->at(0, 0).g, 1.0f);
  // Lightening brings corners towards white.
  const auto light = test::renderOrFail(*makeEffect("VORNVignetteEffect", {100}), grey);
  EXPECT_GT(light->at(0, 0).g, 0.8f);
  EXPECT_EQ(light->at(60, 40).g, 0.5f);
}

TEST(CreativePlacedTest, VignetteMidpointAndRoundnessMoveTheFalloff) {
  const auto grey = flatImage(201, 81, 0.5f);
  const auto at = [&](std::initializer_list<float> values, int x, int y) {
    return test::renderOrFail(*makeEffect("VORNVignetteEffect", values), grey)->at(x, y).g;
  };
  // A smaller midpoint darkens further in.
  EXPECT_LT(at({-100, 10, 0, 50}, 150, 40), at({-100, 90, 0, 50}, 150, 40));
  // On a wide frame a circle reaches the middle of the short sides' ends sooner than the
  // frame-shaped ellipse does.
  EXPECT_LT(at({-100, 50, 100, 50}, 190, 40), at({-100, 50, 0, 50}, 190, 40));
}

TEST(CreativePlacedTest, GraduatedDensityDarkensTheTopAndFollowsRotation) {
  const auto grey = flatImage(80, 100, 0.4f);
  const auto output =
      test::renderOrFail(*makeEffect("VORNToolGraduatedNaturalDensityEffect", {-100}), grey);
  EXPECT_NEAR(output->at(40, 0).g, 0.1f, 0.01f);
  EXPECT_NEAR(output->at(40, 99).g, 0.4f, 0.01f);
  EXPECT_LT(output->at(40, 30).g, output->at(40, 70).g);
  const auto turned =
      test::renderOrFail(*makeEffect("VORNToolGraduatedNaturalDensityEffect", {-100, 180}), grey);
  EXPECT_NEAR(turned->at(40, 99).g, 0.1f, 0.01f);
  EXPECT_NEAR(turned->at(40, 0).g, 0.4f, 0.01f);
  // An offset of +100 moves the line to the covered edge: almost nothing is darkened.
  const auto moved = test::renderOrFail(
      *makeEffect("VORNToolGraduatedNaturalDensityEffect", {-100, 0, 100, 0}), grey);
  EXPECT_GT(meanOf(*moved, moved->rect()), 0.38);
}

TEST(CreativePlacedTest, AdjustableGraduatedAppliesItsAdjustmentsOnTheCoveredSideOnly) {
  auto source = flatImage(60, 100, 0.0f);
  for (int y = 0; y < 100; ++y)
    for (int x = 0; x < 60; ++x) source->at(x, y) = PixelRGB<float>(0.6f, 0.4f, 0.2f);
  // Saturation -100 and a cooler white balance.
  const auto output = test::renderOrFail(
      *makeEffect("VORNAdjustableGraduatedEffect", {0, 0, 0, 0, -100, -50}), source);
  EXPECT_LT(saturationOf(output->at(30, 0)), 0.01);
  EXPECT_NEAR(saturationOf(output->at(30, 99)), 0.4, 0.01);
  const auto brighter =
      test::renderOrFail(*makeEffect("VORNAdjustableGraduatedEffect", {50}), source);
  EXPECT_NEAR(brighter->at(30, 0).r, 0.6f * 2.0f, 0.01f);
  // Scene-referred values are not clipped.
  const auto hdr = flatImage(60, 100, 3.0f);
  const auto hdrOutput =
      test::renderOrFail(*makeEffect("VORNAdjustableGraduatedEffectHDR", {50}), hdr);
  EXPECT_NEAR(hdrOutput->at(30, 0).g, 6.0f, 0.05f);
  EXPECT_NEAR(hdrOutput->at(30, 99).g, 3.0f, 0.05f);
}

TEST(CreativePlacedTest, TextureOverlayKeepsTheKeyAndFollowsScaleAndRotation) {
  const auto grey = flatImage(160, 160, 0.5f);
  const auto render = [&](std::initializer_list<float> values) {
    return test::renderOrFail(*makeEffect("VORNTextureOverlayEffect", values, 1.0f), grey);
  };
  const auto plain = render({100, 100, 0});
  EXPECT_NEAR(meanOf(*plain, grey->rect()), 0.5, 0.01);
  EXPECT_GT(deviationOf(*plain, grey->rect()), 0.01);
  const auto roughness = [](const ImageRGBf& image) {
    const double d = deviationOf(image, image.rect());
    return highFrequencyEnergy(image, image.rect()) / (d * d);
  };
  EXPECT_LT(roughness(*render({100, 400, 0})), 0.5 * roughness(*plain));
  EXPECT_GT(test::meanDifference(*render({100, 100, 30}), *plain), 0.005f);
}

// --- Grain -----------------------------------------------------------------------------------

std::shared_ptr<Effect> grainWithSeed(float seed, float amount = 80, float size = 20) {
  auto effect = makeEffect("VORNGrainNewEffect", {amount, size, 30}, 1.0f);
  effect->parameters()[0].setOptionalData(std::vector<float>{seed});
  return effect;
}

TEST(CreativeGrainTest, TheSameSeedRepeatsAndAnotherChangesTheGrain) {
  const auto grey = flatImage(96, 64, 0.5f);
  const auto first = test::renderOrFail(*grainWithSeed(7), grey);
  const auto again = test::renderOrFail(*grainWithSeed(7), grey);
  const auto other = test::renderOrFail(*grainWithSeed(8), grey);
  EXPECT_EQ(test::maxDifference(*first, *again), 0.0f);
  EXPECT_GT(test::meanDifference(*first, *other), 0.01f);
  EXPECT_GT(deviationOf(*first, grey->rect()), 0.02);
  EXPECT_NEAR(meanOf(*first, grey->rect()), 0.5, 0.01);
}

TEST(CreativeGrainTest, GrainIsStrongestInTheMidtonesAndLargerWithSize) {
  const auto dark = flatImage(96, 64, 0.02f);
  const auto grey = flatImage(96, 64, 0.5f);
  const double darkNoise = deviationOf(*test::renderOrFail(*grainWithSeed(1), dark), dark->rect());
  const double greyNoise = deviationOf(*test::renderOrFail(*grainWithSeed(1), grey), grey->rect());
  EXPECT_GT(greyNoise, 2.0 * darkNoise);
  // Larger grain: neighbours agree more, so the neighbour-difference energy per variance falls.
  const auto fine = test::renderOrFail(*grainWithSeed(1, 80, 0), grey);
  const auto coarse = test::renderOrFail(*grainWithSeed(1, 80, 100), grey);
  const auto roughness = [&](const ImageRGBf& image) {
    const double d = deviationOf(image, image.rect());
    return highFrequencyEnergy(image, image.rect()) / (d * d);
  };
  EXPECT_LT(roughness(*coarse), 0.5 * roughness(*fine));
  // The grain's size follows the frame: told it is a crop of a far larger frame, it is coarser.
  auto larger = grainWithSeed(1, 80, 100);
  auto context = std::make_shared<EffectContext>();
  context->imageSize = _Size<int>(60 * 96, 60 * 64);
  larger->setContext(context);
  auto smaller = grainWithSeed(1, 80, 100);
  auto own = std::make_shared<EffectContext>();
  own->imageSize = grey->size();
  smaller->setContext(own);
  EXPECT_LT(roughness(*test::renderOrFail(*larger, grey)),
            0.5 * roughness(*test::renderOrFail(*smaller, grey)));
}

// --- Dodge and burn --------------------------------------------------------------------------

TEST(CreativeToneTest, DodgeLightensAndBurnDarkensTheMidtonesMoreThanTheEnds) {
  const auto ramp = std::make_shared<ImageRGBf>(_Size<int>(3, 1));
  ramp->at(0, 0) = PixelRGB<float>(0.02f);
  ramp->at(1, 0) = PixelRGB<float>(0.4f);
  ramp->at(2, 0) = PixelRGB<float>(0.98f);
  const auto dodged = test::renderOrFail(*makeEffect("VORNDodgeBurnEffect", {100, 0}), ramp);
  const auto burnt = test::renderOrFail(*makeEffect("VORNDodgeBurnEffect", {0, 100}), ramp);
  const auto gain = [&](const ImageRGBf& image, int x) {
    return image.at(x, 0).g / ramp->at(x, 0).g;
  };
  EXPECT_GT(gain(*dodged, 1), 1.7f);
  EXPECT_GT(gain(*dodged, 1), gain(*dodged, 0));
  EXPECT_GT(gain(*dodged, 1), gain(*dodged, 2));
  EXPECT_LT(gain(*burnt, 1), 0.6f);
  EXPECT_LT(gain(*burnt, 1), gain(*burnt, 2));
}

}  // namespace
}  // namespace vorn
