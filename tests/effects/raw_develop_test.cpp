#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "effects/color/color_kernels.h"
#include "effects/effect_test_support.h"
#include "effects/raw/working_space.h"

namespace vorn {
namespace {

using test::ImageRGBf;

/// The encoded working-space pixel of light with chromaticity xy at linear luminance Y.
PixelRGB<float> lightOf(double x, double y, float luminance) {
  const detail::Matrix3 toRgb = detail::inverse(detail::linearProPhotoToXyz());
  const float X = static_cast<float>(x / y) * luminance;
  const float Z = static_cast<float>((1.0 - x - y) / y) * luminance;
  std::array<float, 3> rgb{};
  for (int c = 0; c < 3; ++c) {
    rgb[static_cast<std::size_t>(c)] =
        detail::linearToSrgbExact(toRgb(c, 0) * X + toRgb(c, 1) * luminance + toRgb(c, 2) * Z);
  }
  return PixelRGB<float>(rgb[0], rgb[1], rgb[2]);
}

/// One row of encoded pixels made from linear values.
std::shared_ptr<ImageRGBf> linearRow(const std::vector<std::array<float, 3>>& linear) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(static_cast<int>(linear.size()), 1));
  for (std::size_t i = 0; i < linear.size(); ++i) {
    const auto& v = linear[i];
    image->at(static_cast<int>(i), 0) =
        PixelRGB<float>(detail::linearToSrgbExact(v[0]), detail::linearToSrgbExact(v[1]),
                        detail::linearToSrgbExact(v[2]));
  }
  return image;
}

std::array<float, 3> linearOf(const PixelRGB<float>& p) {
  return {detail::srgbToLinearExact(p.r), detail::srgbToLinearExact(p.g),
          detail::srgbToLinearExact(p.b)};
}

std::shared_ptr<ImageRGBf> renderWith(const std::string& id, std::initializer_list<float> values,
                                      std::shared_ptr<const ImageRGBf> source) {
  auto effect = test::makeEffect(id, values);
  return test::renderOrFail(*effect, std::move(source));
}

TEST(RawWhiteBalanceTest, ZeroIsExactWarmRaisesRedOverBlueAndTheShiftedLightTurnsNeutral) {
  const auto scene = test::makeSceneImage(48, 32);
  EXPECT_EQ(test::maxDifference(*renderWith("VORNRawWhiteBalanceEffect", {0, 0}, scene), *scene),
            0.0f);

  auto grey = std::make_shared<ImageRGBf>(_Size<int>(1, 1), PixelRGB<float>(0.5f));
  float previous = 1.0f;
  for (const float temperature : {10.0f, 40.0f, 100.0f}) {
    const PixelRGB<float> p =
        renderWith("VORNRawWhiteBalanceEffect", {temperature, 0}, grey)->at(0, 0);
    EXPECT_GT(p.r / p.b, previous) << temperature;
    previous = p.r / p.b;
  }
  const PixelRGB<float> cool = renderWith("VORNRawWhiteBalanceEffect", {-60, 0}, grey)->at(0, 0);
  EXPECT_LT(cool.r / cool.b, 1.0f);
  const PixelRGB<float> magenta = renderWith("VORNRawWhiteBalanceEffect", {0, 60}, grey)->at(0, 0);
  EXPECT_LT(magenta.g, std::min(magenta.r, magenta.b));

  // +100 assumes daylight of 100 mired (10000 K, CIE xy 0.2788, 0.2920): a grey lit by it is
  // rendered neutral. Wrong primaries or a wrong mired scale leave a cast.
  auto bluish = std::make_shared<ImageRGBf>(_Size<int>(1, 1), lightOf(0.2788, 0.2920, 0.3f));
  const PixelRGB<float> neutral =
      renderWith("VORNRawWhiteBalanceEffect", {100, 0}, bluish)->at(0, 0);
  EXPECT_GT(bluish->at(0, 0).b - bluish->at(0, 0).r, 0.05f);
  EXPECT_NEAR(neutral.r, neutral.g, 0.006f);
  EXPECT_NEAR(neutral.b, neutral.g, 0.006f);
  // Light moved from the working white along the locus ends up neutral at every setting.
  for (const float temperature : {-80.0f, -30.0f, 50.0f}) {
    const std::array<float, 2> xy =
        detail::shiftedWhite(detail::kD50, detail::kD50Kelvin, -temperature, 0.0f, 400.0);
    auto lit = std::make_shared<ImageRGBf>(_Size<int>(1, 1), lightOf(xy[0], xy[1], 0.2f));
    const PixelRGB<float> p =
        renderWith("VORNRawWhiteBalanceEffect", {temperature, 0}, lit)->at(0, 0);
    EXPECT_NEAR(p.r, p.g, 2e-3f) << temperature;
    EXPECT_NEAR(p.b, p.g, 2e-3f) << temperature;
  }
}

