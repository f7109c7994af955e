#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>

#include "vorn/core/affine_transform.h"
#include "vorn/core/blob.h"
#include "vorn/core/crop_description.h"
#include "vorn/core/float_compare.h"
#include "vorn/core/geometry.h"
#include "vorn/core/pixel.h"

namespace vorn {
namespace {

void expectPoint(_Point<float> p, float x, float y) {
  EXPECT_NEAR(p.x, x, 1e-5f);
  EXPECT_NEAR(p.y, y, 1e-5f);
}

TEST(Geometry, RectAndSizeArithmetic) {
  EXPECT_EQ(_Rect<int>(0, 0, 10, 10).inset(6, 0), _Rect<int>(6, 0, -2, 10));
  EXPECT_EQ(_Rect<int>(5, 5, 10, 10).inset(-2, -3), _Rect<int>(3, 2, 14, 16));
  EXPECT_EQ(_Rect<int>(1, 2, 3, 4).size(), _Size<int>(3, 4));
  EXPECT_TRUE(_Size<int>(3, 4) != _Size<int>(3, 5));
  EXPECT_FALSE(_Size<int>(3, 4) != _Size<int>(3, 4));
  // 32-bit area wraps instead of widening.
  EXPECT_EQ(_Size<int>(65536, 65536).area(), 0);
  EXPECT_EQ(_Size<int>(70000, 70000).area(), static_cast<int>(70000u * 70000u));
}

TEST(Geometry, IsFloatEqualFollowsTheRelativeRule) {
  EXPECT_FALSE(isFloatEqual(0.0f, 1e-30f));
  EXPECT_TRUE(isFloatEqual(0.0f, -0.0f));
  EXPECT_FALSE(isFloatEqual(1.0f, std::nextafter(1.0f, 2.0f)));
  EXPECT_TRUE(isFloatEqual(std::numeric_limits<float>::quiet_NaN(), 1.0f));
  EXPECT_TRUE(isFloatEqual(2.0f, std::numeric_limits<float>::quiet_NaN()));
  EXPECT_FALSE(isFloatEqual(1e-39f, 2e-39f));  // denormal difference takes the absolute branch
  EXPECT_TRUE(isFloatEqual(3.5f, 3.5f));
  EXPECT_FALSE(isFloatEqual(-1.0f, 1.0f));
}

TEST(Geometry, ClampValue) {
  const auto rgba = clampValue(PixelRGBA<float>(2.0f, -1.0f, 0.5f, 0.3f));
  EXPECT_EQ(rgba, PixelRGBA<float>(1.0f, 0.0f, 0.5f, 1.0f));
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(clampValue(PixelRGB<float>(nan, 7.0f, -0.0f)), PixelRGB<float>(0.0f, 1.0f, 0.0f));
  EXPECT_EQ(clampValue(PixelRGB<unsigned char>(1, 2, 255)), PixelRGB<unsigned char>(1, 2, 255));
}

TEST(Geometry, BlobOwnsItsBytes) {
  const Blob empty(nullptr, 0);
  EXPECT_EQ(empty.size(), 0u);
  EXPECT_EQ(empty.data(), nullptr);

  const char text[] = "pixels";
  Blob a(text, sizeof text);
  Blob copy(a);
  EXPECT_NE(copy.data(), a.data());
  EXPECT_EQ(std::string(static_cast<const char*>(copy.data())), "pixels");
  const void* before = a.data();
  Blob moved(std::move(a));
  EXPECT_EQ(moved.data(), before);
  EXPECT_EQ(moved.length(), sizeof text);

  auto owned = std::make_unique<std::uint8_t[]>(4);
  std::uint8_t* raw = owned.get();
  Blob adopted(std::move(owned), 4);
  EXPECT_EQ(adopted.bytes(), raw);
}

TEST(AffineTransform, InvertAndSingular) {
  AffineTransform t(2, 0, 0, 2, 4, 6);
  ASSERT_TRUE(t.invert());
  EXPECT_EQ(t, AffineTransform(0.5f, 0, 0, 0.5f, -2, -3));

  AffineTransform singular(1, 2, 2, 4, 0, 0);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(singular.invert());
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("invert"), std::string::npos);
  EXPECT_NE(err.find(" Could not invert transform\n"), std::string::npos);
  EXPECT_EQ(singular, AffineTransform(1, 2, 2, 4, 0, 0));

