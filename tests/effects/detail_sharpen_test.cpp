// Properties that tell the sharpening and local-contrast effects from wrong ones: edges gain
// high-frequency energy, flat areas and colours are left alone, masks and scales act where
// their names say.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include "effects/effect_test_support.h"
#include "vorn/effects/effect_factory.h"

namespace vorn {
namespace {

using test::ImageRGBf;

std::shared_ptr<Effect> makeEffect(const std::string& id, std::initializer_list<float> values) {
  auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
  std::size_t i = 0;
  for (const float value : values) effect->parameters().at(i++).setValue(value);
  // Spatial sizes as on a 24 MP frame, so a few reference pixels are a few test pixels.
  effect->setContext(std::make_shared<EffectContext>());
  return effect;
}

/// A coloured field, green 0.25 ... 0.25 + step, with a vertical edge in the middle, plus a
/// low-contrast ripple of `ripple` amplitude over its top half.
std::shared_ptr<ImageRGBf> edgeImage(float step, float ripple = 0.0f) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(96, 64));
  for (int y = 0; y < image->height; ++y) {
    for (int x = 0; x < image->width; ++x) {
      const float texture =
          y < image->height / 2 ? ripple * std::sin(1.3f * static_cast<float>(x)) : 0.0f;
      const float v = 0.25f + (x >= image->width / 2 ? step : 0.0f) + texture;
      // Blue steps a quarter as far: a per-channel filter would change its distance to green.
      image->at(x, y) = PixelRGB<float>(v + 0.1f, v, 0.2f + 0.25f * v);
    }
  }
  return image;
}

/// Mean squared difference of horizontal neighbours of the green channel in rect.
double highFrequencyEnergy(const ImageRGBf& image, _Rect<int> rect) {
  double sum = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y) {
    for (int x = rect.x; x + 1 < rect.x + rect.width; ++x) {
      const double d = image.at(x + 1, y).g - image.at(x, y).g;
      sum += d * d;
    }
  }
  return sum / static_cast<double>(rect.width * rect.height);
}

const _Rect<int> kEdgeBand(40, 40, 16, 16);  // around the edge, below the ripple
const _Rect<int> kFlatPatch(4, 40, 20, 20);  // far from the edge, below the ripple
const _Rect<int> kRippleBand(4, 4, 36, 20);  // the ripple, far from the edge

TEST(SharpenTest, EdgesGainEnergyFlatAreasAndColoursStay) {
  for (const char* id : {"VORNSharpenEffect", "VORNApplyDetailsDEVELOPEffect"}) {
    SCOPED_TRACE(id);
    const auto source = edgeImage(0.4f);
    const auto effect = makeEffect(id, {80, 40, 0});
    const auto output = test::renderOrFail(*effect, source);
    EXPECT_GT(highFrequencyEnergy(*output, kEdgeBand),
              1.3 * highFrequencyEnergy(*source, kEdgeBand));
    EXPECT_LE(test::maxDifference(*source, *output, kFlatPatch), 1e-6f);
    // The change is one luminance offset on all channels: no coloured fringes at the edge.
    for (int x = 40; x < 56; ++x) {
      const PixelRGB<float>& in = source->at(x, 45);
      const PixelRGB<float>& out = output->at(x, 45);
      EXPECT_NEAR(out.r - out.g, in.r - in.g, 1e-5f);
      EXPECT_NEAR(out.b - out.g, in.b - in.g, 1e-5f);
    }
  }
}

// Masking keeps a faint texture as it is while the strong edge is still sharpened.
TEST(SharpenTest, MaskingSparesLowContrastTextureButNotEdges) {
  const auto source = edgeImage(0.4f, 0.01f);
  const auto unmasked = test::renderOrFail(*makeEffect("VORNSharpenEffect", {80, 20, 0}), source);
  const auto masked = test::renderOrFail(*makeEffect("VORNSharpenEffect", {80, 20, 100}), source);
  const double before = highFrequencyEnergy(*source, kRippleBand);
  EXPECT_GT(highFrequencyEnergy(*unmasked, kRippleBand), 1.5 * before);
  EXPECT_LT(highFrequencyEnergy(*masked, kRippleBand), 1.1 * before);
  EXPECT_GT(highFrequencyEnergy(*masked, kEdgeBand), 1.3 * highFrequencyEnergy(*source, kEdgeBand));
}

TEST(HighPassFilterTest, FlatBecomesMidGreyAndEdgesSwingAroundIt) {
  const auto source = edgeImage(0.4f);
  const auto output = test::renderOrFail(*makeEffect("VORNHighPassFilterEffect", {10}), source);
  for (const int x : {2, 90}) EXPECT_NEAR(output->at(x, 50).g, 0.5f, 1e-4f) << x;
  EXPECT_LT(output->at(46, 50).g, 0.45f);  // dark side of the edge
  EXPECT_GT(output->at(49, 50).g, 0.55f);  // bright side
  // Colour differences survive: each channel is filtered on its own.
  EXPECT_NEAR(output->at(2, 50).r, 0.5f, 1e-4f);
}