TEST(RawDevelopTest, DefaultsAndProfileStrengthWithoutProfileChangeNothing) {
  const auto scene = test::makeSceneImage(48, 32);
  EXPECT_EQ(test::maxDifference(*renderWith("VORNRawDevelopEffect", {0, 0, 100}, scene), *scene),
            0.0f);
  EXPECT_EQ(test::maxDifference(*renderWith("VORNRawDevelopEffect", {0, 0, 0}, scene), *scene),
            0.0f);
}

TEST(RawDevelopTest, BlackLevelMovesTheLinearBlackPointAndKeepsWhite) {
  const auto row = linearRow({{0.0f, 0.0f, 0.0f}, {0.02f, 0.02f, 0.02f}, {1.0f, 1.0f, 1.0f}});
  const auto raised = renderWith("VORNRawDevelopEffect", {0, 100, 100}, row);
  EXPECT_NEAR(linearOf(raised->at(0, 0))[0], 0.0f, 1e-4f);
  EXPECT_NEAR(linearOf(raised->at(1, 0))[1], 0.0f, 1e-4f);
  EXPECT_NEAR(linearOf(raised->at(2, 0))[2], 1.0f, 1e-4f);
  const auto lifted = renderWith("VORNRawDevelopEffect", {0, -100, 100}, row);
  EXPECT_NEAR(linearOf(lifted->at(0, 0))[0], 0.02f / 1.02f, 1e-4f);
  EXPECT_NEAR(linearOf(lifted->at(2, 0))[1], 1.0f, 1e-4f);
}

TEST(RawDevelopTest, HighlightRecoveryWhitensBlownHighlightsSmoothlyAndSparesSaturatedColour) {
  // A warm ramp whose red channel clips at 1 while green and blue keep rising.
  std::vector<std::array<float, 3>> ramp;
  for (int i = 0; i <= 40; ++i) {
    const float k = 0.3f + 0.05f * static_cast<float>(i);
    ramp.push_back({std::min(1.0f, k), std::min(1.0f, 0.7f * k), std::min(1.0f, 0.5f * k)});
  }
  const auto source = linearRow(ramp);
  const auto out = renderWith("VORNRawDevelopEffect", {100, 0, 100}, source);
  for (int x = 0; x < source->width; ++x) {
    const auto before = linearOf(source->at(x, 0));
    const auto after = linearOf(out->at(x, 0));
    if (before[1] < 0.79f) {
      // Below the knee, a clipped red alone included: only the transfer tables' round trip.
      EXPECT_NEAR(out->at(x, 0).r, source->at(x, 0).r, 1e-5f) << x;
      EXPECT_NEAR(out->at(x, 0).g, source->at(x, 0).g, 1e-5f) << x;
      EXPECT_NEAR(out->at(x, 0).b, source->at(x, 0).b, 1e-5f) << x;
      continue;
    }
    // Never darker, no channel above the brightest, and neutral once two channels are clipped.
    for (std::size_t c = 0; c < 3; ++c) {
      EXPECT_GE(after[c], before[c] - 1e-4f) << x;
      EXPECT_LE(after[c], 1.0f + 1e-4f) << x;
    }
    if (before[1] >= 1.0f) {
      EXPECT_NEAR(after[1], after[0], 1e-3f) << x;
      EXPECT_NEAR(after[2], after[0], 1e-3f) << x;
    }
    // Each channel keeps rising along the ramp: no band or reversal at the clip point.
    if (x > 0) {
      const auto left = linearOf(out->at(x - 1, 0));
      for (std::size_t c = 0; c < 3; ++c) EXPECT_GE(after[c], left[c] - 1e-4f) << x << " " << c;
    }
  }
}

}  // namespace
}  // namespace vorn
