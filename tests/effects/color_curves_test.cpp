#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "effects/effect_test_support.h"
#include "effects/kernels/color_space.h"

// The colour effects whose curves are worked out per pixel instead of read from tables: the
// black-and-white mix's hue gains and the film looks' channel curves, against their definitions.
namespace vorn {
namespace {

using test::ImageRGBf;

std::shared_ptr<ImageRGBf> rowOf(const std::vector<PixelRGB<float>>& pixels) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(static_cast<int>(pixels.size()), 1));
  for (std::size_t i = 0; i < pixels.size(); ++i) image->at(static_cast<int>(i), 0) = pixels[i];
  return image;
}

detail::Oklab oklabOf(const PixelRGB<float>& p) {
  const auto linear = [](float v) {
    return std::copysign(detail::srgbToLinearExact(std::fabs(v)), v);
  };
  return detail::linearToOklab(linear(p.r), linear(p.g), linear(p.b));
}

// With the whole mix applied, a colour of chroma 0.1 becomes grey of lightness L (1 + g / 2),
// g the hue's gain: its slider's share at each wheel colour, easing between neighbours.
TEST(ColorCurvesTest, BlackAndWhiteGainsMeetTheSlidersAndEaseBetweenThem) {
  const std::vector<float> sliders = {100, -100, 50, 0, -50, 20};
  std::vector<float> nodes;
  for (int k = 0; k < 6; ++k) nodes.push_back(detail::wheelHueAngle(60.0f * static_cast<float>(k)));
  std::vector<float> angles;
  for (float h = -3.14f; h < 3.14f; h += 0.01f) angles.push_back(h);
  angles.insert(angles.end(), nodes.begin(), nodes.end());
  constexpr float kL = 0.7f, kChroma = 0.1f;
  std::vector<PixelRGB<float>> pixels;
  for (const float h : angles) {
    float r, g, b;
    detail::oklabToLinear({kL, kChroma * std::cos(h), kChroma * std::sin(h)}, r, g, b);
    const auto encode = [](float v) {
      return std::copysign(detail::linearToSrgbExact(std::fabs(v)), v);
    };
    pixels.emplace_back(encode(r), encode(g), encode(b));
  }
  auto out = test::renderOrFail(
      *test::makeEffect("VORNBWChannelsEffect", {100, sliders[0], sliders[1], sliders[2],
                                                 sliders[3], sliders[4], sliders[5]}),
      rowOf(pixels));
  const auto gainAt = [&](std::size_t i) {
    const detail::Oklab grey = oklabOf(out->at(static_cast<int>(i), 0));
    return (grey.L / kL - 1.0f) / (kChroma / 0.2f);
  };
  const auto share = [](float slider) { return slider > 0 ? 0.005f * slider : 0.004f * slider; };
  const std::size_t sweep = angles.size() - 6;
  for (std::size_t k = 0; k < 6; ++k) EXPECT_NEAR(gainAt(sweep + k), share(sliders[k]), 2e-3f) << k;
  // Between two wheel colours the gain stays between their shares and moves one way only.
  for (std::size_t k = 0; k < 6; ++k) {
    const float from = nodes[k];
    const float span =
        std::fmod(nodes[(k + 1) % 6] - from + 4.0f * 3.14159265f, 2.0f * 3.14159265f);
    const float low = std::min(share(sliders[k]), share(sliders[(k + 1) % 6])) - 2e-3f;
    const float high = std::max(share(sliders[k]), share(sliders[(k + 1) % 6])) + 2e-3f;
    const float direction = share(sliders[(k + 1) % 6]) - share(sliders[k]);
    float previous = share(sliders[k]);
    for (float step = 0.0f; step < span; step += 0.01f) {
      float h = from + step;
      h = h > 3.14159265f ? h - 2.0f * 3.14159265f : h;
      const std::size_t i = static_cast<std::size_t>(std::lround((h + 3.14f) / 0.01f));
      if (i >= sweep) continue;
      const float gain = gainAt(i);
      EXPECT_GE(gain, low) << k << " " << h;
      EXPECT_LE(gain, high) << k << " " << h;
      EXPECT_GE((gain - previous) * direction, -2e-3f * std::fabs(direction) - 1e-4f)
          << k << " " << h;
      previous = gain;
    }
  }
}

// The film looks' closed forms against the curves they are defined as, with their ends: below 0
// (and NaN) the value at 0, above 1 the end slope.
TEST(ColorCurvesTest, LookCurvesFollowTheirDefinitionsAndTheirEnds) {
  std::vector<PixelRGB<float>> pixels;
  for (int i = 0; i <= 50; ++i) {
    const float v = static_cast<float>(i) / 50.0f;
    pixels.emplace_back(v, 1.0f - v, 0.5f * v + 0.25f);
  }
  pixels.emplace_back(-0.5f, std::nanf(""), 1.6f);
  const auto source = rowOf(pixels);
  const auto smooth = [](double x) { return x * x * (3.0 - 2.0 * x); };
  const auto cross = [&](int channel, double x) {
    const double curve =
        channel == 2 ? 0.14 + 0.72 * x : x + (channel == 0 ? 0.8 : 0.4) * (smooth(x) - x);
    return x + 0.7 * (curve - x);
  };
  auto crossed = test::renderOrFail(*test::makeEffect("VORNCrossProcessingEffect", {70}), source);
  // Lift, gamma and gain of the red channel from its three sliders, the others at 0.
  const double lift = 0.12 * 0.4, gamma = std::exp2(-0.6 * 0.6), gain = 1.0 + 0.3 * -0.5;
  const auto balance = [&](double x) {
    return gain * std::pow(std::max(x + lift * (1.0 - x), 0.0), gamma);
  };
  auto balanced = test::renderOrFail(
      *test::makeEffect("VORNColorBalanceEffect", {60, 0, 0, 40, 0, 0, -50, 0, 0}), source);
  for (std::size_t i = 0; i <= 50; ++i) {
    const PixelRGB<float>& p = pixels[i];
    const PixelRGB<float>& c = crossed->at(static_cast<int>(i), 0);
    EXPECT_NEAR(c.r, cross(0, p.r), 2e-6) << i;
    EXPECT_NEAR(c.g, cross(1, p.g), 2e-6) << i;
    EXPECT_NEAR(c.b, cross(2, p.b), 2e-6) << i;
    EXPECT_NEAR(balanced->at(static_cast<int>(i), 0).r, balance(p.r), 4e-6 * (1.0 + balance(p.r)))
        << i;
  }
  const PixelRGB<float>& ends = crossed->at(51, 0);
  EXPECT_NEAR(ends.r, cross(0, 0.0), 1e-6);
  EXPECT_NEAR(ends.g, cross(1, 0.0), 1e-6);
  const double blueSlope = 1.0 - 0.7 * 0.28;
  EXPECT_NEAR(ends.b, cross(2, 1.0) + 0.6 * blueSlope, 1e-5);
  EXPECT_NEAR(balanced->at(51, 0).r, balance(0.0), 1e-6);
  // In place, each pixel is read before it is written.
  auto inPlace = std::make_shared<ImageRGBf>(*source);
  auto effect = test::makeEffect("VORNCrossProcessingEffect", {70});
  EffectCallContext call(inPlace, inPlace, nullptr, {}, nullptr, nullptr);
  ASSERT_TRUE(effect->processImage(call));
  EXPECT_EQ(test::maxDifference(*inPlace, *crossed), 0.0f);
}

}  // namespace
}  // namespace vorn