TEST(DetailsTest, EachScaleBoostsOrSoftensItsOwnDetail) {
  const auto source = edgeImage(0.2f, 0.05f);
  const double fine = highFrequencyEnergy(*source, kRippleBand);
  const auto boosted = test::renderOrFail(*makeEffect("VORNDetailsEffect", {100, 0, 0}), source);
  const auto softened = test::renderOrFail(*makeEffect("VORNDetailsEffect", {-100, 0, 0}), source);
  EXPECT_GT(highFrequencyEnergy(*boosted, kRippleBand), 2.0 * fine);
  EXPECT_LT(highFrequencyEnergy(*softened, kRippleBand), 0.5 * fine);
  // The large scale leaves the pixel-scale ripple nearly as it is but widens the edge's step.
  const auto large = test::renderOrFail(*makeEffect("VORNDetailsEffect", {0, 0, 100}), source);
  EXPECT_NEAR(highFrequencyEnergy(*large, kRippleBand), fine, 0.2 * fine);
  EXPECT_GT(large->at(60, 50).g - large->at(35, 50).g,
            1.2f * (source->at(60, 50).g - source->at(35, 50).g));
  EXPECT_LE(test::maxDifference(*source, *boosted, kFlatPatch), 1e-6f);
}

/// Standard deviation of the green channel over rect.
double deviationOf(const ImageRGBf& image, _Rect<int> rect) {
  double sum = 0.0;
  double square = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y) {
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      sum += image.at(x, y).g;
      square += image.at(x, y).g * image.at(x, y).g;
    }
  }
  const double count = rect.width * rect.height;
  return std::sqrt(std::max(square / count - (sum / count) * (sum / count), 0.0));
}

/// Grey texture of the given amplitude: a midtone left half, a near-white right half.
std::shared_ptr<ImageRGBf> midtoneAndWhite(float amplitude) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(128, 64));
  for (int y = 0; y < image->height; ++y) {
    for (int x = 0; x < image->width; ++x) {
      const float wave = amplitude * std::sin(0.8f * static_cast<float>(x)) *
                         std::sin(0.6f * static_cast<float>(y));
      image->at(x, y) = PixelRGB<float>((x < 64 ? 0.45f : 0.96f) + wave);
    }
  }
  return image;
}

TEST(LocalContrastTest, MidtoneTextureGainsContrastWhiteDoesNotClip) {
  const auto source = midtoneAndWhite(0.03f);
  const _Rect<int> midtones(8, 8, 40, 48);
  const _Rect<int> whites(80, 8, 40, 48);
  for (const char* id : {"VORNClarityEffect", "VORNRamixDynamicContrastEffect"}) {
    SCOPED_TRACE(id);
    const auto output = test::renderOrFail(*makeEffect(id, {100}), source);
    EXPECT_GT(deviationOf(*output, midtones), 1.4 * deviationOf(*source, midtones));
    float brightest = 0.0f;
    for (int y = whites.y; y < whites.y + whites.height; ++y)
      for (int x = whites.x; x < whites.x + whites.width; ++x)
        brightest = std::max(brightest, output->at(x, y).g);
    EXPECT_LE(brightest, 1.0f);
  }
}

// A strong step stays in the edge-preserving base: its flat sides keep their level. A Gaussian
// base would move them by up to 0.19 here; under a quarter of that is allowed.
TEST(LocalContrastTest, StrongEdgesGainNoHalo) {
  const auto source = edgeImage(0.5f);
  for (const char* id : {"VORNClarityEffect", "VORNRamixDynamicContrastEffect"}) {
    SCOPED_TRACE(id);
    const auto output = test::renderOrFail(*makeEffect(id, {100}), source);
    EXPECT_LE(test::maxDifference(*source, *output, _Rect<int>(0, 40, 44, 20)), 0.045f);
    EXPECT_LE(test::maxDifference(*source, *output, _Rect<int>(52, 40, 44, 20)), 0.045f);
  }
}

TEST(SmoothAreaTest, NoiseInFlatAreasHalvesWhileTheEdgeKeepsItsContrast) {
  auto source = std::make_shared<ImageRGBf>(_Size<int>(128, 64));
  std::uint32_t state = 12345u;
  for (int y = 0; y < source->height; ++y) {
    for (int x = 0; x < source->width; ++x) {
      state = state * 1664525u + 1013904223u;
      const float noise = 0.03f * (static_cast<float>(state >> 8) / 8388608.0f - 1.0f);
      source->at(x, y) = PixelRGB<float>((x >= 64 ? 0.7f : 0.3f) + noise);
    }
  }
  const auto output = test::renderOrFail(*makeEffect("VORNSmoothAreaEffect", {100, 40}), source);
  const _Rect<int> flat(8, 8, 40, 48);
  EXPECT_LT(deviationOf(*output, flat), 0.5 * deviationOf(*source, flat));
  const auto step = [](const ImageRGBf& image) {
    double dark = 0.0;
    double bright = 0.0;
    for (int y = 8; y < 56; ++y) {
      dark += image.at(62, y).g;
      bright += image.at(65, y).g;
    }
    return (bright - dark) / 48.0;
  };
  EXPECT_NEAR(step(*output), step(*source), 0.1 * step(*source));
  // Strong texture is not flat: it keeps its amplitude.
  const auto textured = midtoneAndWhite(0.4f);
  const auto kept = test::renderOrFail(*makeEffect("VORNSmoothAreaEffect", {100, 40}), textured);
  EXPECT_GT(deviationOf(*kept, flat), 0.9 * deviationOf(*textured, flat));
}

}  // namespace
}  // namespace vorn
