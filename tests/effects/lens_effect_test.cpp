// Properties that tell the lens effects' algorithms apart from wrong ones. The lens is simulated
// with the database's own reverse models, so a correction that undoes them is the right one.
#include <gtest/gtest.h>

#include <lensfun/lensfun.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "effects/effect_test_support.h"
#include "effects/kernels/bilinear.h"
#include "effects/kernels/linear_gain.h"
#include "effects/lens/lens_database.h"
#include "effects/lens/lens_field.h"
#include "effects/tone/tone_tables.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/effects/lens_effects.h"

namespace vorn {
namespace {

using test::ImageRGBf;

constexpr const char* kZoom = "Canon EF 24-105mm f/4L IS USM";
constexpr const char* kPrime = "Canon EF 35mm f/1.4L USM";

LensShot canonShot(const std::string& lens, float focal, float aperture) {
  LensShot shot;
  shot.cameraMaker = "Canon";
  shot.cameraModel = "Canon EOS 5D Mark II";
  shot.lensMaker = lens.empty() ? "" : "Canon";
  shot.lensModel = lens;
  shot.focalLength = focal;
  shot.aperture = aperture;
  shot.distance = 1000.0f;
  return shot;
}

std::shared_ptr<LensCorrectionEffect> correction(const LensShot& shot, float distortion,
                                                 float aberration, float vignetting) {
  auto effect = std::dynamic_pointer_cast<LensCorrectionEffect>(
      EffectFactory::instance().makeEffectWithID(std::string(LensCorrectionEffect::kId), nullptr));
  if (!effect) return nullptr;
  effect->parameters().at(0).setValue(distortion);
  effect->parameters().at(1).setValue(aberration);
  effect->parameters().at(2).setValue(vignetting);
  effect->setShot(shot);
  return effect;
}

/// The lens of a shot made to distort or shade a perfect picture (the models run in reverse).
class SimulatedLens {
 public:
  SimulatedLens(const LensShot& shot, _Size<int> frame, int flags, bool reverse = true) {
    loaded_ = database_.Load() == LF_NO_ERROR;
    if (!loaded_) return;
    const lfCamera** cameras = database_.FindCameras("Canon", shot.cameraModel.c_str());
    const lfLens** lenses =
        database_.FindLenses(cameras ? cameras[0] : nullptr, "Canon", shot.lensModel.c_str());
    if (lenses && lenses[0]) {
      modifier_ = std::make_unique<lfModifier>(lenses[0], 1.0f, frame.width, frame.height);
      modifier_->Initialize(lenses[0], LF_PF_F32, shot.focalLength, shot.aperture, shot.distance,
                            1.0f, lenses[0]->Type, flags, reverse);
    }
    lf_free(lenses);
    lf_free(cameras);
  }
  bool ready() const { return modifier_ != nullptr; }
  /// Where pixel (x, y) of the shot lies in the perfect picture.
  void scenePoint(int x, int y, float& sx, float& sy) const {
    float xy[2];
    modifier_->ApplyGeometryDistortion(static_cast<float>(x), static_cast<float>(y), 1, 1, xy);
    sx = xy[0];
    sy = xy[1];
  }
  /// How far right of green the profile reads channel c at pixel (x, y).
  float channelOffset(int x, int y, int c) const {
    float xy[6];
    modifier_->ApplySubpixelGeometryDistortion(static_cast<float>(x), static_cast<float>(y), 1, 1,
                                               xy);
    return xy[2 * c] - xy[2];
  }
  /// The lens's shading of a linear row of pixels.
  void shade(PixelRGB<float>* row, int y, int width) const {
    modifier_->ApplyColorModification(&row->r, 0.0f, static_cast<float>(y), width, 1,
                                      LF_CR_3(RED, GREEN, BLUE),
                                      width * static_cast<int>(sizeof(PixelRGB<float>)));
  }

 private:
  lfDatabase database_;
  bool loaded_ = false;
  std::unique_ptr<lfModifier> modifier_;
};

/// Horizontal dark lines every `spacing` pixels on a light ground, as the lens draws them.
std::shared_ptr<ImageRGBf> distortedLines(const SimulatedLens& lens, _Size<int> size, int spacing) {
  auto image = std::make_shared<ImageRGBf>(size);
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x) {
      float sx = 0.0f;
      float sy = 0.0f;
      lens.scenePoint(x, y, sx, sy);
      const float offset = std::remainder(sy, static_cast<float>(spacing));
      const float line = std::exp(-offset * offset / (2.0f * 1.5f * 1.5f));
      image->at(x, y) = PixelRGB<float>(0.8f - 0.7f * line);
    }
  }
  return image;
}

