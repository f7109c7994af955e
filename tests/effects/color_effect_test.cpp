#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "effects/color/color_kernels.h"
#include "effects/color/hue_gains.h"
#include "effects/effect_test_support.h"
#include "effects/kernels/color_space.h"
#include "effects/kernels/luminance.h"

namespace vorn {
namespace {

using test::ImageRGBf;

/// One row of the given encoded colours.
std::shared_ptr<ImageRGBf> rowOf(const std::vector<PixelRGB<float>>& pixels) {
  auto image = std::make_shared<ImageRGBf>(_Size<int>(static_cast<int>(pixels.size()), 1));
  for (std::size_t i = 0; i < pixels.size(); ++i) image->at(static_cast<int>(i), 0) = pixels[i];
  return image;
}

std::shared_ptr<ImageRGBf> greys() {
  return rowOf({PixelRGB<float>(0.02f), PixelRGB<float>(0.2f), PixelRGB<float>(0.5f),
                PixelRGB<float>(0.8f), PixelRGB<float>(1.0f), PixelRGB<float>(1.7f)});
}

std::shared_ptr<ImageRGBf> renderWith(const std::string& id, std::initializer_list<float> values,
                                      std::shared_ptr<const ImageRGBf> source) {
  auto effect = test::makeEffect(id, values);
  return test::renderOrFail(*effect, std::move(source));
}

float spread(const PixelRGB<float>& p) {
  return std::max({p.r, p.g, p.b}) - std::min({p.r, p.g, p.b});
}

float linearLuminance(const PixelRGB<float>& p) {
  return detail::luminance(detail::srgbToLinearExact(p.r), detail::srgbToLinearExact(p.g),
                           detail::srgbToLinearExact(p.b));
}

TEST(ColorSpaceTest, OklabAndTransferMatchReferenceAndRoundTrip) {
  // Published Oklab of linear sRGB red and of white.
  const detail::Oklab red = detail::linearToOklab(1.0f, 0.0f, 0.0f);
  EXPECT_NEAR(red.L, 0.62796f, 1e-4f);
  EXPECT_NEAR(red.a, 0.22486f, 1e-4f);
  EXPECT_NEAR(red.b, 0.12585f, 1e-4f);
  const detail::Oklab white = detail::linearToOklab(1.0f, 1.0f, 1.0f);
  EXPECT_NEAR(white.L, 1.0f, 1e-4f);
  EXPECT_NEAR(detail::chroma(white), 0.0f, 1e-4f);
  const detail::SrgbTransfer& transfer = detail::srgbTransfer();
  for (float v = -0.5f; v < 3.0f; v += 0.0173f) {
    if (v >= 0.0f && v <= 1.0f) {
      EXPECT_NEAR(transfer.toLinear(v), detail::srgbToLinearExact(v), 1e-5f) << v;
    }
    EXPECT_NEAR(transfer.toEncoded(transfer.toLinear(v)), v, 2e-5f * std::max(1.0f, v)) << v;
    float r = 0.0f, g = 0.0f, b = 0.0f;
    detail::oklabToLinear(detail::linearToOklab(v, 0.5f * v, 0.2f), r, g, b);
    EXPECT_NEAR(r, v, 1e-4f);
    EXPECT_NEAR(g, 0.5f * v, 1e-4f);
  }
  // The vectorised passes agree with the per-value curves bit for bit, NaN and over-range values
  // included: a pixel must not change with where a region starts.
  std::vector<float> values;
  for (float v = -2.0f; v < 4.0f; v += 0.0037f) values.push_back(v);
  values.insert(values.end(), {std::nanf(""), INFINITY, -INFINITY, 0.0f, 1.0f});
  // A toe's last value among values above it: whatever the vector holding it, that vector must
  // still take the toe.
  for (const float toeEnd : {0.04045f, 0.0031308f}) {
    values.insert(values.end(), 16, 0.5f);
    values.push_back(toeEnd);
    values.insert(values.end(), 16, 0.5f);
  }
  std::vector<float> decoded(values.size());
  std::vector<float> encoded(values.size());
  transfer.decode.apply(values.data(), decoded.data(), values.size());
  transfer.encode.apply(values.data(), encoded.data(), values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(std::bit_cast<std::uint32_t>(decoded[i]),
              std::bit_cast<std::uint32_t>(transfer.toLinear(values[i])))
        << values[i];
    EXPECT_EQ(std::bit_cast<std::uint32_t>(encoded[i]),
              std::bit_cast<std::uint32_t>(transfer.toEncoded(values[i])))
        << values[i];
    if (std::isnan(values[i])) {
      EXPECT_EQ(decoded[i], 0.0f);
    }
  }
  for (float angle = -3.14f; angle < 3.14f; angle += 0.01f) {
    EXPECT_NEAR(detail::fastAtan2(2.0f * std::sin(angle), 2.0f * std::cos(angle)), angle, 3e-4f);
  }
}

// The pixel passes (split into planes, per-CPU curve code, blocks and masked tails) against the
// per-value curves, bit for bit: runs wholly inside [0, 1] and runs with a stray value outside.
TEST(ColorSpaceTest, PlanePassesAgreeWithThePerValueCurvesBitForBit) {
  const detail::SrgbDecode decode;
  const detail::SrgbEncode encode;
  for (const std::size_t count :
       {std::size_t{1}, std::size_t{37}, std::size_t{256}, std::size_t{300}}) {
    // None, any kind, and only values above 1 (a vector with no sign or NaN to handle).
    const std::vector<float> strayKinds[] = {
        {},
        {-0.3f, 1.7f, std::nanf(""), INFINITY, -INFINITY, -0.0f, 1e-8f},
        {1.7f, INFINITY, 3e38f}};
    for (const auto& odd : strayKinds) {
      std::vector<float> pixels(3 * count);
      for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<float>((i * 7919) % 1000) / 999.0f;
      for (std::size_t k = 0; k < odd.size(); ++k) pixels[(k * 5) % pixels.size()] = odd[k];
      std::vector<float> r(count), g(count), b(count), back(3 * count);
      using Decode = void (*)(const float*, float*, float*, float*, std::size_t);
      using Encode = void (*)(const float*, const float*, const float*, float*, std::size_t, bool);
      const std::pair<Decode, Encode> passes[] = {
          {detail::decodeToPlanes, detail::encodeFromPlanes},
          {detail::decodeToPlanesPortable, detail::encodeFromPlanesPortable}};
      const float* planes[] = {r.data(), g.data(), b.data()};
      for (const auto& [decodePass, encodePass] : passes) {
        decodePass(pixels.data(), r.data(), g.data(), b.data(), count);
        for (std::size_t i = 0; i < count; ++i) {
          for (std::size_t c = 0; c < 3; ++c) {
            ASSERT_EQ(std::bit_cast<std::uint32_t>(planes[c][i]),
                      std::bit_cast<std::uint32_t>(decode(pixels[3 * i + c])))
                << count << " " << pixels[3 * i + c];
          }
        }
        // The encodings are fed the encoded values as linear light, so strays reach them too.
        for (const bool clip : {false, true}) {
          detail::splitToPlanes(pixels.data(), r.data(), g.data(), b.data(), count);
          encodePass(r.data(), g.data(), b.data(), back.data(), count, clip);
          for (std::size_t i = 0; i < back.size(); ++i) {
            const float linear = clip ? (pixels[i] > 0.0f ? pixels[i] : 0.0f) : pixels[i];
            ASSERT_EQ(std::bit_cast<std::uint32_t>(back[i]),
                      std::bit_cast<std::uint32_t>(encode(linear)))
                << count << " " << pixels[i] << " " << clip;
          }
        }
      }
      // A neutral grey from one plane: the clipped encoding of its value in all three channels.
      using EncodeGrey = void (*)(const float*, float*, std::size_t);
      for (const EncodeGrey encodeGrey :
           {detail::encodeGreyFromPlane, detail::encodeGreyFromPlanePortable}) {
        detail::splitToPlanes(pixels.data(), r.data(), g.data(), b.data(), count);
        encodeGrey(g.data(), back.data(), count);
        for (std::size_t i = 0; i < back.size(); ++i) {
          const float linear = pixels[3 * (i / 3) + 1];
          ASSERT_EQ(std::bit_cast<std::uint32_t>(back[i]),
                    std::bit_cast<std::uint32_t>(encode(linear > 0.0f ? linear : 0.0f)))
              << count << " " << linear;
        }
      }
      detail::splitToPlanes(pixels.data(), r.data(), g.data(), b.data(), count);
      detail::joinPlanes(r.data(), g.data(), b.data(), back.data(), count);
      for (std::size_t i = 0; i < back.size(); ++i) {
        ASSERT_EQ(std::bit_cast<std::uint32_t>(back[i]), std::bit_cast<std::uint32_t>(pixels[i]));
      }
    }
  }
}

// The effects' per-pixel maths uses fused multiply-adds: the vector clone that runs here must
// give the bits of the plain loop, whose fma is the library's exact one (as on CPUs without it),
// in the vector body and in the tail, for any hue, grey and stray value.
TEST(ColorSpaceTest, FusedPixelMathsIsTheSameInTheVectorCloneAndThePlainLoop) {
  const detail::HueWindow window(detail::wheelHue(210.0f), 50.0f);
  const auto adjust = [&window](float& a, float& b, float& c, std::size_t)
      __attribute__((always_inline)) {
    const float chroma = std::sqrt(std::fma(a, a, b * b));
    const float angle = detail::fastAtan2(b, a);
    a = std::fma(window.weight(a, b, chroma), angle, c);
    b = angle;
    c = chroma;
  };
  for (const std::size_t count : {std::size_t{1}, std::size_t{45}, std::size_t{512}}) {
    std::vector<float> a(count), b(count), c(count);
    for (std::size_t i = 0; i < count; ++i) {
      const float hue = 0.37f * static_cast<float>(i);
      const float radius = 0.003f * static_cast<float>(i % 97);
      a[i] = radius * std::cos(hue);
      b[i] = radius * std::sin(hue);
      c[i] = 0.01f * static_cast<float>(i % 13);
    }
    a[0] = 0.0f;
    b[0] = -0.0f;
    if (count > 3) {
      a[3] = std::nanf("");
      b[2] = INFINITY;
    }
    auto va = a, vb = b, vc = c;
    detail::adjustPlanes(adjust, va.data(), vb.data(), vc.data(), count);
    for (std::size_t i = 0; i < count; ++i) {
      adjust(a[i], b[i], c[i], i);
      for (const auto& [x, y] : {std::pair{a[i], va[i]}, {b[i], vb[i]}, {c[i], vc[i]}}) {
        if (std::isnan(x)) {
          EXPECT_TRUE(std::isnan(y)) << count << " " << i;
        } else {
          ASSERT_EQ(std::bit_cast<std::uint32_t>(x), std::bit_cast<std::uint32_t>(y))
              << count << " " << i;
        }
      }
    }
  }
}

// Effects linear in Oklab skip (L, a, b) and act on the cone roots: the shortcuts must agree
// with the trip through Oklab to within float rounding.
TEST(ColorSpaceTest, ConeRootShortcutsMatchTheTripThroughOklab) {
  for (const float L : {0.0f, 0.3f, 0.7f, 1.15f}) {
    for (const float a : {-0.25f, 0.0f, 0.12f}) {
      for (const float b : {-0.2f, 0.05f, 0.3f}) {
        const detail::Oklab lab{L, a, b};
        const detail::LmsRoot roots = detail::LmsRoot::of(lab);
        const detail::Oklab back = roots.oklab();
        EXPECT_NEAR(back.L, L, 1e-6f);
        EXPECT_NEAR(back.a, a, 1e-6f);
        EXPECT_NEAR(back.b, b, 1e-6f);
        EXPECT_NEAR(roots.lightness(), L, 1e-6f);
        detail::LmsRoot reshaped = roots;
        reshaped.reshape(L, 0.4f, L + 0.1f);
        const detail::Oklab scaled = reshaped.oklab();
        EXPECT_NEAR(scaled.L, L + 0.1f, 1e-6f);
        EXPECT_NEAR(scaled.a, 0.4f * a, 1e-6f);
        EXPECT_NEAR(scaled.b, 0.4f * b, 1e-6f);
        detail::LmsRoot moved = roots;
        moved.add(0.5f, detail::LmsRoot::of(detail::Oklab{0.0f, 0.06f, -0.02f}));
        const detail::Oklab offset = moved.oklab();
        EXPECT_NEAR(offset.L, L, 1e-6f);
        EXPECT_NEAR(offset.a, a + 0.03f, 1e-6f);
        EXPECT_NEAR(offset.b, b - 0.01f, 1e-6f);
        // The roots cubed are the cone responses of the colour's linear light (black with a
        // hue is no colour: the float matrices' rounding dominates there).
        float r, g, bl;
        roots.toLinear(r, g, bl);
        const detail::Oklab again = detail::linearToOklab(r, g, bl);
        if (L > 0.0f) {
          EXPECT_NEAR(again.L, L, 1e-4f);
          EXPECT_NEAR(again.a, a, 1e-4f);
          EXPECT_NEAR(again.b, b, 1e-4f);
        }
      }
    }
  }
  // A folded matrix renders what applying it to (L, a, b) renders, in and out of range.
  const detail::Matrix3 turnAndScale{{1.0f, 0.0f, 0.0f, 0.0f, 0.9f, -0.7f, 0.0f, 0.5f, 1.1f}};
  const auto folded = detail::oklabMatrixKernel(turnAndScale);
  const auto direct = detail::lmsRootKernel([&](detail::LmsRoot& roots) {
    detail::Oklab lab = roots.oklab();
    turnAndScale.apply(lab.L, lab.a, lab.b);
    roots = detail::LmsRoot::of(lab);
  });
  std::vector<PixelRGB<float>> pixels;
  for (int i = 0; i < 40; ++i) {
    const float v = static_cast<float>(i) / 30.0f - 0.1f;
    pixels.emplace_back(v, 0.6f * (1.0f - v) + 0.1f, 0.3f + 0.5f * v * v);
  }
  std::vector<PixelRGB<float>> viaRoots(pixels.size());
  std::vector<PixelRGB<float>> viaOklab(pixels.size());
  folded->run(pixels.data(), viaRoots.data(), pixels.size());
  direct->run(pixels.data(), viaOklab.data(), pixels.size());
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    EXPECT_NEAR(viaRoots[i].r, viaOklab[i].r, 3e-5f) << i;
    EXPECT_NEAR(viaRoots[i].g, viaOklab[i].g, 3e-5f) << i;
    EXPECT_NEAR(viaRoots[i].b, viaOklab[i].b, 3e-5f) << i;
  }
}

TEST(ColorSpaceTest, FusedStepsAndTheBitClampHoldAtTheirEdges) {
  // The steps follow smoothStep and its complement, flat outside their edges.
  const detail::FusedStep step(0.35f, 0.8f);
  for (int i = -4; i <= 24; ++i) {
    const float x = static_cast<float>(i) / 20.0f;
    EXPECT_NEAR(step(x), detail::smoothStep(0.35f, 0.8f, x), 1e-6f) << x;
    EXPECT_NEAR(step.falling(x), 1.0f - detail::smoothStep(0.35f, 0.8f, x), 1e-6f) << x;
    EXPECT_NEAR(step.scaledFrom(0.3f, -0.45f, x), 0.3f - 0.45f * detail::smoothStep(0.35f, 0.8f, x),
                1e-6f)
        << x;
  }
  // The bit clamp is exact where it matters: both zeros, the subnormals, just inside and
  // outside 1, the infinities; NaN lands on an end rather than passing through.
  const float below = std::nextafter(1.0f, 0.0f);
  const float tiny = std::numeric_limits<float>::denorm_min();
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<std::pair<float, float>> cases{
      {-0.0f, 0.0f}, {tiny, tiny}, {-tiny, 0.0f}, {0.25f, 0.25f}, {below, below},
      {1.0f, 1.0f},  {1.5f, 1.0f}, {-inf, 0.0f},  {inf, 1.0f},    {-3.0f, 0.0f}};
  for (const auto& [in, out] : cases) {
    EXPECT_EQ(std::bit_cast<std::uint32_t>(detail::unitClampBits(in)),
              std::bit_cast<std::uint32_t>(out))
        << in;
  }
  const float nan = detail::unitClampBits(std::numeric_limits<float>::quiet_NaN());
  EXPECT_TRUE(nan == 0.0f || nan == 1.0f);
  // A lower top: held exactly, and the values under it kept.
  EXPECT_EQ(detail::clampBits(0.9f, 0.7f), 0.7f);
  EXPECT_EQ(detail::clampBits(0.69f, 0.7f), 0.69f);
  EXPECT_EQ(detail::clampBits(-0.1f, 0.7f), 0.0f);
}

// A window's peak scales its weights everywhere, the fade towards grey included.
TEST(ColorSpaceTest, HueWindowPeakScalesItsWeights) {
  const detail::HueWindow full(detail::wheelHue(25.0f), 35.0f);
  const detail::HueWindow lower(detail::wheelHue(25.0f), 35.0f, 0.7f);
  float largest = 0.0f;
  for (float hue = -3.1f; hue < 3.2f; hue += 0.05f) {
    for (const float c : {0.0f, 0.01f, 0.029f, 0.05f, 0.2f}) {
      const float a = c * std::cos(hue), b = c * std::sin(hue);
      EXPECT_NEAR(lower.weight(a, b, c), 0.7f * full.weight(a, b, c), 1e-6f) << hue << " " << c;
      largest = std::max(largest, lower.weight(a, b, c));
    }
  }
  EXPECT_NEAR(largest, 0.7f, 0.01f);
}

TEST(ColorSpaceTest, ChannelCurveFollowsItsFunctionAndContinuesPastItsEnds) {
  const detail::ChannelCurve square([](float x) { return x * x; });
  const detail::ChannelCurve lifted([](float x) { return 0.2f + 0.7f * x; });
  for (int i = 0; i <= 60; ++i) {
    const float v = static_cast<float>(i) / 60.0f;
    EXPECT_NEAR(square(v), v * v, 1e-6f) << v;
    EXPECT_NEAR(lifted(v), 0.2f + 0.7f * v, 1e-6f) << v;
  }
  // The end value below 0 and for NaN, the end slope above 1.
  EXPECT_EQ(square(-0.05f), 0.0f);
  EXPECT_EQ(square(std::nanf("")), 0.0f);
  EXPECT_NEAR(lifted(1.05f), 0.9f + 0.05f * 0.7f, 1e-5f);
  EXPECT_NEAR(square(2.5f), 1.0f + 1.5f * 2.0f, 1e-2f);
}

TEST(ColorSpaceTest, FastPowerFunctionsFollowTheLibrary) {
  double worst = 0.0;
  for (float x = 1e-6f; x < 1e6f; x *= 1.0137f) {
    EXPECT_NEAR(detail::fastLog2(x), std::log2(x), 2e-7f * std::max(1.0f, std::fabs(std::log2(x))))
        << x;
    for (const float p : {-2.5f, -0.4f, 1.0f / 2.4f, 2.4f}) {
      const double exact = std::pow(static_cast<double>(x), static_cast<double>(p));
      if (std::fabs(p * std::log2(x)) > 30.0f) continue;
      worst = std::max(worst, std::fabs(detail::fastPow(x, p) / exact - 1.0));
    }
  }
  EXPECT_LT(worst, 2e-6) << "largest relative error of x^p";
  // Cube roots of cone responses: odd to the bit, so mirrored colours stay mirrored.
  double cbrtWorst = 0.0;
  for (float x = 1e-12f; x < 1e6f; x *= 1.00731f) {
    const float root = detail::fastCbrt(x);
    cbrtWorst = std::max(cbrtWorst, std::fabs(root / std::cbrt(static_cast<double>(x)) - 1.0));
    EXPECT_EQ(std::bit_cast<std::uint32_t>(detail::fastCbrt(-x)),
              std::bit_cast<std::uint32_t>(-root))
        << x;
  }
  EXPECT_LT(cbrtWorst, 1.5e-6) << "largest relative error of the cube root";
  // Whole powers of two are exact, so unit gains keep pixels bit for bit.
  for (int n = -20; n <= 20; ++n)
    EXPECT_EQ(detail::fastExp2(static_cast<float>(n)), std::ldexp(1.0f, n));
  EXPECT_EQ(detail::fastLog2(1.0f), 0.0f);
}

// The transfer curves' polynomials against double-precision references over every binade.
TEST(ColorSpaceTest, TransferCurvesStayWithinAFewTenthsOfAMillionth) {
  const detail::SrgbTransfer& transfer = detail::srgbTransfer();
  double decodeWorst = 0.0, encodeWorst = 0.0;
  for (float v = 0.0f; v <= 1.0f; v = std::nextafter(v, 2.0f) + v * 1e-5f) {
    const double d = v;
    const double linear = d <= 0.04045 ? d / 12.92 : std::pow((d + 0.055) / 1.055, 2.4);
    const double encoded = d <= 0.0031308 ? d * 12.92 : 1.055 * std::pow(d, 1.0 / 2.4) - 0.055;
    if (v > 1e-30f)
      decodeWorst = std::max(decodeWorst, std::fabs(transfer.toLinear(v) / linear - 1.0));
    encodeWorst = std::max(encodeWorst, std::fabs(transfer.toEncoded(v) - encoded));
  }
  EXPECT_LT(decodeWorst, 1e-6) << "largest relative error of the decoding";
  EXPECT_LT(encodeWorst, 1e-6) << "largest error of the encoding";
}

TEST(ColorEffectTest, SaturationRemovesAndGreysStayNeutral) {
  auto colours = test::makeTestImage(24, 8);
  for (const char* id : {"VORNSaturationEffect", "VORNRamixSaturationEffect"}) {
    auto grey = renderWith(id, {-100}, colours);
    for (int x = 0; x < grey->width; ++x) EXPECT_LT(spread(grey->at(x, 3)), 2e-4f) << id << x;
  }
  struct Case {
    const char* id;
    std::initializer_list<float> values;
  };
  const Case cases[] = {{"VORNSaturationEffect", {80}},
                        {"VORNVibranceEffect", {100}},
                        {"VORNVibranceEffect", {-100}},
                        {"VORNRamixSaturationEffect", {80}},
                        {"VORNRamixVibranceEffect", {100}},
                        {"VORNPolarizeEffect", {100}},
                        {"VORNFoliageEnhanceEffect", {100}},
                        {"VORNHueShiftEffect", {90}},
                        {"VORNColorContrastEffect", {100}},
                        {"VORNBrillianceWarmthEffect", {100}},
                        {"VORNContrastColorRangeEffect", {100, 0, 100}},
                        {"VORNBWChannelsEffect", {100, 100, -100, 50, 0, 0, 0}}};
  auto neutral = greys();
  for (const Case& c : cases) {
    auto out = renderWith(c.id, c.values, neutral);
    for (int x = 0; x < out->width; ++x) EXPECT_LT(spread(out->at(x, 0)), 3e-4f) << c.id << x;
  }
}

TEST(ColorEffectTest, VibranceFavoursMutedColoursOverStrongOnes) {
  auto source = rowOf({PixelRGB<float>(0.5f, 0.45f, 0.4f), PixelRGB<float>(0.9f, 0.1f, 0.1f)});
  auto out = renderWith("VORNVibranceEffect", {100}, source);
  const float mutedGain = spread(out->at(0, 0)) / spread(source->at(0, 0));
  const float strongGain = spread(out->at(1, 0)) / spread(source->at(1, 0));
  EXPECT_GT(mutedGain, 1.3f);
  EXPECT_LT(strongGain, 1.05f);
}

TEST(ColorEffectTest, WhiteBalanceAdaptsGreysByTemperatureAndTint) {
  auto neutral = greys();
  auto same = renderWith("VORNWhiteBalanceEffect", {0, 0}, neutral);
  EXPECT_EQ(test::maxDifference(*same, *neutral), 0.0f);
  auto warm = renderWith("VORNWhiteBalanceEffect", {60, 0}, neutral);
  auto cool = renderWith("VORNWhiteBalanceEffect", {-60, 0}, neutral);
  auto magenta = renderWith("VORNWhiteBalanceEffect", {0, 60}, neutral);
  for (int x = 1; x < 4; ++x) {
    const PixelRGB<float>& w = warm->at(x, 0);
    EXPECT_GT(w.r / w.b, 1.05f) << x;
    EXPECT_LT(cool->at(x, 0).r / cool->at(x, 0).b, 0.95f) << x;
    const PixelRGB<float>& m = magenta->at(x, 0);
    EXPECT_GT(0.5f * (m.r + m.b), 1.02f * m.g) << x;
    // An adaptation keeps the white's luminance, so greys keep theirs.
    EXPECT_NEAR(linearLuminance(w), linearLuminance(neutral->at(x, 0)), 0.02f) << x;
  }
}

TEST(ColorEffectTest, RemoveColorCastNeutralisesGreyWorldIgnoringClippedPixels) {
  // Grey patches under a warm light, plus blown highlights that must not steer the estimate.
  std::vector<PixelRGB<float>> pixels;
  for (int i = 0; i < 64; ++i) {
    const float v = 0.05f + 0.4f * static_cast<float>(i % 8) / 7.0f;
    const auto encode = detail::linearToSrgbExact;
    pixels.emplace_back(encode(1.3f * v), encode(v), encode(0.6f * v));
  }
  for (int i = 0; i < 32; ++i) pixels.emplace_back(1.0f, 1.0f, 0.3f);
  auto out = renderWith("VORNRemoveColorCastEffect", {100}, rowOf(pixels));
  for (int x = 0; x < 64; ++x) EXPECT_LT(spread(out->at(x, 0)), 0.01f) << x;
  // A frame large enough to be sampled sparsely, its rows and columns cycling the same pixels.
  auto large = std::make_shared<ImageRGBf>(_Size<int>(1030, 1030));
  for (int y = 0; y < large->height; ++y)
    for (int x = 0; x < large->width; ++x)
      large->at(x, y) = pixels[static_cast<std::size_t>(x + 3 * y) % pixels.size()];
  auto sampled = renderWith("VORNRemoveColorCastEffect", {100}, large);
  for (int x = 0; x < 64; ++x) EXPECT_LT(spread(sampled->at(x, 0)), 0.01f) << x;
}

TEST(ColorEffectTest, HueKeyedEffectsActOnTheirHuesOnly) {
  const PixelRGB<float> red(0.8f, 0.15f, 0.1f), green(0.2f, 0.6f, 0.15f), sky(0.35f, 0.6f, 0.9f);
  auto source = rowOf({red, green, sky});
  auto bw = renderWith("VORNBWChannelsEffect", {100, 100, 0, 0, 0, 0, 0}, source);
  auto flat = renderWith("VORNBWChannelsEffect", {100, 0, 0, 0, 0, 0, 0}, source);
  // The full mix is neutral exactly; just short of it, it is the grey with a trace of colour.
  auto almost = renderWith("VORNBWChannelsEffect", {99, 100, 0, 0, 0, 0, 0}, source);
  for (int x = 0; x < 3; ++x) {
    EXPECT_EQ(spread(bw->at(x, 0)), 0.0f) << x;
    EXPECT_GT(spread(almost->at(x, 0)), 1e-3f) << x;
    EXPECT_LT(spread(almost->at(x, 0)), 0.03f) << x;
    EXPECT_NEAR(almost->at(x, 0).g, bw->at(x, 0).g, 0.02f) << x;
  }
  EXPECT_GT(bw->at(0, 0).g, flat->at(0, 0).g + 0.05f);
  EXPECT_NEAR(bw->at(1, 0).g, flat->at(1, 0).g, 1e-3f);

  auto polarized = renderWith("VORNPolarizeEffect", {100}, source);
  EXPECT_LT(linearLuminance(polarized->at(2, 0)), 0.9f * linearLuminance(sky));
  EXPECT_NEAR(linearLuminance(polarized->at(0, 0)), linearLuminance(red), 0.02f);

  auto foliage = renderWith("VORNFoliageEnhanceEffect", {100}, source);
  EXPECT_GT(spread(foliage->at(1, 0)), 1.15f * spread(green));
  EXPECT_LT(test::maxDifference(*foliage, *source, {0, 0, 1, 1}), 1e-3f);

  // Muted colours, so that the rotation stays inside the gamut and can be undone.
  auto muted = rowOf({PixelRGB<float>(0.6f, 0.45f, 0.4f), PixelRGB<float>(0.45f, 0.5f, 0.6f)});
  auto there = renderWith("VORNHueShiftEffect", {40}, muted);
  auto back = renderWith("VORNHueShiftEffect", {-40}, there);
  EXPECT_GT(test::maxDifference(*there, *muted), 0.05f);
  EXPECT_LT(test::maxDifference(*back, *muted), 1e-3f);
}

TEST(ColorEffectTest, TonalEffectsTintTheirRangeAndKeepBlackAndWhite) {
  auto source = rowOf({PixelRGB<float>(0.0f), PixelRGB<float>(0.15f), PixelRGB<float>(0.85f),
                       PixelRGB<float>(1.0f)});
  auto split = renderWith("VORNSplitToningEffect", {45, 100, 220, 100, 0}, source);
  EXPECT_GT(split->at(2, 0).r, split->at(2, 0).b + 0.03f);
  EXPECT_GT(split->at(1, 0).b, split->at(1, 0).r + 0.02f);
  auto balance = renderWith("VORNColorBalanceEffect", {0, 0, 0, 0, 0, 100}, source);
  EXPECT_GT(balance->at(1, 0).b, balance->at(1, 0).r + 0.03f);
  auto cross = renderWith("VORNCrossProcessingEffect", {100}, source);
  EXPECT_GT(cross->at(1, 0).b, cross->at(1, 0).r);
  EXPECT_GT(cross->at(2, 0).r, cross->at(2, 0).b);
  EXPECT_LT(test::maxDifference(*split, *source, {0, 0, 1, 1}), 1e-3f);
  EXPECT_LT(test::maxDifference(*split, *source, {3, 0, 1, 1}), 1e-3f);
  // Lift moves black by design but leaves white where it is.
  EXPECT_LT(test::maxDifference(*balance, *source, {3, 0, 1, 1}), 1e-3f);
}

TEST(ColorEffectTest, FiltersAndMixersFollowTheirDefinitions) {
  auto source = test::makeTestImage(16, 4);
  auto swapped = renderWith("VORNChannelMixerEffect", {0, 0, 100, 0, 100, 0, 100, 0, 0}, source);
  for (int x = 0; x < 16; ++x) {
    EXPECT_NEAR(swapped->at(x, 2).r, source->at(x, 2).b, 1e-4f);
    EXPECT_NEAR(swapped->at(x, 2).b, source->at(x, 2).r, 1e-4f);
  }
  auto filtered = renderWith("VORNPhotoFilterEffect", {100, 30, 1}, source);
  auto dimmed = renderWith("VORNPhotoFilterEffect", {100, 30, 0}, source);
  // Blue glass over the top, orange over the bottom; a grey keeps its luminance under both.
  auto grey = std::make_shared<ImageRGBf>(_Size<int>(8, 32), PixelRGB<float>(0.5f));
  auto bicolor = renderWith("VORNBiColorEffect", {100, 210, 30, 0, 20}, grey);
  EXPECT_GT(bicolor->at(4, 1).b, bicolor->at(4, 1).r + 0.05f);
  EXPECT_GT(bicolor->at(4, 30).r, bicolor->at(4, 30).b + 0.05f);
  EXPECT_NEAR(linearLuminance(bicolor->at(4, 1)), linearLuminance(grey->at(4, 1)), 2e-3f);
  for (int x = 0; x < 16; ++x) {
    EXPECT_NEAR(linearLuminance(filtered->at(x, 1)), linearLuminance(source->at(x, 1)), 1e-3f);
    EXPECT_GT(filtered->at(x, 1).r - filtered->at(x, 1).b, source->at(x, 1).r - source->at(x, 1).b);
    EXPECT_LT(linearLuminance(dimmed->at(x, 1)), linearLuminance(source->at(x, 1)));
  }
}

TEST(ColorEffectTest, WarmingEffectsRaiseRedOverBlueOfAGrey) {
  // The adaptation from D65's own white is the identity.
  const detail::Matrix3 none = detail::adaptationToD65(detail::shiftedWhite(0.0f, 0.0f));
  for (std::size_t i = 0; i < 9; ++i) EXPECT_NEAR(none.m[i], i % 4 == 0 ? 1.0f : 0.0f, 1e-4f);
  const auto grey = rowOf({PixelRGB<float>(0.45f)});
  for (const auto& [id, values] : std::vector<std::pair<std::string, std::vector<float>>>{
           {"VORNWarmSkylightEffect", {100, 0}},
           {"VORNBrillianceWarmthEffect", {0, 100}},
           {"VORNSplitWarmthEffect", {100, 100}}}) {
    auto effect = test::makeEffect(id, {});
    for (std::size_t i = 0; i < values.size(); ++i) effect->parameters().at(i).setValue(values[i]);
    auto out = test::renderOrFail(*effect, grey);
    EXPECT_GT(out->at(0, 0).r, out->at(0, 0).b + 0.02f) << id;
  }
}

TEST(ColorEffectTest, ChannelToolsMoveTheChannelsTheyName) {
  auto source = rowOf({PixelRGB<float>(0.3f, 0.5f, 0.7f), PixelRGB<float>(0.8f, 0.2f, 0.4f)});
  auto stop = renderWith("VORNChannelsEffect", {100, 0, 0}, source);
  for (int x = 0; x < 2; ++x) {
    const detail::SrgbTransfer& transfer = detail::srgbTransfer();
    EXPECT_NEAR(transfer.toLinear(stop->at(x, 0).r), 2.0f * transfer.toLinear(source->at(x, 0).r),
                1e-4f);
    EXPECT_NEAR(stop->at(x, 0).g, source->at(x, 0).g, 1e-5f);
  }
  // A full tint gives every coloured pixel the tint's hue (muted ones, so it stays in gamut).
  auto muted = rowOf({PixelRGB<float>(0.6f, 0.4f, 0.5f), PixelRGB<float>(0.4f, 0.5f, 0.45f)});
  auto tinted = renderWith("VORNColorsTintEffect", {100, 200}, muted);
  const detail::HueDirection tint = detail::wheelHue(200.0f);
  for (int x = 0; x < 2; ++x) {
    const PixelRGB<float>& p = tinted->at(x, 0);
    const detail::Oklab lab =
        detail::linearToOklab(detail::srgbToLinearExact(p.r), detail::srgbToLinearExact(p.g),
                              detail::srgbToLinearExact(p.b));
    EXPECT_GT((lab.a * tint.cosine + lab.b * tint.sine) / detail::chroma(lab), 0.999f) << x;
  }
  // Bleach bypass: more contrast, a dark colour's channel ratios kept; its saturation slider
  // takes the colour out.
  auto ramp =
      rowOf({PixelRGB<float>(0.25f), PixelRGB<float>(0.75f), PixelRGB<float>(0.4f, 0.2f, 0.1f)});
  auto bleached = renderWith("VORNComplexBleachEffect", {100, 0}, ramp);
  EXPECT_LT(bleached->at(0, 0).g, 0.2f);
  EXPECT_GT(bleached->at(1, 0).g, 0.8f);
  EXPECT_NEAR(bleached->at(2, 0).r / bleached->at(2, 0).g, 2.0f, 1e-3f);
  auto grey = renderWith("VORNComplexBleachEffect", {100, -100}, ramp);
  EXPECT_LT(spread(grey->at(2, 0)), 1e-5f);
}

TEST(ColorEffectTest, ContrastColorRangeLeavesOtherHuesAlone) {
  auto source = rowOf({PixelRGB<float>(0.85f, 0.55f, 0.3f), PixelRGB<float>(0.3f, 0.45f, 0.8f)});
  auto out = renderWith("VORNContrastColorRangeEffect", {100, 30, 20}, source);
  EXPECT_GT(test::maxDifference(*out, *source, {0, 0, 1, 1}), 0.01f);
  EXPECT_LT(test::maxDifference(*out, *source, {1, 0, 1, 1}), 1e-4f);
}

// The colour effects whose curves are worked out per pixel instead of read from tables, against
// their definitions.
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

// The gains' pass (a count of starts passed and permutes where the CPU has AVX-512) against the
// per-pixel selects, bit for bit (segment starts exactly, the wrap through pi, NaN and a tail),
// and both against the sliders at the wheel colours, which a CPU without AVX-512 checks alone.
TEST(ColorCurvesTest, BlackAndWhiteGainPassMatchesThePerPixelGains) {
  const detail::HueGains gains({0.8f, -1.0f, 0.35f, 0.0f, -0.6f, 0.2f});
  std::vector<float> angles;
  for (float h = -3.2f; h < 3.2f; h += 0.00731f) angles.push_back(h);
  for (int k = 0; k < 6; ++k) {
    const float start = detail::wheelHueAngle(60.0f * static_cast<float>(k));
    angles.insert(angles.end(), {start, std::nextafter(start, -4.0f), std::nextafter(start, 4.0f)});
  }
  angles.insert(angles.end(), {std::nanf(""), 3.14159265f, -3.14159265f, 0.0f, -0.0f});
  std::vector<float> pass = angles;
  gains.apply(pass.data(), pass.size());
  ASSERT_NE(pass.size() % 16, 0u);
  // At each wheel colour the gain is its slider's share: half of it lighter, 0.4 of it darker.
  const std::array<float, 6> sliders = {0.8f, -1.0f, 0.35f, 0.0f, -0.6f, 0.2f};
  const std::size_t starts = angles.size() - 5 - 18;
  for (std::size_t k = 0; k < 6; ++k) {
    const float share = sliders[k] > 0.0f ? 0.5f * sliders[k] : 0.4f * sliders[k];
    EXPECT_NEAR(pass[starts + 3 * k], share, 1e-4f) << k;
  }
  for (std::size_t i = 0; i < angles.size(); ++i) {
    const float one = gains(angles[i]);
    if (std::isnan(one)) {
      EXPECT_TRUE(std::isnan(pass[i])) << angles[i];
    } else {
      EXPECT_EQ(std::bit_cast<std::uint32_t>(pass[i]), std::bit_cast<std::uint32_t>(one))
          << angles[i];
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
