#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <numeric>

#include "effects/effect_test_support.h"
#include "effects/kernels/tone_curve.h"
#include "effects/tone/tone_shapes.h"
#include "effects/tone/tone_tables.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/effects/tone_effects.h"

namespace vorn {
namespace {

using test::ImageRGBf;

std::shared_ptr<Effect> makeEffect(const std::string& id, std::initializer_list<float> values) {
  auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
  auto list = effect->getCurrentParameters();
  std::size_t i = 0;
  for (const float value : values) list.at(i++).setValue(value);
  effect->setParameters(list);
  return effect;
}

/// One row holding the given values in every channel.
std::shared_ptr<ImageRGBf> rowOf(const std::vector<float>& values) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(static_cast<int>(values.size()), 1));
  for (std::size_t i = 0; i < values.size(); ++i)
    image->at(static_cast<int>(i), 0) = PixelRGB<float>(values[i]);
  return image;
}

std::vector<float> ramp(float from, float to, int count) {
  std::vector<float> values(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i)
    values[static_cast<std::size_t>(i)] =
        from + (to - from) * static_cast<float>(i) / static_cast<float>(count - 1);
  return values;
}

/// The exposure effect's result for one value, evaluated from the tables step by step.
float expectedExposure(float x, float k) {
  const detail::ToneTables& tables = detail::toneTables();
  const auto f = [&](float v) {
    const float over = v > 1.0f ? v - 1.0f : 0.0f;
    const float u = ((v - over) - 0.5f) * 0.9f + 0.5f;
    const int i = std::clamp(static_cast<int>(u * 65535.0f), 0, 65534);
    const int j = std::clamp(static_cast<int>(k * tables.forward[i] * 65535.0f), 0, 65534);
    const float y = (tables.backward[j] - 0.5f) / 0.9f + 0.5f + over;
    return y > 0.0f ? y : 0.0f;
  };
  const float step = 1.0f / 16382.0f;
  const auto table = [&](float v) {
    v = v > 0.0f ? v : 0.0f;
    const int n = std::clamp(static_cast<int>(16382.0f * v), 0, 16382);
    const float t = 16382.0f * v - static_cast<float>(n);
    const float next = n + 1 <= 16382 ? f(static_cast<float>(n + 1) * step) : f(16382.0f * step);
    return (1.0f - t) * f(static_cast<float>(n) * step) + t * next;
  };
  if (!(x > 0.85f)) return table(x);
  const float atThreshold = table(0.85f);
  return (table(1.0f) - atThreshold) * (x - 0.85f) / 0.15f + atThreshold;
}

TEST(ToneEffectTest, BackwardTableUndoesForwardTable) {
  const detail::ToneTables& tables = detail::toneTables();
  for (int i = 0; i < 65535; i += 97) {
    const float u = static_cast<float>(i) / 65535.0f;
    const auto j = static_cast<std::size_t>(tables.forward[i] * 65535.0f);
    EXPECT_NEAR(tables.backward[std::min<std::size_t>(j, 65534)], u, 2.5e-4f) << i;
    if (i > 0) {
      EXPECT_GE(tables.forward[i], tables.forward[i - 97]);
    }
  }
}

TEST(ToneEffectTest, ExposureFactor) {
  const std::pair<float, float> expected[] = {
      {-100, 0.6f}, {-50, 0.8f}, {0, 1.0f}, {50, 1.28f}, {100, 1.56f}};
  for (const auto& [value, factor] : expected) {
    const auto effect =
        std::dynamic_pointer_cast<ExposureEffect>(makeEffect("VORNExposureEffect", {value}));
    EXPECT_FLOAT_EQ(effect->factor(), factor) << value;
  }
}

TEST(ToneEffectTest, ExposureFollowsItsFormula) {
  std::vector<float> values = ramp(-0.5f, 2.5f, 1201);
  const float special[] = {
      std::numeric_limits<float>::quiet_NaN(), 0.0f, 0.85f, 0.8500001f, 1.0f, 1e-7f, 1e6f};
  values.insert(values.end(), std::begin(special), std::end(special));
  const auto source = rowOf(values);
  for (const float exposure : {-100.0f, -63.0f, 0.0f, 27.0f, 100.0f}) {
    SCOPED_TRACE(exposure);
    const auto effect =
        std::dynamic_pointer_cast<ExposureEffect>(makeEffect("VORNExposureEffect", {exposure}));
    const auto output = test::renderOrFail(*effect, source);
    ASSERT_TRUE(output);
    for (std::size_t i = 0; i < values.size(); ++i) {
      const float expected = expectedExposure(values[i], effect->factor());
      const float got = output->at(static_cast<int>(i), 0).g;
      ASSERT_NEAR(got, expected, 2e-6f * std::max(1.0f, std::fabs(expected)))
          << "x = " << values[i];
      // Inside the table nothing goes below 0.
      if (!(values[i] > 0.85f)) {
        ASSERT_GE(got, 0.0f);
      }
    }
    // NaN and negative inputs read the table at 0.
    EXPECT_EQ(output->at(static_cast<int>(values.size() - 7), 0).r, output->at(0, 0).r);
  }
}