/// How far the line near scene row `lineY` strays from straight: the spread of its darkness
/// centroid over the columns.
float lineBow(const ImageRGBf& image, int lineY, int halfWindow) {
  float lowest = INFINITY;
  float highest = -INFINITY;
  for (int x = 8; x < image.width - 8; ++x) {
    double weight = 0.0;
    double moment = 0.0;
    for (int y = std::max(0, lineY - halfWindow);
         y <= std::min(image.height - 1, lineY + halfWindow); ++y) {
      const double dark = std::max(0.0f, 0.8f - image.at(x, y).g);
      weight += dark;
      moment += dark * y;
    }
    if (weight <= 0.0) continue;
    const auto centroid = static_cast<float>(moment / weight);
    lowest = std::min(lowest, centroid);
    highest = std::max(highest, centroid);
  }
  return highest - lowest;
}

TEST(LensCorrection, StraightensTheLinesItsLensBends) {
  const LensShot shot = canonShot(kZoom, 24.0f, 4.0f);
  const _Size<int> size(600, 400);
  const SimulatedLens lens(shot, size, LF_MODIFY_DISTORTION);
  ASSERT_TRUE(lens.ready()) << "the lens database has no " << kZoom;
  const auto bent = distortedLines(lens, size, 40);
  const auto effect = correction(shot, 100.0f, 0.0f, 0.0f);
  ASSERT_TRUE(effect);
  ASSERT_TRUE(effect->hasProfile());
  const auto straight = test::renderOrFail(*effect, bent);
  // The lines nearest the top and bottom edges bow most under barrel distortion.
  for (const int lineY : {40, 360}) {
    const float before = lineBow(*bent, lineY, 15);
    const float after = lineBow(*straight, lineY, 15);
    EXPECT_GT(before, 2.0f) << "the simulated lens should bend line " << lineY;
    EXPECT_LT(after, 0.25f * before) << "line " << lineY;
  }
  // Half the slider removes about half the bow.
  const auto half = test::renderOrFail(*correction(shot, 50.0f, 0.0f, 0.0f), bent);
  const float halfBow = lineBow(*half, 40, 15);
  EXPECT_GT(halfBow, 0.3f * lineBow(*bent, 40, 15));
  EXPECT_LT(halfBow, 0.7f * lineBow(*bent, 40, 15));
}

TEST(LensCorrection, UndoesItsLensShadingInLinearLight) {
  const LensShot shot = canonShot(kZoom, 24.0f, 4.0f);
  const _Size<int> size(300, 200);
  const SimulatedLens lens(shot, size, LF_MODIFY_VIGNETTING);
  ASSERT_TRUE(lens.ready());
  constexpr float kGrey = 0.5f;
  auto shaded = std::make_shared<ImageRGBf>(size);
  std::vector<PixelRGB<float>> row(static_cast<std::size_t>(size.width));
  for (int y = 0; y < size.height; ++y) {
    std::fill(row.begin(), row.end(), PixelRGB<float>(detail::perceptualToLinear(kGrey)));
    lens.shade(row.data(), y, size.width);
    for (int x = 0; x < size.width; ++x)
      shaded->at(x, y) =
          PixelRGB<float>(detail::linearToPerceptual(row[static_cast<std::size_t>(x)].g));
  }
  ASSERT_LT(shaded->at(0, 0).g, kGrey - 0.05f) << "the simulated lens should darken the corners";
  const auto corrected = test::renderOrFail(*correction(shot, 0.0f, 0.0f, 100.0f), shaded);
  EXPECT_LT(test::maxDifference(*corrected, ImageRGBf(size, PixelRGB<float>(kGrey))), 0.01f);
  // Vignetting alone moves no pixel: the centre keeps its value.
  EXPECT_NEAR(corrected->at(150, 100).g, shaded->at(150, 100).g, 0.002f);
}

/// Where the edges of a light band cross row y: the band's left and right ends read from the
/// channel's sums over windows of 100 pixels around them.
std::pair<float, float> bandEnds(const ImageRGBf& image, int y, int left, int right, int channel) {
  const auto sum = [&](int a, int b) {
    double total = 0.0;
    for (int x = a; x < b; ++x) total += (&image.at(x, y).r)[channel];
    return static_cast<float>(total);
  };
  return {static_cast<float>(left + 50) - sum(left - 50, left + 50),
          static_cast<float>(right - 50) + sum(right - 50, right + 50)};
}

