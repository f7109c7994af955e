#include <gtest/gtest.h>
#include <lcms2.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <set>
#include <vector>

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
    image->data()[i] = RGBf(unit(rng), unit(rng), unit(rng));
  return image;
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
  const Blob& bytes = ColorProfileType::sRGB()->iccProfile();
  const ColorProfile copy(Blob(bytes.data(), bytes.size()));
  EXPECT_TRUE(copy == *ColorProfileType::sRGB());
  EXPECT_TRUE(copy != *ColorProfileType::sRGBLinear());

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
  ASSERT_TRUE(src->colorTransform(dst, linear));
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
    ASSERT_TRUE(src->colorTransform(there, wide));
    ASSERT_TRUE(there->colorTransform(back, ColorProfileType::sRGB()));
    float worst = 0.0f;
    for (std::uint64_t i = 0; i < src->area(); ++i) {
      const RGBf a = src->data()[i], b = back->data()[i];
      worst = std::max({worst, std::fabs(a.r - b.r), std::fabs(a.g - b.g), std::fabs(a.b - b.b)});
    }
    EXPECT_LT(worst, 1e-4f) << wide->name();
  }
}

TEST(ColorTransform, ParallelChunksMatchOneTransformCall) {
  // 101 x 37 pixels leave a remainder for every thread count up to 36 except 1 and 37.
  auto src = randomImage(101, 37, ColorProfileType::sRGB());
  std::shared_ptr<ImageDataRGBf> dst;
  ASSERT_TRUE(src->colorTransform(dst, ColorProfileType::proPhotoRGB()));

  const Blob& a = ColorProfileType::sRGB()->iccProfile();
  const Blob& b = ColorProfileType::proPhotoRGB()->iccProfile();
  cmsHPROFILE in = cmsOpenProfileFromMem(a.data(), static_cast<cmsUInt32Number>(a.size()));
  cmsHPROFILE out = cmsOpenProfileFromMem(b.data(), static_cast<cmsUInt32Number>(b.size()));
  cmsHTRANSFORM xf = cmsCreateTransform(in, TYPE_RGB_FLT, out, TYPE_RGB_FLT, INTENT_PERCEPTUAL, 0);
  ASSERT_NE(xf, nullptr);
  std::vector<RGBf> reference(src->area());
  cmsDoTransform(xf, src->data(), reference.data(), static_cast<cmsUInt32Number>(src->area()));
  cmsDeleteTransform(xf);
  cmsCloseProfile(in);
  cmsCloseProfile(out);
  EXPECT_EQ(0, std::memcmp(reference.data(), dst->data(), dst->sizeInBytes()));
}

TEST(ColorTransform, DestinationIsReusedReplacedOrConvertedInPlace) {
  auto p3 = ColorProfileType::DCI_P3();
  auto src = randomImage(33, 17, ColorProfileType::sRGB());
  std::shared_ptr<ImageDataRGBf> out;
  ASSERT_TRUE(src->colorTransform(out, p3));
  EXPECT_EQ(out->colorProfile().get(), p3.get());  // the caller's object, not a copy
  auto self = std::make_shared<ImageDataRGBf>(*src), alias = self;
  ASSERT_TRUE(self->colorTransform(alias, p3));
  EXPECT_EQ(alias.get(), self.get());
  EXPECT_EQ(0, std::memcmp(out->data(), self->data(), out->sizeInBytes()));

  // Without a profile argument the destination's own profile is the target.
  auto same = std::make_shared<ImageDataRGBf>(src->size(), ColorProfileType::sRGBLinear());
  const ImageDataRGBf* kept = same.get();
  ASSERT_TRUE(src->colorTransform(same));
  EXPECT_EQ(same.get(), kept);
  EXPECT_NEAR(same->at(3, 4).g, srgbToLinear(src->at(3, 4).g), 1e-4f);

  auto other = std::make_shared<ImageDataRGBf>(_Size<int>(3, 3), ColorProfileType::sRGB());
  const ImageDataRGBf* old = other.get();
  const Blob& icc = ColorProfileType::sRGBLinear()->iccProfile();
  ASSERT_TRUE(src->colorTransform(other, icc.data(), icc.size()));
  EXPECT_NE(other.get(), old);
  EXPECT_EQ(other->size(), src->size());
  EXPECT_TRUE(*other->colorProfile() == *ColorProfileType::sRGBLinear());
  EXPECT_NEAR(other->at(32, 16).r, srgbToLinear(src->at(32, 16).r), 1e-4f);

  // Converting a buffer into its own profile object is a no-op, even for odd values.
  self->at(0, 0) = RGBf(std::numeric_limits<float>::quiet_NaN(), 2.5f, -0.3f);
  const ImageDataRGBf before(*self);
  ASSERT_TRUE(self->colorTransform(alias, p3));
  EXPECT_EQ(0, std::memcmp(before.data(), self->data(), self->sizeInBytes()));
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
  cmsUInt32Number labBytes = 0;
  cmsSaveProfileToMem(lab, nullptr, &labBytes);
  std::vector<std::uint8_t> labIcc(labBytes);
  cmsSaveProfileToMem(lab, labIcc.data(), &labBytes);
  cmsCloseProfile(lab);
  EXPECT_FALSE(src->colorTransform(dst, labIcc.data(), labIcc.size()));
  EXPECT_EQ(dst.get(), kept);
  EXPECT_EQ(dst->colorProfile(), ColorProfileType::adobeRGB());
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
  ASSERT_TRUE(bytes->colorTransform(linear8, ColorProfileType::sRGBLinear()));
  EXPECT_NEAR(linear8->at(0, 0).g, 55, 1);  // srgbToLinear(128 / 255) * 255 = 55.0
  EXPECT_EQ(linear8->at(1, 0), RGB8(255));
  EXPECT_EQ(linear8->at(2, 0), RGB8(0));

  using RGBAf = PixelRGBA<float>;
  auto rgba = std::make_shared<_ImageData<RGBAf>>(_Size<int>(2, 1), RGBAf(0.5f, 0.2f, 0.9f, 0.25f),
                                                  ColorProfileType::sRGB());
  std::shared_ptr<_ImageData<RGBAf>> linearA;
  ASSERT_TRUE(rgba->colorTransform(linearA, ColorProfileType::sRGBLinear()));
  EXPECT_NEAR(linearA->at(1, 0).r, 0.2140f, 1e-4f);
  EXPECT_NEAR(linearA->at(1, 0).b, srgbToLinear(0.9f), 1e-4f);
  EXPECT_EQ(linearA->at(1, 0).a, 0.25f);

  // Grey planes have no colour: the values stay, the profile is attached.
  auto plane = std::make_shared<_ImageData<float>>(_Size<int>(4, 4), 0.5f);
  std::shared_ptr<_ImageData<float>> planeOut;
  ASSERT_TRUE(plane->colorTransform(planeOut, ColorProfileType::proPhotoRGB()));
  EXPECT_EQ(planeOut->at(3, 3), 0.5f);
  EXPECT_EQ(planeOut->colorProfile(), ColorProfileType::proPhotoRGB());
}

}  // namespace
}  // namespace vorn
