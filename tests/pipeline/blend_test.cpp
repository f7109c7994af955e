#include <gtest/gtest.h>

#include <tbb/global_control.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "pipeline/lab_curves.h"
#include "support/log_capture.h"
#include "vorn/pipeline/blend.h"

namespace vorn {
namespace {

using RGBf = _ImageData<PixelRGB<float>>;
using Mask = _ImageData<float>;
constexpr float kSentinel = -7.0f;

// Random channels in [-0.2, 1.5], salted with the values the modes branch on.
std::shared_ptr<RGBf> randomImage(_Size<int> size, unsigned seed) {
  auto img = std::make_shared<RGBf>(size);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> value(-0.2f, 1.5f);
  const float special[] = {0.0f, 0.5f, 1.0f};
  float* v = &img->data->r;
  for (std::uint64_t i = 0; i < img->area() * 3; ++i)
    v[i] = rng() % 8 == 0 ? special[rng() % 3] : value(rng);
  return img;
}

std::shared_ptr<Mask> randomMask(_Size<int> size, unsigned seed) {
  auto mask = std::make_shared<Mask>(size);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> value(0.0f, 1.0f);
  for (std::uint64_t i = 0; i < mask->area(); ++i) mask->data[i] = value(rng);
  return mask;
}

std::shared_ptr<RGBf> filled(_Size<int> size, float v) {
  return std::make_shared<RGBf>(size, PixelRGB<float>(v));
}

std::shared_ptr<RGBf> blend(const std::shared_ptr<RGBf>& top, const std::shared_ptr<RGBf>& bottom,
                            const std::shared_ptr<Mask>& mask, float opacity, int mode,
                            _Rect<int> rect = {}) {
  std::shared_ptr<RGBf> result;
  blendImages(top, bottom, result, mask, opacity, BlendModeType(mode), rect);
  return result;
}

// The mode table evaluated plainly, one channel at a time.
float channelReference(int mode, float t, float b) {
  switch (mode) {
    case 1:
      return t * b;
    case 2:
      return t == 0.0f ? 0.0f : std::max(0.0f, 1.0f - (1.0f - b) / t);
    case 3:
      return t + b - t * b;
    case 4:
      return b < 0.5f ? 2 * t * b : 1 - 2 * (1 - t) * (1 - b);
    case 5:
      return t < 0.5f ? 2 * t * b + b * b * (1 - 2 * t)
                      : std::sqrt(std::max(b, 0.0f)) * (2 * t - 1) + 2 * b * (1 - t);
    case 6:
      return std::min(t, b);
    case 7:
      return t < 0.5f ? 2 * t * b : 1 - 2 * (1 - t) * (1 - b);
    case 8:
      return std::max(t, b);
    case 9:
      return std::fabs(t - b);
    case 10:
      return std::max(b - t, 0.0f);
    default:
      return t;
  }
}

bool samePixels(const RGBf& a, const RGBf& b) {
  return a.size() == b.size() && std::memcmp(a.data, b.data, a.sizeInBytes()) == 0;
}

bool allSentinel(const RGBf& img) {
  const float* v = &img.data->r;
  for (std::uint64_t i = 0; i < img.area() * 3; ++i)
    if (v[i] != kSentinel) return false;
  return true;
}

// Width above one kernel block, so block edges and the row tail are both met.
constexpr _Size<int> kSize(601, 7);

TEST(BlendChannels, EveryModeFollowsItsFormulaWithAndWithoutMask) {
  const auto top = randomImage(kSize, 1), bottom = randomImage(kSize, 2);
  const auto mask = randomMask(kSize, 3);
  for (int mode = kBlendNormal; mode <= kBlendSubtract; ++mode) {
    for (const auto& [m, opacity] :
         {std::pair{mask, 0.8f}, std::pair{std::shared_ptr<Mask>(), 0.6f},
          std::pair{std::shared_ptr<Mask>(), 1.0f}}) {
      const auto result = blend(top, bottom, m, opacity, mode);
      ASSERT_TRUE(result);
      int wrong = 0;
      for (std::uint64_t p = 0; p < top->area(); ++p) {
        const float a = opacity * (m ? m->data[p] : 1.0f);
        const float* t = &top->data[p].r;
        const float* b = &bottom->data[p].r;
        const float* r = &result->data[p].r;
        for (int c = 0; c < 3; ++c) {
          const float f = channelReference(mode, t[c], b[c]);
          const float expected = mode == 0 ? (t[c] - b[c]) * a + b[c] : f * a + b[c] * (1 - a);
          if (!(std::fabs(r[c] - expected) <= 2e-6f * (1.0f + std::fabs(expected)))) ++wrong;
        }
      }
      EXPECT_EQ(wrong, 0) << "mode " << mode << " opacity " << opacity << " mask " << bool(m);
    }
  }
}

TEST(BlendChannels, ExactCasesAndShortcuts) {
  const auto top = randomImage(kSize, 4), bottom = randomImage(kSize, 5);
  for (int mode = kBlendNormal; mode <= kBlendColor; ++mode) {
    const auto kept = blend(top, bottom, nullptr, 0.0f, mode);
    ASSERT_TRUE(kept);
    EXPECT_TRUE(samePixels(*kept, *bottom)) << mode;
  }
  const auto copied = blend(top, bottom, nullptr, 1.0f, kBlendNormal);
  ASSERT_TRUE(copied);
  EXPECT_TRUE(samePixels(*copied, *top));
  const auto clamped = blend(top, bottom, nullptr, 3.5f, kBlendNormal);
  ASSERT_TRUE(clamped);
  EXPECT_TRUE(samePixels(*clamped, *top));

  const auto burn = blend(filled({3, 2}, 0.0f), filled({3, 2}, 0.7f), nullptr, 1.0f, 2);
  ASSERT_TRUE(burn);
  EXPECT_EQ(burn->at(2, 1), PixelRGB<float>(0.0f));
  const auto subtract = blend(filled({3, 2}, 0.3f), filled({3, 2}, 0.2f), nullptr, 1.0f, 10);
  ASSERT_TRUE(subtract);
  EXPECT_EQ(subtract->at(0, 0), PixelRGB<float>(0.0f));
}

TEST(BlendChannels, NanStaysInItsPixel) {
  auto top = randomImage({40, 3}, 6);
  const auto bottom = randomImage({40, 3}, 7);
  top->at(5, 1).g = std::numeric_limits<float>::quiet_NaN();
  for (int mode : {kBlendNormal, kBlendSoftLight, kBlendHue}) {
    const auto result = blend(top, bottom, nullptr, 0.5f, mode);
    ASSERT_TRUE(result);
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 40; ++x) {
        if (x == 5 && y == 1) continue;
        const PixelRGB<float> p = result->at(x, y);
        EXPECT_TRUE(std::isfinite(p.r) && std::isfinite(p.g) && std::isfinite(p.b)) << mode;
      }
  }
}

TEST(BlendRegions, RectMatchesWholeImageAndLeavesTheRestAlone) {
  const auto top = randomImage(kSize, 8), bottom = randomImage(kSize, 9);
  const auto mask = randomMask(kSize, 10);
  const _Rect<int> rect(37, 2, 520, 4);
  for (int mode : {kBlendNormal, kBlendOverlay, kBlendLuminosity}) {
    const auto whole = blend(top, bottom, mask, 0.9f, mode);
    auto part = filled(kSize, kSentinel);
    blendImages(top, bottom, part, mask, 0.9f, BlendModeType(mode), rect);
    ASSERT_TRUE(whole && part);
    for (int y = 0; y < kSize.height; ++y)
      for (int x = 0; x < kSize.width; ++x) {
        const bool inside =
            x >= rect.x && x < rect.x + rect.width && y >= rect.y && y < rect.y + rect.height;
        ASSERT_EQ(part->at(x, y), inside ? whole->at(x, y) : PixelRGB<float>(kSentinel))
            << mode << " at " << x << ", " << y;
      }
  }
  // A result made for a rect starts as the bottom.
  const auto fresh = blend(top, bottom, nullptr, 0.5f, kBlendScreen, rect);
  ASSERT_TRUE(fresh);
  EXPECT_EQ(fresh->at(0, 0), bottom->at(0, 0));
  EXPECT_EQ(fresh->at(600, 6), bottom->at(600, 6));
}

TEST(BlendRegions, OneThreadEqualsMany) {
  const auto top = randomImage({700, 64}, 11), bottom = randomImage({700, 64}, 12);
  const auto mask = randomMask({700, 64}, 13);
  for (int mode = kBlendNormal; mode <= kBlendColor; ++mode) {
    std::shared_ptr<RGBf> single;
    {
      tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
      single = blend(top, bottom, mask, 0.75f, mode);
    }
    const auto many = blend(top, bottom, mask, 0.75f, mode);
    ASSERT_TRUE(single && many);
    EXPECT_TRUE(samePixels(*single, *many)) << mode;
  }
}

// A result that is top or bottom itself goes through the staged path; a separate one is written
// directly. Both must give the same bits, inside a rect too.
TEST(BlendRegions, AliasedResultEqualsSeparateResult) {
  const auto top = randomImage(kSize, 21), bottom = randomImage(kSize, 22);
  const auto mask = randomMask(kSize, 23);
  const _Rect<int> rect(3, 1, 530, 5);
  for (int mode = kBlendNormal; mode <= kBlendColor; ++mode) {
    for (const _Rect<int> region : {_Rect<int>(), rect}) {
      const auto copyOf = [](const std::shared_ptr<RGBf>& img) {
        auto copy = std::make_shared<RGBf>(img->size());
        std::memcpy(copy->data, img->data, img->sizeInBytes());
        return copy;
      };
      auto separate = copyOf(bottom);
      blendImages(top, bottom, separate, mask, 0.85f, BlendModeType(mode), region);
      auto intoTop = copyOf(top);
      std::shared_ptr<RGBf> resultTop = intoTop;
      blendImages(intoTop, bottom, resultTop, mask, 0.85f, BlendModeType(mode), region);
      auto intoBottom = copyOf(bottom);
      std::shared_ptr<RGBf> resultBottom = intoBottom;
      blendImages(top, intoBottom, resultBottom, mask, 0.85f, BlendModeType(mode), region);
      ASSERT_TRUE(separate && resultTop && resultBottom);
      ASSERT_EQ(resultTop.get(), intoTop.get());
      ASSERT_EQ(resultBottom.get(), intoBottom.get());
      EXPECT_TRUE(samePixels(*resultBottom, *separate)) << "mode " << mode;
      // Outside a rect the top-aliased result keeps top's pixels, so compare the rect only.
      const _Rect<int> inside = region.isZero() ? top->rect() : region;
      int differing = 0;
      for (int y = inside.y; y < inside.y + inside.height; ++y)
        differing += std::memcmp(resultTop->row(y) + inside.x, separate->row(y) + inside.x,
                                 sizeof(PixelRGB<float>) * inside.width) != 0;
      EXPECT_EQ(differing, 0) << "mode " << mode;
    }
  }
}

TEST(BlendFailures, EachLogsItsLineAndWritesNothing) {
  const _Size<int> size(9, 5);
  const auto top = randomImage(size, 14), bottom = randomImage(size, 15);
  const auto mask = randomMask(size, 16);
  struct Case {
    std::shared_ptr<RGBf> top, bottom, result;
    std::shared_ptr<Mask> mask;
    float opacity;
    int mode;
    _Rect<int> rect;
    std::string message;
  };
  const auto result = [&] { return filled(size, kSentinel); };
  const std::vector<Case> cases = {
      {top, randomImage({9, 4}, 1), result(), mask, 1, 1, {}, "Images have different types"},
      {top, bottom, result(), randomMask({5, 9}, 2), 1, 1, {}, "Mask has wrong size!"},
      {top, bottom, filled({9, 6}, kSentinel), mask, 1, 1, {}, "Result Image has wrong type"},
      {top, bottom, result(), mask, 1, 14, {}, "Not implemented blending mode!"},
      {top, bottom, result(), mask, 1, -1, {}, "Not implemented blending mode!"},
      {top, bottom, result(), mask, 1, 3, {5, 0, 5, 5}, "Roi rect is outside the ImageData"},
      {top, bottom, result(), mask, 1, 3, {-1, 0, 3, 3}, "Roi rect is outside the ImageData"},
      {top, bottom, result(), mask, 1, 3, {2, 2, -1, 2}, "Roi rect is outside the ImageData"},
      {top, bottom, result(), mask, 1, 3, {2, 2, 0, 0}, "Roi rect is outside the ImageData"},
      {top,
       bottom,
       result(),
       mask,
       std::numeric_limits<float>::quiet_NaN(),
       0,
       {},
       "Opacity is NaN"},
      {nullptr, bottom, result(), mask, 1, 0, {}, "Top or bottom image is missing"},
      {top, nullptr, result(), mask, 1, 0, {}, "Top or bottom image is missing"},
  };
  for (const Case& c : cases) {
    test::LogCapture log;
    auto out = c.result;
    blendImages(c.top, c.bottom, out, c.mask, c.opacity, BlendModeType(c.mode), c.rect);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << c.message;
    EXPECT_NE(lines[0].find("vorn::blendImages("), std::string::npos) << lines[0];
    EXPECT_EQ(log.countEndingWith(") " + c.message), 1u) << lines[0];
    ASSERT_TRUE(out);
    EXPECT_EQ(out.get(), c.result.get());
    EXPECT_TRUE(allSentinel(*out)) << c.message;
  }
  test::LogCapture log;
  std::shared_ptr<RGBf> none;
  blendImages(top, bottom, none, nullptr, 1, BlendModeType(99), {});
  EXPECT_FALSE(none);
  EXPECT_EQ(log.countEndingWith(" Not implemented blending mode!"), 1u);
}

// CIE L*a*b* of an sRGB-encoded pixel, in double, independent of the library's arithmetic.
struct Lab {
  double l, a, b;
  double chroma() const { return std::hypot(a, b); }
};

Lab labOf(PixelRGB<float> p) {
  const auto decode = [](double v) {
    v = std::clamp(v, 0.0, 1.0);
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
  };
  const double r = decode(p.r), g = decode(p.g), b = decode(p.b);
  const auto f = [](double t) {
    return t > 216.0 / 24389 ? std::cbrt(t) : t * 841 / 108 + 4.0 / 29;
  };
  const double fx = f((0.4124564 * r + 0.3575761 * g + 0.1804375 * b) / 0.95047);
  const double fy = f(0.2126729 * r + 0.7151522 * g + 0.0721750 * b);
  const double fz = f((0.0193339 * r + 0.1191920 * g + 0.9503041 * b) / 1.08883);
  return {116 * fy - 16, 500 * (fx - fy), 200 * (fy - fz)};
}

// Whether a result pixel lies clear of the gamut's edge, where clamping would move it.
bool inGamut(PixelRGB<float> p) {
  for (float v : {p.r, p.g, p.b})
    if (v < 0.002f || v > 0.998f) return false;
  return true;
}

// The curves behind the L*a*b* modes, swept densely against double precision: a wrong estimate
// constant or Newton factor shows here as an error far above the bounds.
TEST(BlendLab, CurvesMatchDoublePrecision) {
  double decode = 0, encode = 0, lab = 0, roundTrip = 0;
  for (int i = 0; i <= 200000; ++i) {
    const double v = i / 200000.0;
    const float f = static_cast<float>(v);
    const double linear = v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
    const double encoded = v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1 / 2.4) - 0.055;
    const double labF = v > 216.0 / 24389 ? std::cbrt(v) : v * 841 / 108 + 4.0 / 29;
    decode = std::max(decode, std::fabs(detail::srgbToLinear(f) - linear));
    encode = std::max(encode, std::fabs(detail::linearToSrgb(f) - encoded));
    lab = std::max(lab, std::fabs(detail::labF(f) - labF));
    roundTrip = std::max(roundTrip, std::fabs(detail::linearToSrgb(detail::srgbToLinear(f)) - v));
  }
  EXPECT_LT(decode, 1.5e-5);
  EXPECT_LT(encode, 1.5e-5);
  EXPECT_LT(lab, 1e-5);
  EXPECT_LT(roundTrip, 1e-4);
  // Outside [0, 1] the decoder clamps; NaN reads as 0.
  EXPECT_EQ(detail::srgbToLinear(-0.5f), 0.0f);
  EXPECT_NEAR(detail::srgbToLinear(7.0f), 1.0f, 1e-5);
  EXPECT_EQ(detail::srgbToLinear(std::numeric_limits<float>::quiet_NaN()), 0.0f);
}