TEST(LensCorrection, ChromaticAberrationMovesRedAndBlueByTheProfile) {
  const LensShot shot = canonShot(kPrime, 35.0f, 2.0f);
  const _Size<int> size(1200, 800);
  constexpr int kLeft = 100;
  constexpr int kRight = 1100;
  constexpr int kRow = 400;
  auto band = std::make_shared<ImageRGBf>(size, PixelRGB<float>(0.0f));
  for (int y = 0; y < size.height; ++y)
    for (int x = kLeft; x < kRight; ++x) band->at(x, y) = PixelRGB<float>(1.0f);
  const auto effect = correction(shot, 0.0f, 100.0f, 0.0f);
  ASSERT_TRUE(effect && effect->hasProfile());
  const auto out = test::renderOrFail(*effect, band);
  const SimulatedLens lens(shot, size, LF_MODIFY_TCA, false);
  ASSERT_TRUE(lens.ready());
  const auto green = bandEnds(*out, kRow, kLeft, kRight, 1);
  EXPECT_NEAR(green.first, kLeft, 1e-3f) << "green does not move without distortion";
  EXPECT_NEAR(green.second, kRight, 1e-3f);
  // A channel read from delta pixels further right shows its edges delta pixels to the left.
  bool moved = false;
  for (const int c : {0, 2}) {
    const auto ends = bandEnds(*out, kRow, kLeft, kRight, c);
    const float leftShift = lens.channelOffset(kLeft, kRow, c);
    const float rightShift = lens.channelOffset(kRight, kRow, c);
    EXPECT_NEAR(ends.first - kLeft, -leftShift, 0.03f) << "channel " << c;
    EXPECT_NEAR(ends.second - kRight, -rightShift, 0.03f) << "channel " << c;
    moved = moved || std::fabs(leftShift) > 0.1f || std::fabs(rightShift) > 0.1f;
  }
  EXPECT_TRUE(moved) << "the profile should move red or blue by a tenth of a pixel";
  // Half the slider, half the shift.
  const auto half = test::renderOrFail(*correction(shot, 0.0f, 50.0f, 0.0f), band);
  EXPECT_NEAR(bandEnds(*half, kRow, kLeft, kRight, 2).first - kLeft,
              -0.5f * lens.channelOffset(kLeft, kRow, 2), 0.03f);
}

TEST(LensCorrection, UnknownMissingOrMalformedLensChangesNothing) {
  const auto source = test::makeTestImage(120, 80);
  const std::vector<LensShot> shots = {canonShot("", 24.0f, 4.0f),
                                       canonShot("Nonexistent Zoomatic 999mm f/0.5", 24.0f, 4.0f)};
  for (const LensShot& shot : shots) {
    const auto effect = correction(shot, 100.0f, 100.0f, 100.0f);
    ASSERT_TRUE(effect);
    EXPECT_FALSE(effect->hasProfile()) << shot.lensModel;
    EXPECT_EQ(test::maxDifference(*test::renderOrFail(*effect, source), *source), 0.0f);
  }
  // Data that is not a shot (a hand-edited document, say) is no shot at all.
  auto effect = correction(canonShot(kZoom, 24.0f, 4.0f), 100.0f, 100.0f, 100.0f);
  effect->parameters().at(0).setOptionalData(std::string("lens model=") + kZoom +
                                             ";focal length=nan");
  EXPECT_FALSE(effect->shot());
  EXPECT_EQ(test::maxDifference(*test::renderOrFail(*effect, source), *source), 0.0f);
}

TEST(LensCorrection, ShotTravelsAsTextAndFollowsClones) {
  LensShot shot = canonShot(kZoom, 24.0f, 4.0f);
  shot.cropFactor = 1.6f;
  shot.cameraModel = "Model; with = separators";
  const auto back = LensShot::fromText(shot.toText());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->lensModel, shot.lensModel);
  EXPECT_EQ(back->cameraModel, "Model  with   separators");
  EXPECT_FLOAT_EQ(back->focalLength, 24.0f);
  EXPECT_FLOAT_EQ(back->cropFactor, 1.6f);
  for (const char* bad : {"", "lens model", "colour=red", "aperture=-2", "distance=1e99",
                          "crop factor=1000", "focal length=inf"})
    EXPECT_FALSE(LensShot::fromText(bad)) << bad;

  const auto effect = correction(canonShot(kZoom, 24.0f, 4.0f), 60.0f, 0.0f, 0.0f);
  const auto copy = std::dynamic_pointer_cast<LensCorrectionEffect>(effect->clone());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->shot(), effect->shot());
  auto other = correction(canonShot(kPrime, 35.0f, 2.0f), 60.0f, 0.0f, 0.0f);
  EXPECT_NE(other->cacheKey(), effect->cacheKey());
}

