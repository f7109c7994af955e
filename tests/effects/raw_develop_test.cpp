#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "effects/color/color_kernels.h"
#include "effects/effect_test_support.h"
#include "effects/raw/as_shot_white.h"
#include "effects/raw/working_space.h"
#include "vorn/io/image.h"

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

/// A camera calibrated under standard light A (first) and D65 (second), with different matrices
/// so that mixing them the wrong way finds a different white.
ImageMetadata::CameraColor tungstenShot() {
  ImageMetadata::CameraColor color;
  color.colorMatrix1 = {0.80f, -0.20f, -0.05f, -0.40f, 1.20f, 0.20f, -0.05f, 0.15f, 0.60f};
  color.colorMatrix2 = {0.70f, -0.15f, -0.05f, -0.45f, 1.25f, 0.20f, -0.10f, 0.20f, 0.55f};
  color.illuminant1 = 17;
  color.illuminant2 = 21;
  // The camera's neutral under light A through its A calibration, as multipliers with green 1.
  const double x = 0.44757, y = 0.40745;
  std::array<double, 3> neutral{};
  const std::array<double, 3> xyz{x / y, 1.0, (1.0 - x - y) / y};
  for (std::size_t r = 0; r < 3; ++r)
    for (std::size_t c = 0; c < 3; ++c) neutral[r] += color.colorMatrix1[3 * r + c] * xyz[c];
  for (std::size_t c = 0; c < 3; ++c)
    color.asShotMultipliers[c] = static_cast<float>(neutral[1] / neutral[c]);
  return color;
}

TEST(AsShotWhiteTest, TheCalibrationGivesBackTheLightAndMissingDataGivesNothing) {
  EXPECT_NEAR(detail::correlatedKelvin({0.3127, 0.3290}), 6504.0, 5.0);
  EXPECT_NEAR(detail::correlatedKelvin({0.44757, 0.40745}), 2856.0, 5.0);

  const auto white = detail::asShotWhite(tungstenShot());
  ASSERT_TRUE(white);
  EXPECT_NEAR(white->xy[0], 0.44757, 2e-4);
  EXPECT_NEAR(white->xy[1], 0.40745, 2e-4);
  EXPECT_NEAR(white->kelvin, 2856.0, 10.0);

  ImageMetadata::CameraColor noMultipliers = tungstenShot();
  noMultipliers.asShotMultipliers = {0.0f, 1.0f, 1.0f};
  EXPECT_FALSE(detail::asShotWhite(noMultipliers));
  ImageMetadata::CameraColor noMatrix = tungstenShot();
  noMatrix.colorMatrix1 = {};
  EXPECT_FALSE(detail::asShotWhite(noMatrix));
  ImageMetadata::CameraColor broken = tungstenShot();
  broken.colorMatrix1[4] = std::nanf("");
  EXPECT_FALSE(detail::asShotWhite(broken));
}

TEST(AsShotWhiteTest, RawWhiteBalanceShiftsFromTheLightThePhotoWasTakenUnder) {
  auto metadata = std::make_shared<ImageMetadata>();
  metadata->cameraColor = tungstenShot();
  auto photo = std::make_shared<Image>(std::make_shared<ImageSource>(
      std::make_shared<ImageFrame>(_Size<int>(1, 1), PixelRGB<float>(0.5f)), metadata));
  const auto renderOn = [&](const std::shared_ptr<const ImageRGBf>& source, float temperature,
                            const std::shared_ptr<Image>& image) {
    auto effect = test::makeEffect("VORNRawWhiteBalanceEffect", {temperature, 0});
    std::shared_ptr<ImageRGBf> out;
    EffectCallContext call(source, out, {}, {}, image, nullptr);
    EXPECT_TRUE(effect->processImage(call));
    return call.destination ? call.destination->at(0, 0) : PixelRGB<float>(std::nanf(""));
  };
  // +60 under tungsten assumes light 60 mired cooler than A; the decoder balanced A to D50, so
  // that light, adapted from A to D50 as the decoder did, is what must come out neutral.
  const std::array<float, 2> named =
      detail::shiftedWhite({0.44757, 0.40745}, 2856.0, -60.0f, 0.0f, 400.0);
  const detail::Matrix3 decoder =
      detail::bradfordAdaptation(detail::Matrix3{}, {0.44757f, 0.40745f}, {0.3457f, 0.3585f});
  float X = named[0] / named[1], Y = 1.0f, Z = (1.0f - named[0] - named[1]) / named[1];
  decoder.apply(X, Y, Z);
  auto lit = std::make_shared<ImageRGBf>(_Size<int>(1, 1),
                                         lightOf(X / (X + Y + Z), Y / (X + Y + Z), 0.25f));
  const PixelRGB<float> neutral = renderOn(lit, 60.0f, photo);
  EXPECT_NEAR(neutral.r, neutral.g, 3e-3f);
  EXPECT_NEAR(neutral.b, neutral.g, 3e-3f);
  // Without the photo's calibration the same step is taken from D50 and leaves a cast.
  const PixelRGB<float> fromD50 = renderOn(lit, 60.0f, nullptr);
  EXPECT_GT(std::fabs(fromD50.b - fromD50.g) + std::fabs(fromD50.r - fromD50.g), 0.01f);
}

}  // namespace
}  // namespace vorn