TEST(BlendLab, ModesKeepTheirComponents) {
  const auto top = randomImage({300, 20}, 17), bottom = randomImage({300, 20}, 18);
  int checked = 0;
  for (int mode : {kBlendLuminosity, kBlendHue, kBlendColor}) {
    const auto result = blend(top, bottom, nullptr, 1.0f, mode);
    ASSERT_TRUE(result);
    for (std::uint64_t p = 0; p < top->area(); ++p) {
      if (!inGamut(result->data[p])) continue;
      const Lab t = labOf(top->data[p]), b = labOf(bottom->data[p]), r = labOf(result->data[p]);
      if (mode == kBlendLuminosity) {
        EXPECT_NEAR(r.l, t.l, 0.02);
        EXPECT_NEAR(r.a, b.a, 0.05);
        EXPECT_NEAR(r.b, b.b, 0.05);
      } else if (mode == kBlendColor) {
        EXPECT_NEAR(r.l, b.l, 0.02);
        EXPECT_NEAR(r.a, t.a, 0.05);
        EXPECT_NEAR(r.b, t.b, 0.05);
      } else {
        EXPECT_NEAR(r.l, b.l, 0.02);
        EXPECT_NEAR(r.chroma(), t.chroma() < 0.01 ? 0.0 : b.chroma(), 0.05);
        if (t.chroma() > 1 && b.chroma() > 1) {
          EXPECT_NEAR(std::remainder(std::atan2(r.b, r.a) - std::atan2(t.b, t.a), 2 * M_PI), 0.0,
                      0.05 / b.chroma());
        }
      }
      ++checked;
    }
  }
  EXPECT_GT(checked, 3000);
}