TEST(LensCorrection, RegionRenderEqualsCropOfWhole) {
  const auto source = test::makeSceneImage(400, 260);
  const auto effect = correction(canonShot(kZoom, 24.0f, 4.0f), -70.0f, 100.0f, 80.0f);
  const auto whole = test::renderOrFail(*effect, source);
  const _Rect<int> region(13, 0, 150, 90);
  auto destination = std::make_shared<ImageRGBf>(source->size(), PixelRGB<float>(-1.0f));
  EffectCallContext call(source, destination, nullptr, region, nullptr, nullptr);
  ASSERT_TRUE(effect->processImage(call));
  EXPECT_EQ(test::maxDifference(*destination, *whole, region), 0.0f);
  EXPECT_GT(test::maxDifference(*whole, *source), 0.01f);
}

TEST(LensCorrection, GridOfTheModelsMatchesThemEverywhere) {
  const auto profile = detail::findLensProfile(canonShot(kZoom, 24.0f, 4.0f));
  ASSERT_TRUE(profile);
  const _Size<int> frame(6000, 4000);
  const detail::LensModifier modifier(*profile, frame, {true, true, true});
  ASSERT_TRUE(modifier.movesPixels() && modifier.shadesPixels());
  // A region away from the origin, so node positions and row starts are both exercised; the
  // second amounts push the other way and scale the aberration and shading.
  const _Rect<int> area(37, 11, 5963, 3989);
  for (const detail::LensAmounts amounts :
       {detail::LensAmounts{}, detail::LensAmounts{-0.7f, 0.5f, 0.8f}}) {
    const detail::LensField field(modifier, frame, area, amounts);
    std::vector<float> values(detail::kLensPlanes * static_cast<std::size_t>(area.width));
    float* planes[detail::kLensPlanes];
    for (int k = 0; k < detail::kLensPlanes; ++k) planes[k] = values.data() + k * area.width;
    float worstShift = 0.0f;
    float worstGain = 0.0f;
    float worstRoot = 0.0f;
    for (const int y : {11, 12, 500, 1999, 3999}) {
      // Pieces that start mid-cell read what one call over the row reads.
      field.row(area.x, y, 1000, planes);
      for (int k = 0; k < detail::kLensPlanes; ++k) planes[k] += 1000;
      field.row(area.x + 1000, y, area.width - 1000, planes);
      for (int k = 0; k < detail::kLensPlanes; ++k) planes[k] -= 1000;
      for (int n = 0; n < area.width; n += 7) {
        float exact[6];
        ASSERT_TRUE(modifier.sourceAt(area.x + n, y, exact));
        detail::scaleSource(exact, static_cast<float>(area.x + n), static_cast<float>(y), amounts);
        for (int c = 0; c < 6; ++c)
          worstShift = std::max(worstShift, std::fabs(planes[c][n] - exact[c]));
        const float gain =
            1.0f + amounts.vignetting * (modifier.shadingGainAt(area.x + n, y) - 1.0f);
        worstGain = std::max(worstGain, std::fabs(planes[detail::kGain][n] / gain - 1.0f));
        worstRoot =
            std::max(worstRoot,
                     std::fabs(planes[detail::kGainRoot][n] / std::pow(gain, 1.0f / 2.4f) - 1.0f));
      }
    }
    EXPECT_LT(worstShift, 2e-3f) << amounts.distortion;
    EXPECT_LT(worstGain, 1e-3f) << amounts.distortion;
    EXPECT_LT(worstRoot, 1e-3f) << amounts.distortion;
  }
}

