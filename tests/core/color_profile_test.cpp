#include <gtest/gtest.h>
#include <lcms2.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <set>
#include <span>
#include <vector>

#include "core/color_matrix_shaper.h"
#include "support/log_capture.h"
#include "vorn/core/color_profile.h"
#include "vorn/core/image_data.h"

namespace vorn {
namespace {

using RGBf = PixelRGB<float>;
using Profile = std::shared_ptr<ColorProfile>;

std::vector<Profile> standardProfiles() {
  return {ColorProfileType::sRGB(),       ColorProfileType::sRGBLinear(),
          ColorProfileType::melissaRGB(), ColorProfileType::proPhotoRGB(),
          ColorProfileType::adobeRGB(),   ColorProfileType::D65_XYZ(),
          ColorProfileType::DCI_P3()};
}

float srgbToLinear(float v) {
  return v <= 0.04045f ? v / 12.92f : std::pow((v + 0.055f) / 1.055f, 2.4f);
}

std::shared_ptr<ImageDataRGBf> randomImage(int w, int h, Profile profile, unsigned seed = 7) {
  auto image = std::make_shared<ImageDataRGBf>(_Size<int>(w, h), std::move(profile));
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (std::uint64_t i = 0; i < image->area(); ++i)
    image->data[i] = RGBf(unit(rng), unit(rng), unit(rng));
  return image;
}

/// lcms run directly, bypassing the library's own conversion.
void engineTransform(const Profile& from, const Profile& to, cmsUInt32Number format, const void* in,
                     void* out, std::uint64_t pixels) {
  ASSERT_TRUE(from && to);
  const Blob& a = from->iccProfile();
  const Blob& b = to->iccProfile();
  cmsHPROFILE source = cmsOpenProfileFromMem(a.data(), static_cast<cmsUInt32Number>(a.size()));
  cmsHPROFILE target = cmsOpenProfileFromMem(b.data(), static_cast<cmsUInt32Number>(b.size()));
  const cmsUInt32Number flags = T_EXTRA(format) ? cmsFLAGS_COPY_ALPHA : 0;
  cmsHTRANSFORM xf = source && target ? cmsCreateTransform(source, format, target, format,
                                                           INTENT_PERCEPTUAL, flags)
                                      : nullptr;
  EXPECT_NE(xf, nullptr) << "lcms could not convert from " << from->name() << " to " << to->name();
  if (xf) {
    cmsDoTransform(xf, in, out, static_cast<cmsUInt32Number>(pixels));
    cmsDeleteTransform(xf);
  }
  if (source) cmsCloseProfile(source);
  if (target) cmsCloseProfile(target);
}

RGBf convertOne(RGBf value, Profile from, Profile to) {
  auto src = std::make_shared<ImageDataRGBf>(_Size<int>(1, 1), value, std::move(from));
  std::shared_ptr<ImageDataRGBf> dst;
  EXPECT_TRUE(src->colorTransform(dst, std::move(to)));
  return dst ? dst->at(0, 0) : RGBf(-99.0f);
}

void expectNear(RGBf actual, RGBf expected, float tolerance) {
  EXPECT_NEAR(actual.r, expected.r, tolerance);
  EXPECT_NEAR(actual.g, expected.g, tolerance);
  EXPECT_NEAR(actual.b, expected.b, tolerance);
}

TEST(ColorProfileType, StandardProfilesAreSharedValidAndDistinctlyNamed) {
  std::set<std::string> names;
  for (const Profile& p : standardProfiles()) {
    ASSERT_TRUE(p);
    EXPECT_TRUE(p->isValid()) << p->name();
    EXPECT_FALSE(p->name().empty());
    names.insert(p->name());
  }
  EXPECT_EQ(names.size(), standardProfiles().size());
  EXPECT_EQ(ColorProfileType::sRGB().get(), ColorProfileType::sRGB().get());
  EXPECT_FALSE(ColorProfileType::None());
}

TEST(ColorProfile, EqualityIsByNameAndBadBytesGiveAnInvalidProfile) {
  const auto srgb = ColorProfileType::sRGB();
  ASSERT_TRUE(srgb);
  const Blob& bytes = srgb->iccProfile();
  const ColorProfile copy(Blob(bytes.data(), bytes.size()));
  const auto linear = ColorProfileType::sRGBLinear();
  ASSERT_TRUE(linear);
  EXPECT_TRUE(copy == *srgb);
  EXPECT_TRUE(copy != *linear);

  const char garbage[] = "definitely not an ICC profile, just some text bytes here......";
  for (const ColorProfile& bad : {ColorProfile(Blob()), ColorProfile(Blob(garbage, sizeof garbage)),
                                  ColorProfile(Blob(bytes.data(), 100))}) {
    EXPECT_FALSE(bad.isValid());
    EXPECT_TRUE(bad.name().empty());
  }
}

TEST(ColorTransform, SrgbToLinearFollowsTheExtendedCurveAndSurvivesNaN) {
  auto linear = ColorProfileType::sRGBLinear();
  EXPECT_NEAR(convertOne(RGBf(0.5f), ColorProfileType::sRGB(), linear).r, 0.2140f, 1e-4f);
  // Values outside [0, 1] are not clipped by the float path.
  for (float v : {0.0f, 0.02f, 0.3f, 0.9f, 1.0f, 2.0f, -0.02f}) {
    const RGBf out = convertOne(RGBf(v, 0.5f, 0.25f), ColorProfileType::sRGB(), linear);
    EXPECT_NEAR(out.r, srgbToLinear(v), 1e-4f * std::max(1.0f, std::fabs(srgbToLinear(v)))) << v;
  }
  // A buffer without a profile is read as sRGB.
  EXPECT_NEAR(convertOne(RGBf(0.5f), ColorProfileType::None(), linear).g, 0.2140f, 1e-4f);

  auto src = randomImage(16, 4, ColorProfileType::sRGB());
  src->at(5, 2) = RGBf(std::numeric_limits<float>::quiet_NaN());
  src->at(6, 2) = RGBf(std::numeric_limits<float>::infinity(), 1e30f, -1e30f);
  std::shared_ptr<ImageDataRGBf> dst;
  ASSERT_TRUE(src->colorTransform(dst, linear) && dst);
  EXPECT_NEAR(dst->at(4, 2).r, srgbToLinear(src->at(4, 2).r), 1e-4f);
  EXPECT_NEAR(dst->at(7, 2).b, srgbToLinear(src->at(7, 2).b), 1e-4f);
}

TEST(ColorTransform, WhiteStaysWhiteAndXyzMatchesTheSrgbMatrix) {
  for (const Profile& p : standardProfiles()) {
    if (p == ColorProfileType::D65_XYZ()) continue;
    expectNear(convertOne(RGBf(1.0f), ColorProfileType::sRGB(), p), RGBf(1.0f), 1e-3f);
    expectNear(convertOne(RGBf(1.0f), p, ColorProfileType::sRGB()), RGBf(1.0f), 1e-3f);
  }
  auto xyz = ColorProfileType::D65_XYZ();
  expectNear(convertOne(RGBf(1.0f), ColorProfileType::sRGB(), xyz), RGBf(0.9505f, 1.0f, 1.089f),
             1e-3f);
  expectNear(convertOne(RGBf(1, 0, 0), ColorProfileType::sRGB(), xyz),
             RGBf(0.4124f, 0.2126f, 0.0193f), 1e-3f);
  expectNear(convertOne(RGBf(0, 0, 1), ColorProfileType::sRGBLinear(), xyz),
             RGBf(0.1805f, 0.0722f, 0.9505f), 1e-3f);
}

TEST(ColorTransform, WideGamutRoundTripsAreLossless) {
  for (const Profile& wide : {ColorProfileType::proPhotoRGB(), ColorProfileType::melissaRGB()}) {
    auto src = randomImage(64, 64, ColorProfileType::sRGB());
    std::shared_ptr<ImageDataRGBf> there, back;
    ASSERT_TRUE(src->colorTransform(there, wide) && there);
    ASSERT_TRUE(there->colorTransform(back, ColorProfileType::sRGB()) && back);
    float worst = 0.0f;
    for (std::uint64_t i = 0; i < src->area(); ++i) {
      const RGBf a = src->data[i], b = back->data[i];
      worst = std::max({worst, std::fabs(a.r - b.r), std::fabs(a.g - b.g), std::fabs(a.b - b.b)});
    }
    EXPECT_LT(worst, 1e-4f) << wide->name();
  }
}

TEST(ColorTransform, ParallelChunksMatchOneTransformCall) {
  // 8-bit buffers take lcms's own path. 101 x 37 pixels leave a remainder for every thread count
  // up to 36 except 1 and 37.
  using RGB8 = PixelRGB<unsigned char>;
  auto src = std::make_shared<ImageDataRGB8>(_Size<int>(101, 37), ColorProfileType::sRGB());
  for (std::uint64_t i = 0; i < src->area(); ++i)
    src->data[i] = RGB8(static_cast<unsigned char>(i), static_cast<unsigned char>(i * 7),
                        static_cast<unsigned char>(i * 13));
  std::shared_ptr<ImageDataRGB8> dst;
  ASSERT_TRUE(src->colorTransform(dst, ColorProfileType::proPhotoRGB()) && dst);

  std::vector<RGB8> reference(src->area());
  engineTransform(ColorProfileType::sRGB(), ColorProfileType::proPhotoRGB(), TYPE_RGB_8, src->data,
                  reference.data(), src->area());
  EXPECT_EQ(0, std::memcmp(reference.data(), dst->data, dst->sizeInBytes()));
}

TEST(ColorTransform, DestinationIsReusedReplacedOrConvertedInPlace) {
  auto p3 = ColorProfileType::DCI_P3();
  auto src = randomImage(33, 17, ColorProfileType::sRGB());
  std::shared_ptr<ImageDataRGBf> out;
  ASSERT_TRUE(src->colorTransform(out, p3) && out);
  EXPECT_EQ(out->colorProfile.get(), p3.get());  // the caller's object, not a copy
  auto self = std::make_shared<ImageDataRGBf>(*src), alias = self;
  ASSERT_TRUE(self->colorTransform(alias, p3) && alias);
  EXPECT_EQ(alias.get(), self.get());
  EXPECT_EQ(0, std::memcmp(out->data, self->data, out->sizeInBytes()));

  // Without a profile argument the destination's own profile is the target.
  auto same = std::make_shared<ImageDataRGBf>(src->size(), ColorProfileType::sRGBLinear());
  const ImageDataRGBf* kept = same.get();
  ASSERT_TRUE(src->colorTransform(same) && same);
  EXPECT_EQ(same.get(), kept);
  EXPECT_NEAR(same->at(3, 4).g, srgbToLinear(src->at(3, 4).g), 1e-4f);

  auto other = std::make_shared<ImageDataRGBf>(_Size<int>(3, 3), ColorProfileType::sRGB());
  const ImageDataRGBf* old = other.get();
  const auto linear = ColorProfileType::sRGBLinear();
  ASSERT_TRUE(linear);
  const Blob& icc = linear->iccProfile();
  ASSERT_TRUE(src->colorTransform(other, icc.data(), icc.size()) && other);
  EXPECT_NE(other.get(), old);
  EXPECT_EQ(other->size(), src->size());
  ASSERT_TRUE(other->colorProfile);
  EXPECT_TRUE(*other->colorProfile == *linear);
  EXPECT_NEAR(other->at(32, 16).r, srgbToLinear(src->at(32, 16).r), 1e-4f);

  // Converting a buffer into its own profile object is a no-op, even for odd values.
  self->at(0, 0) = RGBf(std::numeric_limits<float>::quiet_NaN(), 2.5f, -0.3f);
  const ImageDataRGBf before(*self);
  ASSERT_TRUE(self->colorTransform(alias, p3) && alias);
  EXPECT_EQ(0, std::memcmp(before.data, self->data, self->sizeInBytes()));
}

TEST(ColorTransform, UnreadableProfilesFailAndLeaveTheDestinationAlone) {
  auto src = randomImage(8, 8, ColorProfileType::sRGB());
  auto dst =
      std::make_shared<ImageDataRGBf>(_Size<int>(8, 8), RGBf(0.25f), ColorProfileType::adobeRGB());
  ImageDataRGBf* kept = dst.get();
  test::LogCapture log;
  const char junk[200] = "acsp but not a profile";
  EXPECT_FALSE(src->colorTransform(dst, junk, sizeof junk));
  EXPECT_FALSE(src->colorTransform(dst, nullptr, 16));
  auto broken = std::make_shared<ImageDataRGBf>(_Size<int>(8, 8), RGBf(0.5f),
                                                std::make_shared<ColorProfile>(Blob(junk, 40)));
  EXPECT_FALSE(broken->colorTransform(dst, ColorProfileType::sRGB()));
  // A readable profile of another colour space cannot take RGB pixels.
  cmsHPROFILE lab = cmsCreateLab4Profile(nullptr);
  ASSERT_TRUE(lab);
  cmsUInt32Number labBytes = 0;
  cmsSaveProfileToMem(lab, nullptr, &labBytes);
  std::vector<std::uint8_t> labIcc(labBytes);
  cmsSaveProfileToMem(lab, labIcc.data(), &labBytes);
  cmsCloseProfile(lab);
  EXPECT_FALSE(src->colorTransform(dst, labIcc.data(), labIcc.size()));
  ASSERT_EQ(dst.get(), kept);
  EXPECT_EQ(dst->colorProfile, ColorProfileType::adobeRGB());
  EXPECT_EQ(dst->at(7, 7), RGBf(0.25f));
  // Each failure is one line under the public function's signature.
  EXPECT_EQ(log.countEndingWith(" Could not read the ICC profile"), 2u);
  EXPECT_EQ(log.countContaining("Could not create the colour transform from \"sRGB"), 1u);
  EXPECT_EQ(log.countContaining("::colorTransform("), 4u);
  EXPECT_EQ(log.countEndingWith(" Could not read the source ICC profile"), 1u);
}

TEST(ColorTransform, OtherPixelTypes) {
  using RGB8 = PixelRGB<unsigned char>;
  auto bytes =
      std::make_shared<ImageDataRGB8>(_Size<int>(3, 1), RGB8(255), ColorProfileType::sRGB());
  bytes->at(0, 0) = RGB8(128);
  bytes->at(2, 0) = RGB8(0);
  std::shared_ptr<ImageDataRGB8> linear8;
  ASSERT_TRUE(bytes->colorTransform(linear8, ColorProfileType::sRGBLinear()) && linear8);
  EXPECT_NEAR(linear8->at(0, 0).g, 55, 1);  // srgbToLinear(128 / 255) * 255 = 55.0
  EXPECT_EQ(linear8->at(1, 0), RGB8(255));
  EXPECT_EQ(linear8->at(2, 0), RGB8(0));

  using RGBAf = PixelRGBA<float>;
  auto rgba = std::make_shared<_ImageData<RGBAf>>(_Size<int>(2, 1), RGBAf(0.5f, 0.2f, 0.9f, 0.25f),
                                                  ColorProfileType::sRGB());
  std::shared_ptr<_ImageData<RGBAf>> linearA;
  ASSERT_TRUE(rgba->colorTransform(linearA, ColorProfileType::sRGBLinear()) && linearA);
  EXPECT_NEAR(linearA->at(1, 0).r, 0.2140f, 1e-4f);
  EXPECT_NEAR(linearA->at(1, 0).b, srgbToLinear(0.9f), 1e-4f);
  EXPECT_EQ(linearA->at(1, 0).a, 0.25f);

  // Grey planes have no colour: the values stay, the profile is attached.
  auto plane = std::make_shared<_ImageData<float>>(_Size<int>(4, 4), 0.5f);
  std::shared_ptr<_ImageData<float>> planeOut;
  ASSERT_TRUE(plane->colorTransform(planeOut, ColorProfileType::proPhotoRGB()) && planeOut);
  EXPECT_EQ(planeOut->at(3, 3), 0.5f);
  EXPECT_EQ(planeOut->colorProfile, ColorProfileType::proPhotoRGB());
}

// The float path for two matrix-shaper profiles is the library's own; lcms run directly is the
// reference it must follow.

/// A profile with sRGB primaries and `curve` (taken) on every channel.
Profile curveProfile(cmsToneCurve* curve, double version, const char* name) {
  const cmsCIExyY d65{0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE primaries{{0.64, 0.33, 1.0}, {0.30, 0.60, 1.0}, {0.15, 0.06, 1.0}};
  cmsToneCurve* curves[3] = {curve, curve, curve};
  cmsHPROFILE h = cmsCreateRGBProfile(&d65, &primaries, curves);
  cmsFreeToneCurve(curve);
  if (h == nullptr) {
    ADD_FAILURE() << "lcms could not build the profile " << name;
    return {};
  }
  cmsSetProfileVersion(h, version);
  cmsMLU* description = cmsMLUalloc(nullptr, 1);
  cmsMLUsetASCII(description, "en", "US", name);
  cmsWriteTag(h, cmsSigProfileDescriptionTag, description);
  cmsMLUfree(description);
  cmsUInt32Number bytes = 0;
  cmsSaveProfileToMem(h, nullptr, &bytes);
  std::vector<std::uint8_t> icc(bytes);
  cmsSaveProfileToMem(h, icc.data(), &bytes);
  cmsCloseProfile(h);
  return std::make_shared<ColorProfile>(Blob(icc.data(), icc.size()));
}

std::shared_ptr<ImageDataRGBf> uniformImage(Profile profile, float lo, float hi, unsigned seed) {
  auto image = std::make_shared<ImageDataRGBf>(_Size<int>(97, 61), std::move(profile));
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> value(lo, hi);
  for (std::uint64_t i = 0; i < image->area(); ++i)
    image->data[i] = RGBf(value(rng), value(rng), value(rng));
  return image;
}

std::vector<RGBf> engineResult(const ImageDataRGBf& src, const Profile& to) {
  std::vector<RGBf> reference(src.area());
  engineTransform(src.colorProfile, to, TYPE_RGB_FLT, src.data, reference.data(), src.area());
  return reference;
}

/// The largest difference between two results, relative to max(1, |reference|); infinite when
/// only one side is NaN.
double worstDifference(const ImageDataRGBf& dst, const std::vector<RGBf>& reference) {
  double worst = 0.0;
  for (std::uint64_t i = 0; i < dst.area(); ++i) {
    const float got[3] = {dst.data[i].r, dst.data[i].g, dst.data[i].b};
    const float want[3] = {reference[i].r, reference[i].g, reference[i].b};
    for (int c = 0; c < 3; ++c) {
      if (std::isnan(got[c]) || std::isnan(want[c])) {
        if (std::isnan(got[c]) != std::isnan(want[c]))
          return std::numeric_limits<double>::infinity();
        continue;
      }
      if (got[c] == want[c]) continue;  // equal infinities too
      worst = std::max(worst, std::fabs(static_cast<double>(got[c]) - want[c]) /
                                  std::max(1.0, std::fabs(static_cast<double>(want[c]))));
    }
  }
  return worst;
}

/// worstDifference of the library's conversion against lcms run directly.
double worstAgainstEngine(const ImageDataRGBf& src, const Profile& to) {
  std::shared_ptr<ImageDataRGBf> dst;
  EXPECT_TRUE(src.colorTransform(dst, to));
  if (!dst) return std::numeric_limits<double>::infinity();
  return worstDifference(*dst, engineResult(src, to));
}

TEST(ColorTransformMatrixShaper, FollowsTheEngineInAndOutOfRange) {
  const auto srgb = ColorProfileType::sRGB(), proPhoto = ColorProfileType::proPhotoRGB();
  const auto p3 = ColorProfileType::DCI_P3(), xyz = ColorProfileType::D65_XYZ();
  const std::pair<Profile, Profile> pairs[] = {
      {srgb, proPhoto},
      {proPhoto, srgb},
      {srgb, p3},
      {p3, srgb},
      {proPhoto, p3},
      {p3, proPhoto},
      {xyz, ColorProfileType::adobeRGB()},
      {ColorProfileType::sRGBLinear(), ColorProfileType::melissaRGB()}};
  unsigned seed = 1;
  for (const auto& [from, to] : pairs) {
    SCOPED_TRACE(from->name() + " -> " + to->name());
    ASSERT_TRUE(detail::findMatrixShaperTransform(from, to));
    EXPECT_LE(worstAgainstEngine(*uniformImage(from, 0.0f, 1.0f, ++seed), to), 2e-5);
    EXPECT_LE(worstAgainstEngine(*uniformImage(from, -0.5f, 4.0f, ++seed), to), 2e-5);
  }
}

/// Every value meets every other in the same pixel, next to a plain value or zero.
std::shared_ptr<ImageDataRGBf> oddValueImage(Profile profile, std::span<const float> odd) {
  const int side = static_cast<int>(odd.size());
  auto src = std::make_shared<ImageDataRGBf>(_Size<int>(side, 3 * side), std::move(profile));
  for (std::size_t i = 0; i < odd.size(); ++i)
    for (std::size_t j = 0; j < odd.size(); ++j) {
      const int x = static_cast<int>(i), y = static_cast<int>(j);
      src->at(x, y) = RGBf(odd[i], odd[j], 0.5f);
      src->at(x, side + y) = RGBf(0.25f, odd[j], odd[i]);
      src->at(x, 2 * side + y) = RGBf(odd[i], odd[j], 0.0f);
    }
  return src;
}

/// A version 2 profile whose curves are 16-bit tables of `entries` values of `curve`, as many
/// cameras embed.
template <typename Curve>
Profile tabulatedProfile(std::size_t entries, Curve curve, const char* name) {
  std::vector<cmsUInt16Number> table(entries);
  for (std::size_t i = 0; i < entries; ++i)
    table[i] = static_cast<cmsUInt16Number>(
        std::lround(65535.0 * curve(static_cast<float>(i) / static_cast<float>(entries - 1))));
  return curveProfile(
      cmsBuildTabulatedToneCurve16(nullptr, static_cast<cmsUInt32Number>(entries), table.data()),
      2.1, name);
}

TEST(ColorTransformMatrixShaper, OddValuesGiveWhatTheEngineGives) {
  const float inf = std::numeric_limits<float>::infinity();
  const float odd[] = {0.0f,   -0.0f,   1e-30f,  -1e-30f,  1e-8f,
                       1e-45f, 0.0404f, 0.0405f, 0.00313f, 0.5f,
                       255.9f, 256.0f,  300.0f,  1e6f,     1e21f,
                       -1e30f, 3.4e38f, inf,     -inf,     std::numeric_limits<float>::quiet_NaN()};
  for (const auto& [from, to] :
       {std::pair(ColorProfileType::sRGB(), ColorProfileType::proPhotoRGB()),
        std::pair(ColorProfileType::proPhotoRGB(), ColorProfileType::sRGB()),
        std::pair(ColorProfileType::DCI_P3(), ColorProfileType::sRGBLinear()),
        std::pair(ColorProfileType::sRGBLinear(), ColorProfileType::DCI_P3()),
        // Equal primaries: lcms drops the matrix, so a NaN stays in its own channel.
        std::pair(ColorProfileType::sRGB(), ColorProfileType::sRGBLinear())}) {
    SCOPED_TRACE(from->name() + " -> " + to->name());
    EXPECT_LE(worstAgainstEngine(*oddValueImage(from, odd), to), 2e-5);
  }
}

TEST(ColorTransformMatrixShaper, HoldsWhereTheDestinationCurveIsSteep) {
  // Colours with one channel just above black in a pure gamma space: the linear value there comes
  // from terms that nearly cancel, and a slope of 1000 or more turns any difference in them into
  // a visible one. The sources are made by lcms from those colours.
  const auto proPhoto = ColorProfileType::proPhotoRGB();
  for (const auto& [from, to] :
       {std::pair(proPhoto, ColorProfileType::DCI_P3()),
        std::pair(proPhoto, ColorProfileType::adobeRGB()),
        std::pair(ColorProfileType::D65_XYZ(), ColorProfileType::DCI_P3())}) {
    SCOPED_TRACE(from->name() + " -> " + to->name());
    auto wanted = uniformImage(to, 0.0f, 1.0f, 40);
    std::mt19937 rng(41);
    std::uniform_real_distribution<float> dark(0.0005f, 0.01f);
    for (std::uint64_t i = 0; i < wanted->area(); ++i) (&wanted->data[i].r)[i % 3] = dark(rng);
    auto src = std::make_shared<ImageDataRGBf>(wanted->size(), from);
    engineTransform(to, from, TYPE_RGB_FLT, wanted->data, src->data, src->area());
    EXPECT_LE(worstAgainstEngine(*src, to), 2e-5);
  }
}

TEST(ColorTransformMatrixShaper, AlphaPassesThroughAndRowsConvertAlone) {
  auto rgb = uniformImage(ColorProfileType::sRGB(), -0.2f, 1.5f, 11);
  auto rgba = std::make_shared<_ImageData<PixelRGBA<float>>>(rgb->size(), ColorProfileType::sRGB());
  const float alphas[] = {0.0f, 0.5f, 1.0f, -1.0f, 2.5f, std::numeric_limits<float>::quiet_NaN()};
  for (std::uint64_t i = 0; i < rgb->area(); ++i) {
    const RGBf c = rgb->data[i];
    rgba->data[i] = PixelRGBA<float>(c.r, c.g, c.b, alphas[i % std::size(alphas)]);
  }
  const auto p3 = ColorProfileType::DCI_P3();
  std::shared_ptr<ImageDataRGBf> rgbOut;
  std::shared_ptr<_ImageData<PixelRGBA<float>>> rgbaOut;
  ASSERT_TRUE(rgb->colorTransform(rgbOut, p3) && rgbOut);
  ASSERT_TRUE(rgba->colorTransform(rgbaOut, p3) && rgbaOut);
  for (std::uint64_t i = 0; i < rgb->area(); ++i) {
    const PixelRGBA<float> a = rgbaOut->data[i];
    ASSERT_EQ(RGBf(a.r, a.g, a.b), rgbOut->data[i]) << i;
    ASSERT_EQ(0, std::memcmp(&a.a, &rgba->data[i].a, sizeof(float))) << i;
  }
  // A single row converted on its own equals that row of the whole image.
  const int y = 37;
  auto row = std::make_shared<ImageDataRGBf>(_Size<int>(rgb->width, 1), ColorProfileType::sRGB());
  std::memcpy(row->data, rgb->row(y), row->sizeInBytes());
  std::shared_ptr<ImageDataRGBf> rowOut;
  ASSERT_TRUE(row->colorTransform(rowOut, p3) && rowOut);
  EXPECT_EQ(0, std::memcmp(rowOut->data, rgbOut->row(y), rowOut->sizeInBytes()));
}

TEST(ColorTransformMatrixShaper, TabulatedAndBlackOffsetCurvesFollowTheEngine) {
  // lcms clips and quantises the input of a tabulated curve.
  const Profile tabulated = tabulatedProfile(1024, srgbToLinear, "tabulated");
  // A version 4 curve that does not reach 0: lcms then adds black point compensation.
  const double lifted[7] = {2.2, 0.95, 0.05, 0.1, 0.05, 0.02, 0.025};
  const Profile offset =
      curveProfile(cmsBuildParametricToneCurve(nullptr, 5, lifted), 4.3, "lifted");
  const auto proPhoto = ColorProfileType::proPhotoRGB();
  unsigned seed = 20;
  for (const auto& [from, to] : {std::pair(tabulated, proPhoto), std::pair(proPhoto, tabulated),
                                 std::pair(offset, proPhoto), std::pair(proPhoto, offset)}) {
    SCOPED_TRACE(from->name() + " -> " + to->name());
    ASSERT_TRUE(detail::findMatrixShaperTransform(from, to));
    EXPECT_LE(worstAgainstEngine(*uniformImage(from, 0.0f, 1.0f, ++seed), to), 2e-5);
    EXPECT_LE(worstAgainstEngine(*uniformImage(from, -0.5f, 4.0f, ++seed), to), 2e-5);
  }
}

// lcms reads a 16-bit table at a code clamped to [0, 65535], so values beyond either end,
// infinities included, take the end entries, and a NaN takes the code its low bits fall on
// (mid-table for the NaN arithmetic makes): nothing leaves a table as NaN. The library's
// kernels follow that rule by handing every pixel holding a NaN to lcms: the same bits.
TEST(ColorTransformMatrixShaper, TabulatedCurvesFollowTheEngineOnNaNInfinityAndOutOfRange) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  // -NaN is what x86 arithmetic makes; a NaN with low payload bits lands elsewhere in a table.
  const float payloadNaN = std::bit_cast<float>(0x7fc12345u);
  const float odd[] = {0.0f,  -0.0f,  0.5f,    1.0f, 1.0001f, 1.5f, 4.0f, -0.5f,     -1e-30f,
                       1e30f, -1e30f, 3.4e38f, inf,  -inf,    nan,  -nan, payloadNaN};
  const Profile camera = tabulatedProfile(1024, srgbToLinear, "camera table");
  const Profile gamma = tabulatedProfile(
      256, [](float v) { return std::pow(v, 2.2f); }, "gamma table");
  const auto proPhoto = ColorProfileType::proPhotoRGB(), srgb = ColorProfileType::sRGB();
  for (const auto& [from, to] :
       {std::pair(camera, proPhoto), std::pair(proPhoto, camera), std::pair(camera, gamma),
        std::pair(gamma, srgb), std::pair(srgb, gamma)}) {
    SCOPED_TRACE(from->name() + " -> " + to->name());
    ASSERT_TRUE(detail::findMatrixShaperTransform(from, to));
    const auto src = oddValueImage(from, odd);
    std::shared_ptr<ImageDataRGBf> dst;
    ASSERT_TRUE(src->colorTransform(dst, to) && dst);
    const std::vector<RGBf> reference = engineResult(*src, to);
    // The curves that are not tables are fitted, hence the tolerance of the other tests.
    EXPECT_LE(worstDifference(*dst, reference), 2e-5);
    for (std::uint64_t i = 0; i < src->area(); ++i) {
      const RGBf in = src->data[i], out = dst->data[i];
      if (std::isnan(in.r) || std::isnan(in.g) || std::isnan(in.b)) {
        ASSERT_EQ(0, std::memcmp(&out, &reference[i], sizeof(RGBf))) << "pixel " << i;
      }
      if (from != srgb && from != proPhoto) {
        ASSERT_TRUE(std::isfinite(out.r) && std::isfinite(out.g) && std::isfinite(out.b))
            << "pixel " << i;
      }
    }
    if (to == gamma && from == camera) {
      // Between two tables nothing is fitted: the bits are the engine's.
      EXPECT_EQ(0, std::memcmp(dst->data, reference.data(), dst->sizeInBytes()));
    }
  }
}

TEST(ColorTransformMatrixShaper, LutProfilesKeepTheEnginePath) {
  // sRGB plus a perceptual LUT that lcms prefers to the matrix and curves.
  const auto srgbProfile = ColorProfileType::sRGB();
  ASSERT_TRUE(srgbProfile);
  const Blob& srgb = srgbProfile->iccProfile();
  cmsHPROFILE h = cmsOpenProfileFromMem(srgb.data(), static_cast<cmsUInt32Number>(srgb.size()));
  ASSERT_TRUE(h);
  cmsPipeline* lut = cmsPipelineAlloc(nullptr, 3, 3);
  cmsPipelineInsertStage(lut, cmsAT_END, cmsStageAllocToneCurves(nullptr, 3, nullptr));
  cmsWriteTag(h, cmsSigAToB0Tag, lut);
  cmsPipelineFree(lut);
  cmsUInt32Number bytes = 0;
  cmsSaveProfileToMem(h, nullptr, &bytes);
  std::vector<std::uint8_t> icc(bytes);
  cmsSaveProfileToMem(h, icc.data(), &bytes);
  cmsCloseProfile(h);
  const auto withLut = std::make_shared<ColorProfile>(Blob(icc.data(), icc.size()));
  EXPECT_FALSE(detail::findMatrixShaperTransform(withLut, ColorProfileType::proPhotoRGB()));

  auto src = uniformImage(withLut, 0.0f, 1.0f, 30);
  std::shared_ptr<ImageDataRGBf> dst;
  ASSERT_TRUE(src->colorTransform(dst, ColorProfileType::proPhotoRGB()) && dst);
  std::vector<RGBf> reference(src->area());
  engineTransform(withLut, ColorProfileType::proPhotoRGB(), TYPE_RGB_FLT, src->data,
                  reference.data(), src->area());
  EXPECT_EQ(0, std::memcmp(reference.data(), dst->data, dst->sizeInBytes()));
  // The matrix and curves alone would give something else.
  auto plain = std::make_shared<ImageDataRGBf>(*src);
  plain->setColorProfile(ColorProfileType::sRGB());
  std::shared_ptr<ImageDataRGBf> viaCurves;
  ASSERT_TRUE(plain->colorTransform(viaCurves, ColorProfileType::proPhotoRGB()) && viaCurves);
  EXPECT_NE(0, std::memcmp(viaCurves->data, dst->data, dst->sizeInBytes()));
}

}  // namespace
}  // namespace vorn
