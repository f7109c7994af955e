// Properties that tell the structure and denoise algorithms apart from wrong ones.
#include <gtest/gtest.h>

#include <cmath>
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

}  // namespace
}  // namespace vorn