TEST(BlendLab, GreyRoundTripAndZeroWeight) {
  const _Size<int> size(50, 4);
  auto colours = randomImage(size, 19);
  colours->clamp();
  auto greys = std::make_shared<RGBf>(size);
  for (std::uint64_t p = 0; p < greys->area(); ++p)
    greys->data[p] = PixelRGB<float>(static_cast<float>(p) / static_cast<float>(greys->area()));
  // A colour blended with itself comes back.
  for (int mode : {kBlendLuminosity, kBlendHue, kBlendColor}) {
    const auto same = blend(colours, colours, nullptr, 1.0f, mode);
    ASSERT_TRUE(same);
    for (int p = 0; p < size.area(); ++p) {
      EXPECT_NEAR(same->data[p].r, colours->data[p].r, 1e-3);
      EXPECT_NEAR(same->data[p].g, colours->data[p].g, 1e-3);
      EXPECT_NEAR(same->data[p].b, colours->data[p].b, 1e-3);
    }
  }
  // Grey gives no colour: grey tops under Hue and Color, a grey bottom under Luminosity.
  const auto hue = blend(greys, colours, nullptr, 1.0f, kBlendHue);
  const auto color = blend(greys, colours, nullptr, 1.0f, kBlendColor);
  const auto luminosity = blend(colours, greys, nullptr, 1.0f, kBlendLuminosity);
  ASSERT_TRUE(hue && color && luminosity);
  for (int p = 0; p < size.area(); ++p) {
    for (const auto& r : {hue, color}) {
      EXPECT_LT(labOf(r->data[p]).chroma(), 0.05);
      EXPECT_NEAR(labOf(r->data[p]).l, labOf(colours->data[p]).l, 0.02);
    }
    EXPECT_LT(labOf(luminosity->data[p]).chroma(), 0.05);
  }
  // A zero weight leaves the bottom exactly, out-of-range values included.
  const auto bottom = randomImage(size, 20);
  for (int mode : {kBlendLuminosity, kBlendHue, kBlendColor}) {
    const auto kept = blend(colours, bottom, std::make_shared<Mask>(size, 0.0f), 1.0f, mode);
    ASSERT_TRUE(kept);
    EXPECT_TRUE(samePixels(*kept, *bottom)) << mode;
  }
}

}  // namespace
}  // namespace vorn