TEST(ToneEffectTest, HdrExposureMovesLinearLightByWholeStops) {
  // Middle grey and a few other display values, each decoded to linear light and compared.
  const std::vector<float> values = {0.05f, 0.2f, 0.46f, 0.7f};
  for (const auto& [exposure, gain] :
       {std::pair{100.0f, 4.0f}, std::pair{-100.0f, 0.25f}, std::pair{50.0f, 2.0f}}) {
    SCOPED_TRACE(exposure);
    const auto effect = makeEffect("VORNExposureEffectHDR", {exposure});
    const auto output = test::renderOrFail(*effect, rowOf(values));
    for (std::size_t i = 0; i < values.size(); ++i) {
      const float before = detail::perceptualToLinear(values[i]);
      const float after = detail::perceptualToLinear(output->at(static_cast<int>(i), 0).g);
      EXPECT_NEAR(after / before, gain, 2e-3f * gain) << values[i];
    }
  }
}

TEST(ToneEffectTest, EveryLookupKernelMatchesTheScalarDefinition) {
  // Each threshold kind: a line above 0.85, and the end tangent above 1.
  for (const float threshold : {0.85f, 1.0f}) {
    detail::ToneCurveTable table;
    detail::fillToneCurve(
        table, [](float x) { return detail::sCurve(x, 0.7f) * 0.9f + 0.05f; }, threshold);
    const detail::ToneCurveLookup lookup(table);
    // An odd count exercises the vector loops' tails.
    std::vector<float> in = ramp(-0.3f, 1.7f, 1001);
    in.insert(in.end(), {std::nanf(""), INFINITY, -INFINITY, 0.85f, 1.0f, 1e-9f, 0.99999f});
    std::vector<float> out(in.size());
    for (const auto isa :
         {detail::ToneCurveIsa::Scalar, detail::ToneCurveIsa::Avx2, detail::ToneCurveIsa::Avx512}) {
      SCOPED_TRACE(static_cast<int>(isa));
      if (!detail::applyToneCurveWith(isa, lookup, in.data(), out.data(), in.size())) continue;
      for (std::size_t i = 0; i < in.size(); ++i) {
        const float expected = detail::lookupToneCurve(table, in[i]);
        // Infinite inputs end on the line at the largest float: finite, and equal up to FMA.
        ASSERT_TRUE(std::isfinite(out[i])) << in[i];
        ASSERT_NEAR(out[i], expected, 1e-6f * std::max(1.0f, std::fabs(expected))) << in[i];
      }
    }
  }
}

TEST(ToneEffectTest, EveryGainKernelMatchesTheScalarOneAndEndsFinite) {
  // 37 pixels: every vector width and a remainder; hostile channels among ordinary ones.
  constexpr std::size_t kPixels = 37;
  std::vector<float> pixels(3 * kPixels), gains(kPixels);
  for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = 0.01f * static_cast<float>(i) - 0.2f;
  for (std::size_t i = 0; i < kPixels; ++i) gains[i] = 0.5f + 0.1f * static_cast<float>(i);
  pixels[4] = std::nanf("");
  pixels[20] = INFINITY;
  pixels[41] = -INFINITY;
  pixels[70] = 3e38f;  // overflows with its gain
  std::vector<float> expected(pixels.size()), out(pixels.size());
  ASSERT_TRUE(detail::applyGainsWith(detail::ToneCurveIsa::Scalar, pixels.data(), gains.data(),
                                     expected.data(), kPixels));
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    ASSERT_TRUE(std::isfinite(expected[i])) << i;
    if (std::isfinite(pixels[i]) && i != 70) {
      ASSERT_FLOAT_EQ(expected[i], pixels[i] * gains[i / 3]) << i;
    }
  }
  EXPECT_EQ(expected[4], 0.0f);
  EXPECT_EQ(expected[20], FLT_MAX);
  EXPECT_EQ(expected[41], -FLT_MAX);
  EXPECT_EQ(expected[70], FLT_MAX);
  for (const auto isa : {detail::ToneCurveIsa::Avx2, detail::ToneCurveIsa::Avx512}) {
    if (!detail::applyGainsWith(isa, pixels.data(), gains.data(), out.data(), kPixels)) continue;
    for (std::size_t i = 0; i < out.size(); ++i) {
      ASSERT_EQ(out[i], expected[i]) << "isa " << static_cast<int>(isa) << " value " << i;
    }
  }
}