  AffineTransform nan(std::nanf(""), 0, 0, 1, 0, 0);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(nan.invert());
  testing::internal::GetCapturedStderr();

  AffineTransform general(1.5f, -0.25f, 0.75f, 2.0f, 3.0f, -7.0f);
  AffineTransform inverse = general;
  ASSERT_TRUE(inverse.invert());
  inverse.append(general);
  expectPoint(inverse.transformPoint({3.0f, -4.0f}), 3.0f, -4.0f);
}

TEST(AffineTransform, CompositionOrder) {
  AffineTransform t;
  t.translate(10, 0);
  t.scale(2, 2);
  expectPoint(t.transformPoint({1, 0}), 12, 0);  // the last call acts first

  AffineTransform scaled;
  scaled.scale(2, 2);
  AffineTransform appended = scaled;
  appended.append(AffineTransform(1, 0, 0, 1, 10, 0));
  expectPoint(appended.transformPoint({1, 0}), 12, 0);
  AffineTransform prepended = scaled;
  prepended.prepend(AffineTransform(1, 0, 0, 1, 10, 0));
  expectPoint(prepended.transformPoint({1, 0}), 22, 0);

  AffineTransform r;
  r.rotate(std::numbers::pi_v<float> / 2);
  expectPoint(r.transformPoint({1, 0}), 0, -1);

  AffineTransform chain;
  chain.translate(5, 0);
  chain.rotate(std::numbers::pi_v<float>);
  chain.translate(0, 3);
  expectPoint(chain.transformPoint({1, 1}), 4, -4);  // q first, then the turn, then p
}

TEST(CropDescription, TransformAndRegions) {
  EXPECT_EQ(CropDescription().getAffineTransform(), AffineTransform());
  const CropDescription shifted(0.0f, _Rect<int>(10, 20, 100, 50));
  EXPECT_EQ(shifted.getAffineTransform(), AffineTransform(1, 0, 0, 1, -10, -20));

  const _Rect<float> whole = shifted.workRoiForRoi(_Rect<float>(0, 0, 100, 50), {1000, 1000});
  EXPECT_EQ(whole, _Rect<float>(10, 20, 100, 50));
  const _Rect<float> cut = shifted.workRoiForRoi(_Rect<float>(0, 0, 100, 50), {60, 40});
  EXPECT_EQ(cut, _Rect<float>(10, 20, 50, 20));
  const _Rect<float> gone = shifted.workRoiForRoi(_Rect<float>(0, 0, 100, 50), {5, 5});
  EXPECT_EQ(gone.width, 0.0f);
  EXPECT_EQ(gone.height, 0.0f);

  // A quarter turn of a square crop maps onto itself, and the two mappings are inverse.
  const CropDescription turned(std::numbers::pi_v<float> / 2, _Rect<int>(100, 100, 40, 40));
  const _Rect<float> work = turned.workRoiForRoi(_Rect<float>(0, 0, 20, 40), {1000, 1000});
  EXPECT_NEAR(work.x, 100, 1e-3);
  EXPECT_NEAR(work.y, 120, 1e-3);
  EXPECT_NEAR(work.width, 40, 1e-3);
  EXPECT_NEAR(work.height, 20, 1e-3);
  const _Rect<float> back = turned.roiForWorkingRoi(work);
  EXPECT_NEAR(back.x, 0, 1e-3);
  EXPECT_NEAR(back.width, 20, 1e-3);
  EXPECT_NEAR(back.height, 40, 1e-3);
  // The affine transform turns the same way as roiForWorkingRoi.
  const auto p = turned.getAffineTransform().transformPoint({100 + 30, 100 + 10});
  const _Rect<float> point = turned.roiForWorkingRoi(_Rect<float>(130, 110, 0, 0));
  EXPECT_NEAR(p.x, point.x, 1e-3);
  EXPECT_NEAR(p.y, point.y, 1e-3);

  EXPECT_EQ(turned, CropDescription(std::numbers::pi_v<float> / 2, _Rect<int>(100, 100, 40, 40)));
  EXPECT_NE(turned, CropDescription(0.0f, _Rect<int>(100, 100, 40, 40)));
}

}  // namespace
}  // namespace vorn