TEST(LensCorrection, RowReadsMatchTheSingleSampler) {
  // Uneven values, so a wrong offset, neighbour or channel shows.
  ImageRGBf image(_Size<int>(53, 41));
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x) {
      const auto u = static_cast<float>(x);
      const auto v = static_cast<float>(y);
      image.at(x, y) = PixelRGB<float>(std::sin(0.3f * u + 0.7f * v), 0.01f * u * v,
                                       std::cos(0.5f * u - 0.2f * v));
    }
  // Inside, on and past every edge, the far corner, NaN and infinities; rows of positions a
  // pixel or less apart, as a warp reads them, and a tilted row that crosses picture rows.
  std::vector<float> xs;
  std::vector<float> ys;
  for (float y = -5.25f; y < 43.0f; y += 1.37f)
    for (float x = -3.5f; x < 56.0f; x += 0.91f) {
      xs.push_back(x);
      ys.push_back(y);
    }
  for (float x = -1.6f; x < 54.0f; x += 1.0f) {
    xs.push_back(x);
    ys.push_back(20.0f + 0.09f * x);
  }
  const float odd[][2] = {{43.0f, 32.0f},        {43.5f, 2.0f},         {NAN, 10.0f}, {10.0f, NAN},
                          {INFINITY, -INFINITY}, {-INFINITY, INFINITY}, {4.0f, 3.0f}};
  for (const auto& p : odd) {
    xs.push_back(p[0]);
    ys.push_back(p[1]);
  }
  // Frame coordinates from an origin inside the picture.
  const float originX = 2.0f;
  const float originY = -1.0f;
  std::vector<float> frameXs(xs.size());
  std::vector<float> frameYs(ys.size());
  for (std::size_t n = 0; n < xs.size(); ++n) {
    frameXs[n] = xs[n] - originX;
    frameYs[n] = ys[n] - originY;
  }
  // Every kernel the machine runs, on 32-bit and wide offsets, in bounds inside the picture and
  // in the whole of it (whose last rows leave no room for a vector's loads past them); the count
  // is not a multiple of a vector, so the tails are read too.
  int kernels = 0;
  for (const _Rect<int> bounds : {_Rect<int>(4, 3, 40, 30), image.rect()})
    for (const bool narrow : {true, false}) {
      const detail::ChannelSampler single(image, bounds);
      detail::WarpSource rows(image, bounds, originX, originY);
      rows.narrow = narrow;
      for (const auto isa :
           {detail::WarpIsa::Portable, detail::WarpIsa::Avx2, detail::WarpIsa::Avx512}) {
        std::vector<float> read(xs.size());
        for (int c = 0; c < 3; ++c) {
          if (!rows.readWith(isa, c, frameXs.data(), frameYs.data(), read.data(), read.size()))
            break;
          if (c == 0) ++kernels;
          for (std::size_t n = 0; n < xs.size(); ++n)
            ASSERT_EQ(read[n], single.at(frameXs[n] + originX, frameYs[n] + originY, c))
                << "narrow " << narrow << " kernel " << static_cast<int>(isa) << " channel " << c
                << " at " << xs[n] << ", " << ys[n];
        }
      }
    }
  EXPECT_GE(kernels, 4) << "the portable kernel reads in both bounds and offset widths";
}

TEST(LensVignette, DarkensOrLightensCornersAndKeepsTheCentre) {
  const auto flat = std::make_shared<ImageRGBf>(_Size<int>(201, 121), PixelRGB<float>(0.5f));
  const auto dark = test::renderOrFail(*test::makeEffect("VORNLensVignetteEffect", {-100}), flat);
  const auto light = test::renderOrFail(*test::makeEffect("VORNLensVignetteEffect", {100}), flat);
  EXPECT_EQ(dark->at(100, 60).g, 0.5f);
  EXPECT_EQ(light->at(100, 60).g, 0.5f);
  // The full falloff leaves a quarter of the light in the corners.
  EXPECT_NEAR(detail::perceptualToLinear(dark->at(0, 0).g),
              0.25f * detail::perceptualToLinear(0.5f), 0.01f);
  EXPECT_GT(light->at(200, 120).g, 0.6f);
  // The falloff is monotonic from the centre out.
  for (int x = 101; x < 201; ++x) EXPECT_LE(dark->at(x, 60).g, dark->at(x - 1, 60).g);
  // A later midpoint keeps more light halfway out.
  const auto late =
      test::renderOrFail(*test::makeEffect("VORNLensVignetteEffect", {-100, 100}), flat);
  EXPECT_GT(late->at(160, 60).g, dark->at(160, 60).g + 0.01f);
}