TEST(ToneEffectTest, ExposureApproximatesScaledLightWithinTheTableRange) {
  // The tables are sRGB decoding and encoding, so exposure scales light by k around the
  // squeezed middle.
  for (const float exposure : {-100.0f, 0.0f, 60.0f}) {
    const auto effect =
        std::dynamic_pointer_cast<ExposureEffect>(makeEffect("VORNExposureEffect", {exposure}));
    const auto values = ramp(0.0f, 0.85f, 300);
    const auto output = test::renderOrFail(*effect, rowOf(values));
    for (std::size_t i = 0; i < values.size(); ++i) {
      const float u = (values[i] - 0.5f) * 0.9f + 0.5f;
      const float lit = std::min(effect->factor() * detail::perceptualToLinear(u), 1.0f);
      const float expected = std::max((detail::linearToPerceptual(lit) - 0.5f) / 0.9f + 0.5f, 0.0f);
      EXPECT_NEAR(output->at(static_cast<int>(i), 0).b, expected, 1e-3f) << values[i];
    }
  }
}

TEST(ToneEffectTest, CurveEffectsAreMonotone) {
  const std::vector<std::pair<std::string, std::vector<float>>> settings = {
      {"VORNExposureEffect", {-100}},
      {"VORNExposureEffect", {100}},
      {"VORNExposureEffectHDR", {-100}},
      {"VORNExposureEffectHDR", {100}},
      {"VORNBlackWhiteEffect", {100, 100}},
      {"VORNBlackWhiteEffect", {-100, -100}},
      {"VORNBlackWhiteEffect", {100, -100}},
      {"VORNBlackWhiteEffect", {-100, 100}},
      {"VORNPhotoshopBrightnessEffect", {-100}},
      {"VORNPhotoshopBrightnessEffect", {100}},
      {"VORNContrastEffect", {-100}},
      {"VORNContrastEffect", {100}},
      {"VORNContrastLumaEffect", {100}},
      {"VORNContrastEffectHDR", {100}},
      {"VORNContrastEffectHDR", {-100}},
      {"VORNSmartContrastEffect", {100, -100, 100, 100}},
      {"VORNSmartContrastEffect", {-100, 100, -100, -100}},
      {"VORNCurveEffect", {0}},
      {"VORNCurveEffect", {100}},
      {"VORNFadeEffect", {100}},
      {"VORNContrastAutoEffect", {100}}};
  const auto values = ramp(-0.2f, 1.6f, 4001);
  const auto source = rowOf(values);
  for (const auto& [id, parameters] : settings) {
    SCOPED_TRACE(id + " " + std::to_string(parameters[0]));
    auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
    for (std::size_t i = 0; i < parameters.size(); ++i)
      effect->parameters()[i].setValue(parameters[i]);
    const auto output = test::renderOrFail(*effect, source);
    ASSERT_TRUE(output);
    float worstStep = 0.0f;
    for (int i = 1; i < output->width; ++i) {
      worstStep = std::min(worstStep, output->at(i, 0).g - output->at(i - 1, 0).g);
    }
    EXPECT_GE(worstStep, -1e-6f);
    EXPECT_GT(output->at(output->width - 1, 0).g, output->at(0, 0).g);
  }
}

/// The output level of a flat picture at `level`: a local effect's curve seen on its own.
float flatResponse(Effect& effect, float level) {
  const auto flat = std::make_shared<ImageRGBf>(_Size<int>(24, 16), PixelRGB<float>(level));
  return test::renderOrFail(effect, flat)->at(12, 8).g;
}

TEST(ToneEffectTest, LocalToneCurvesAreMonotoneAndGoTheRightWay) {
  struct Case {
    std::string id;
    std::vector<float> values;
    float level;
    int direction;  // +1 brighter, -1 darker at that level
  };
  const Case cases[] = {{"VORNDynBrightnessEffect", {100}, 0.5f, +1},
                        {"VORNDynBrightnessEffect", {-100}, 0.5f, -1},
                        {"VORNDynBrightnessEffectHDR", {100}, 0.5f, +1},
                        {"VORNShadowsEffect", {100}, 0.15f, +1},
                        {"VORNShadowsEffect", {-100}, 0.15f, -1},
                        {"VORNHighlightsEffect", {-100, 0}, 0.85f, -1},
                        {"VORNHighlightsEffect", {0, 100}, 0.15f, +1},
                        {"VORNHighlightsEffectHDR", {-100, 0}, 2.0f, -1},
                        {"VORNHighlightsEffectHDR", {0, 100}, 0.1f, +1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id + " " + std::to_string(c.values[0]));
    auto effect = EffectFactory::instance().makeEffectWithID(c.id, nullptr);
    for (std::size_t i = 0; i < c.values.size(); ++i) effect->parameters()[i].setValue(c.values[i]);
    float previous = -1.0f;
    for (const float level : ramp(0.0f, 1.0f, 41)) {
      const float response = flatResponse(*effect, level);
      EXPECT_GE(response, previous - 1e-6f) << level;
      previous = response;
    }
    EXPECT_EQ(flatResponse(*effect, 0.0f), 0.0f);
    const float moved = flatResponse(*effect, c.level) - c.level;
    EXPECT_GT(static_cast<float>(c.direction) * moved, 0.01f);
  }
}

TEST(ToneEffectTest, SmartToneWorkingAmount) {
  const std::pair<float, float> expected[] = {
      {-100, -0.8f}, {-50, -0.4f}, {0, 0}, {50, 0.5f}, {100, 1}};
  for (const auto& [value, amount] : expected) {
    const auto effect = std::dynamic_pointer_cast<DynBrightnessEffect>(
        makeEffect("VORNDynBrightnessEffect", {value}));
    EXPECT_NEAR(effect->amount(), amount, 1e-6f) << value;
  }
}

TEST(ToneEffectTest, HighlightsAtZeroCopiesEvenNaN) {
  auto source = test::makeTestImage();
  source->at(3, 3) = PixelRGB<float>(std::nanf(""), -2.0f, 7.0f);
  auto effect = makeEffect("VORNHighlightsEffect", {0, 0});
  const auto output = test::renderOrFail(*effect, source);
  EXPECT_EQ(std::memcmp(output->data, source->data, source->sizeInBytes()), 0);
}

TEST(ToneEffectTest, LocalToneKeepsEdgesAndDetail) {
  // Dark half with fine texture beside a bright half: lifting shadows must keep the texture's
  // amplitude (a global curve would too) and not bleed light across the edge.
  auto source = std::make_shared<ImageRGBf>(_Size<int>(200, 60));
  for (int y = 0; y < 60; ++y) {
    for (int x = 0; x < 200; ++x) {
      const float texture = (x + y) % 2 == 0 ? 0.01f : -0.01f;
      source->at(x, y) = PixelRGB<float>(x < 100 ? 0.1f + texture : 0.9f);
    }
  }
  auto effect = makeEffect("VORNShadowsEffect", {100});
  const auto output = test::renderOrFail(*effect, source);
  EXPECT_GT(output->at(50, 30).g, 0.15f);
  EXPECT_NEAR(output->at(150, 30).g, 0.9f, 0.03f);
  const float before = source->at(50, 30).g - source->at(51, 30).g;
  const float after = output->at(50, 30).g - output->at(51, 30).g;
  EXPECT_GT(after / before, 1.0f);
  // Right beside the edge the dark side is lifted as much as deep inside it.
  EXPECT_NEAR(output->at(97, 30).g + output->at(98, 30).g,
              output->at(50, 30).g + output->at(51, 30).g, 0.03f);
}

TEST(ToneEffectTest, DynamicContrastBoostsLowContrastDetail) {
  auto source = std::make_shared<ImageRGBf>(_Size<int>(120, 80));
  for (int y = 0; y < 80; ++y) {
    for (int x = 0; x < 120; ++x)
      source->at(x, y) = PixelRGB<float>(0.5f + 0.03f * std::sin(0.8f * static_cast<float>(x)));
  }
  auto effect = makeEffect("VORNDynamicContrastEffect", {100});
  const auto output = test::renderOrFail(*effect, source);
  float inSpread = 0.0f, outSpread = 0.0f, inMean = 0.0f, outMean = 0.0f;
  for (int x = 20; x < 100; ++x) {
    inSpread = std::max(inSpread, std::fabs(source->at(x, 40).g - 0.5f));
    outSpread = std::max(outSpread, std::fabs(output->at(x, 40).g - 0.5f));
    inMean += source->at(x, 40).g;
    outMean += output->at(x, 40).g;
  }
  EXPECT_GT(outSpread, 1.5f * inSpread);
  EXPECT_NEAR(outMean / 80.0f, inMean / 80.0f, 0.01f);
}