TEST(LensVignette, KeepsTheDiscInsideItsMidpointAndRendersRegionsAsTheWhole) {
  const auto source = test::makeTestImage(160, 100);
  const auto effect = test::makeEffect("VORNLensVignetteEffect", {-70, 20});
  const auto whole = test::renderOrFail(*effect, source);
  // Inside 0.35 of the half diagonal (Midpoint 20) every pixel is the source's, bit for bit;
  // outside it they darken.
  const float diagonal = std::hypot(80.0f, 50.0f);
  int inside = 0;
  int kept = 0;
  int darkened = 0;
  for (int y = 0; y < source->height; ++y)
    for (int x = 0; x < source->width; ++x) {
      const float r =
          std::hypot(static_cast<float>(x) + 0.5f - 80.0f, static_cast<float>(y) + 0.5f - 50.0f) /
          diagonal;
      const PixelRGB<float>& in = source->at(x, y);
      const PixelRGB<float>& out = whole->at(x, y);
      if (r < 0.349f) {
        ++inside;
        kept += in == out;
      } else if (r > 0.45f) {
        darkened += out.g < in.g;
      }
    }
  EXPECT_GT(inside, 1000);
  EXPECT_EQ(kept, inside);
  EXPECT_GT(darkened, 3000);
  // Regions left of, right of, across and narrower than the disc each find their own run.
  for (const _Rect<int> region : {_Rect<int>(0, 10, 60, 80), _Rect<int>(100, 0, 60, 100),
                                  _Rect<int>(33, 41, 97, 19), _Rect<int>(79, 0, 2, 100)}) {
    auto destination = std::make_shared<ImageRGBf>(source->size(), PixelRGB<float>(0.0f));
    EffectCallContext call(source, destination, nullptr, region, nullptr, nullptr);
    ASSERT_TRUE(effect->processImage(call));
    EXPECT_EQ(test::maxDifference(*whole, *destination, region), 0.0f)
        << region.x << "," << region.y;
  }
}

TEST(LinearGain, EncodedGainMatchesDecodeMultiplyEncode) {
  for (const float gain : {0.3f, 0.9f, 1.0f, 1.7f, 4.0f}) {
    const detail::EncodedGain g = detail::EncodedGain::of(gain);
    for (float v = -0.2f; v < 1.5f; v += 0.0031f) {
      const float light = v <= 0.04045f ? v / 12.92f : detail::perceptualToLinear(v);
      const float scaled = gain * light;
      const float expected =
          scaled <= 0.0031308f ? 12.92f * scaled : detail::linearToPerceptual(scaled);
      EXPECT_NEAR(detail::encodedTimesGain(v, g), expected, 2e-5f) << v << " x " << gain;
    }
  }
}

TEST(LinearGain, RowOfGainsMatchesThePixelFormAndKeepsUnitGainsExact) {
  constexpr std::size_t kCount = 257;
  constexpr std::size_t kNearKnee = 64;
  std::vector<PixelRGB<float>> in(kCount + kNearKnee);
  std::vector<float> gains(in.size());
  std::vector<float> roots(in.size());
  for (std::size_t i = 0; i < kCount; ++i) {
    const auto u = static_cast<float>(i) / static_cast<float>(kCount);
    in[i] = PixelRGB<float>(u * 1.2f - 0.1f, 0.03f * u, 1.0f - u);
    gains[i] = i % 5 == 0 ? 1.0f : 0.3f + 3.0f * u;
  }
  // Values a few ulps either side of the knee under gains a few ulps either side of 1: where
  // the segments meet, the first pass must leave to the exact form what it cannot tell.
  for (std::size_t k = 0; k < kNearKnee; ++k) {
    const float knee = std::nextafter(0.04045f, k % 2 ? 1.0f : 0.0f);
    const float v = knee + static_cast<float>(static_cast<int>(k % 8) - 4) * 4e-9f;
    in[kCount + k] = PixelRGB<float>(v, 0.04045f, std::nextafter(v, 0.0f));
    gains[kCount + k] = 1.0f + static_cast<float>(static_cast<int>(k / 8) - 4) * 6e-8f;
  }
  for (std::size_t i = 0; i < in.size(); ++i) roots[i] = std::pow(gains[i], 1.0f / 2.4f);
  std::vector<PixelRGB<float>> out(in);
  detail::applyEncodedGains(out.data(), out.data(), gains.data(), roots.data(), in.size());
  for (std::size_t i = 0; i < in.size(); ++i) {
    const PixelRGB<float> expected =
        gains[i] == 1.0f ? in[i] : detail::encodedTimesGain(in[i], {gains[i], roots[i]});
    EXPECT_EQ(out[i].r, expected.r) << i;
    EXPECT_EQ(out[i].g, expected.g) << i;
    EXPECT_EQ(out[i].b, expected.b) << i;
  }
}

}  // namespace
}  // namespace vorn