/// Mean absolute channel difference over rect.
float meanDifference(const ImageRGBf& a, const ImageRGBf& b, _Rect<int> rect) {
  double sum = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y) {
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      sum += std::fabs(a.at(x, y).r - b.at(x, y).r) + std::fabs(a.at(x, y).g - b.at(x, y).g) +
             std::fabs(a.at(x, y).b - b.at(x, y).b);
    }
  }
  return static_cast<float>(sum / (3.0 * rect.width * rect.height));
}

TEST(ToneEffectTest, DehazeRecoversAHazedScene) {
  // Sky above textured land whose blue channel is nearly black (the dark-channel prior), seen
  // through uniform haze: I = J t + A (1 - t) with t = 0.5 and airlight 0.9.
  const int w = 120, h = 90;
  auto scene = std::make_shared<ImageRGBf>(_Size<int>(w, h));
  auto hazy = std::make_shared<ImageRGBf>(_Size<int>(w, h));
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const float v = 0.5f + 0.4f * std::sin(0.3f * static_cast<float>(x)) *
                                 std::cos(0.2f * static_cast<float>(y));
      const PixelRGB<float> j =
          y < 15 ? PixelRGB<float>(0.9f) : PixelRGB<float>(v * 0.9f, v * 0.6f, v * 0.04f);
      scene->at(x, y) = j;
      hazy->at(x, y) = PixelRGB<float>(j.r * 0.5f + 0.45f, j.g * 0.5f + 0.45f, j.b * 0.5f + 0.45f);
    }
  }
  auto effect = makeEffect("VORNDehazeEffect", {100});
  const auto output = test::renderOrFail(*effect, hazy);
  const _Rect<int> land(10, 30, 100, 50);
  EXPECT_LT(meanDifference(*output, *scene, land), 0.3f * meanDifference(*hazy, *scene, land));
  auto half = makeEffect("VORNDehazeEffect", {50});
  const float halfway = meanDifference(*test::renderOrFail(*half, hazy), *scene, land);
  EXPECT_LT(halfway, meanDifference(*hazy, *scene, land));
  EXPECT_GT(halfway, meanDifference(*output, *scene, land));
}

TEST(ToneEffectTest, AutoContrastStretchesTheHistogram) {
  const auto source = rowOf(ramp(0.3f, 0.6f, 1000));
  auto effect = makeEffect("VORNContrastAutoEffect", {100});
  const auto output = test::renderOrFail(*effect, source);
  EXPECT_NEAR(output->at(0, 0).r, 0.0f, 0.01f);
  EXPECT_NEAR(output->at(999, 0).r, 1.0f, 0.01f);
  auto half = makeEffect("VORNContrastAutoEffect", {50});
  EXPECT_NEAR(test::renderOrFail(*half, source)->at(999, 0).r, 0.8f, 0.01f);
}

TEST(ToneEffectTest, CurveFollowsItsPoints) {
  auto effect = EffectFactory::instance().makeEffectWithID("VORNCurveEffect", nullptr);
  effect->parameters()[0].setOptionalData(std::vector<float>{0, 0, 0.25f, 0.5f, 1, 1});
  EXPECT_TRUE(effect->isNeedProcessing());
  const auto output = test::renderOrFail(*effect, rowOf({0.0f, 0.25f, 1.0f}));
  EXPECT_NEAR(output->at(0, 0).r, 0.0f, 1e-4f);
  EXPECT_NEAR(output->at(1, 0).r, 0.5f, 1e-4f);
  EXPECT_NEAR(output->at(2, 0).r, 1.0f, 1e-4f);
  // Points that are not a curve are ignored.
  effect->parameters()[0].setOptionalData(std::vector<float>{0.5f, 0, 0.25f, 1});
  EXPECT_NEAR(test::renderOrFail(*effect, rowOf({0.25f}))->at(0, 0).r, 0.25f, 1e-5f);
}

TEST(ToneEffectTest, NeighbourhoodEffectsReportTheirReachAtTheRenderScale) {
  for (const std::string id :
       {"VORNDehazeEffect", "VORNShadowsEffect", "VORNDynamicContrastEffect"}) {
    auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
    const _Rect<int> out(100, 100, 50, 50);
    const _Rect<int> full = effect->getInRectForOutRect(out);
    auto context = std::make_shared<EffectContext>();
    context->scale = 0.25f;
    effect->setContext(context);
    const _Rect<int> preview = effect->getInRectForOutRect(out);
    EXPECT_LT(full.x, preview.x) << id;
    EXPECT_LT(preview.x, out.x) << id;
    EXPECT_EQ(full.width, out.width + 2 * (out.x - full.x)) << id;
    EXPECT_EQ(effect->getOutRectForInRect(out), preview) << id;
  }
}

}  // namespace
}  // namespace vorn
