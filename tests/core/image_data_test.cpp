#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

#include <tbb/task_arena.h>

#include "support/log_capture.h"
#include "vorn/core/image_data.h"
#include "vorn/core/mask_image.h"

namespace vorn {
namespace {

using RGBf = _ImageData<PixelRGB<float>>;

// A buffer whose every pixel encodes its own position, so misplaced rows or columns show.
std::shared_ptr<RGBf> gradient(int w, int h) {
  auto img = std::make_shared<RGBf>(_Size<int>(w, h));
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      img->at(x, y) = PixelRGB<float>(static_cast<float>(x), static_cast<float>(y), 0.5f);
  return img;
}

TEST(ImageData, SizesAndEmptyBuffers) {
  RGBf empty(_Size<int>(0, 0));
  EXPECT_EQ(empty.area(), 0u);
  EXPECT_EQ(empty.sizeInBytes(), 0u);
  EXPECT_EQ(empty.data, nullptr);
  empty.clamp();
  empty.fillRect(PixelRGB<float>(1.0f));

  EXPECT_EQ(RGBf(_Size<int>(1000, 1000)).sizeInMBytes(), 11u);
  EXPECT_EQ(RGBf(_Size<int>(3, 2)).getLoadState(), FULL_LOADED);

  test::LogCapture log;
  RGBf negative(_Size<int>(-5, 10));
  EXPECT_EQ(negative.area(), 0u);
  EXPECT_EQ(log.countContaining("Invalid size -5 x 10"), 1u);
}

TEST(ImageData, CopiesShareTheProfileAndKeepTheLoadState) {
  auto profile = std::make_shared<ColorProfile>(Blob("x", 1));
  auto src = gradient(8, 6);
  src->setColorProfile(profile);
  src->setLoadState(QUARTER_LOADED);
  RGBf copy(*src);
  EXPECT_EQ(copy.colorProfile.get(), profile.get());
  EXPECT_EQ(copy.getLoadState(), QUARTER_LOADED);
  EXPECT_NE(copy.data, src->data);
  EXPECT_EQ(copy.at(7, 5), src->at(7, 5));

  RGBf assigned(_Size<int>(2, 2));
  assigned = *src;
  EXPECT_EQ(assigned.size(), src->size());
  EXPECT_EQ(assigned.at(3, 4), src->at(3, 4));
  EXPECT_NE(assigned.data, src->data);
}

TEST(ImageData, CopyOfRegions) {
  test::LogCapture log;
  auto src = gradient(100, 100);
  for (const _Rect<int> whole : {_Rect<int>(), _Rect<int>(0, 0, 100, 100)}) {
    const auto full = src->copy(whole);
    ASSERT_TRUE(full);
    EXPECT_EQ(full->size(), src->size());
  }

  auto corner = src->copy(_Rect<int>(-10, -10, 20, 20));
  ASSERT_TRUE(corner);
  EXPECT_EQ(corner->size(), _Size<int>(10, 10));
  EXPECT_EQ(corner->at(9, 9), src->at(9, 9));

  auto inner = src->copy(_Rect<int>(30, 40, 5, 7));
  ASSERT_TRUE(inner);
  EXPECT_EQ(inner->at(0, 0), src->at(30, 40));
  EXPECT_EQ(inner->at(4, 6), src->at(34, 46));

  EXPECT_FALSE(src->copy(_Rect<int>(200, 0, 10, 10)));
  EXPECT_FALSE(src->copy(_Rect<int>(0, 0, -4, 10)));
  EXPECT_EQ(log.countEndingWith(" Roi rect is outside the ImageData"), 2u);
}

TEST(ImageData, CopyToAndCopyPartTo) {
  test::LogCapture log;
  auto src = gradient(20, 10);
  std::shared_ptr<RGBf> dst;
  src->copyTo(dst, _Rect<int>(2, 2, 4, 4));
  ASSERT_TRUE(dst);
  EXPECT_EQ(dst->size(), _Size<int>(4, 4));  // empty dst: copy of the region

  auto same = std::make_shared<RGBf>(_Size<int>(20, 10), PixelRGB<float>(9.0f));
  const PixelRGB<float>* kept = same->data;
  src->copyTo(same, _Rect<int>(0, 0, 3, 3));
  ASSERT_TRUE(same);
  EXPECT_EQ(same->data, kept);                 // array reused
  EXPECT_EQ(same->at(19, 9), src->at(19, 9));  // and the whole image copied despite the roi

  auto part = std::make_shared<RGBf>(_Size<int>(20, 10), PixelRGB<float>(-1.0f));
  part->setLoadState(THUMBNAIL);
  src->copyPartTo(part, _Rect<int>(5, 2, 3, 4));
  ASSERT_TRUE(part);
  EXPECT_EQ(part->at(5, 2), src->at(5, 2));
  EXPECT_EQ(part->at(7, 5), src->at(7, 5));
  EXPECT_EQ(part->at(8, 5), PixelRGB<float>(-1.0f));
  EXPECT_EQ(part->at(4, 2), PixelRGB<float>(-1.0f));
  EXPECT_EQ(part->getLoadState(), FULL_LOADED);

  src->copyPartTo(part, _Rect<int>(15, 0, 10, 2));
  ASSERT_TRUE(part);
  EXPECT_EQ(log.countEndingWith(" Invalid roi"), 1u);
  EXPECT_EQ(part->at(16, 0), PixelRGB<float>(-1.0f));

  std::shared_ptr<RGBf> none;
  src->copyPartTo(none, _Rect<int>(1, 1, 2, 2));
  ASSERT_TRUE(none);
  EXPECT_EQ(none->size(), src->size());
}

TEST(ImageData, FillClampAndSaturatedCopy) {
  test::LogCapture log;
  RGBf img(_Size<int>(7, 5), PixelRGB<float>(0.25f));
  img.fillRect(PixelRGB<float>(2.0f), _Rect<int>(1, 1, 2, 2));
  EXPECT_EQ(img.at(2, 2), PixelRGB<float>(2.0f));
  EXPECT_EQ(img.at(3, 2), PixelRGB<float>(0.25f));
  img.fillRect(PixelRGB<float>(5.0f), _Rect<int>(6, 0, 2, 1));
  EXPECT_EQ(log.countEndingWith(" Invalid roi"), 1u);
  EXPECT_EQ(img.at(6, 0), PixelRGB<float>(0.25f));

  const float nan = std::numeric_limits<float>::quiet_NaN();
  img.at(0, 0) = PixelRGB<float>(-0.5f, nan, 0.5f);
  img.at(6, 4) = PixelRGB<float>(7.0f, -0.0f, std::numeric_limits<float>::infinity());
  auto saturated = img.copy_saturated(_Rect<int>(), false);
  auto threaded = img.copy_saturated(_Rect<int>(), true);
  ASSERT_TRUE(saturated && threaded);
  img.clamp();
  EXPECT_EQ(img.at(0, 0), PixelRGB<float>(0.0f, 0.0f, 0.5f));
  EXPECT_EQ(img.at(6, 4), PixelRGB<float>(1.0f, 0.0f, 1.0f));
  EXPECT_EQ(img.at(2, 2), PixelRGB<float>(1.0f));
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 7; ++x) {
      EXPECT_EQ(saturated->at(x, y), img.at(x, y));
      EXPECT_EQ(threaded->at(x, y), img.at(x, y));
    }

  _ImageData<float> plane(_Size<int>(3, 1));
  EXPECT_THROW(plane.copy_saturated(), std::logic_error);
  try {
    plane.copy_saturated();
  } catch (const std::logic_error& e) {
    EXPECT_EQ(std::string(e.what()),
              "Not implemented \"std::shared_ptr<_ImageData<T>> _ImageData<T>::copy_saturated(Rect "
              "roi, bool b_threaded) const\"");
  }

  _ImageData<PixelRGBA<float>> rgba(_Size<int>(1, 1), PixelRGBA<float>(2, -1, 0.5f, 3));
  rgba.clamp();  // all four channels
  EXPECT_EQ(rgba.at(0, 0), PixelRGBA<float>(1, 0, 0.5f, 1));
}

TEST(ImageData, SelfCheckReportsEveryBadPixel) {
  test::LogCapture log;
  RGBf img(_Size<int>(4, 4), PixelRGB<float>(0.5f));
  EXPECT_EQ(img.selfCheck(), 0u);
  img.at(1, 1).g = 1.0f;  // 1 itself is out of [0, 1)
  img.at(3, 2).b = -0.01f;
  img.at(0, 3).r = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(img.selfCheck(), 3u);
  EXPECT_EQ(log.countContaining("Bad pixel value "), 3u);
  EXPECT_EQ(log.countContaining("at 3, 2"), 1u);
}

TEST(ImageData, IsSameTypeComparesSizeAndProfileName) {
  auto a = std::make_shared<ColorProfile>(Blob("a", 1));
  RGBf x(_Size<int>(2, 2), a), y(_Size<int>(2, 2), a), z(_Size<int>(2, 3), a),
      none(_Size<int>(2, 2));
  EXPECT_TRUE(x.isSameType(y));
  EXPECT_FALSE(x.isSameType(z));
  EXPECT_TRUE(none.isSameType(RGBf(_Size<int>(2, 2))));
  EXPECT_FALSE(none.isSameType(x));
}

TEST(ImageData, ResizeAndThumbnail) {
  auto big = std::make_shared<RGBf>(_Size<int>(4000, 3000), PixelRGB<float>(0.3f, 0.6f, 0.9f));
  auto thumb = big->thumbnail();
  ASSERT_TRUE(thumb);
  EXPECT_EQ(thumb->size(), _Size<int>(120, 90));
  EXPECT_NEAR(thumb->at(60, 45).g, 0.6f, 1e-5f);
  const RGBf small(_Size<int>(400, 300));
  const auto defaultThumb = small.thumbnail();
  ASSERT_TRUE(defaultThumb);
  EXPECT_EQ(defaultThumb->size(), _Size<int>(100, 75));

  test::LogCapture log;
  const auto badSizeThumb = small.thumbnail(_Size<int>(-1, 5));
  ASSERT_TRUE(badSizeThumb);
  EXPECT_EQ(badSizeThumb->size(), _Size<int>(100, 75));
  EXPECT_EQ(log.countEndingWith(" Incorrect size value"), 1u);

  auto ramp = gradient(640, 480);
  auto up = gradient(4, 4)->resize(_Size<int>(8, 8), _Rect<int>(), true);
  ASSERT_TRUE(up);
  EXPECT_EQ(up->size(), _Size<int>(8, 8));
  auto region = ramp->resize(_Size<int>(10, 10), _Rect<int>(100, 200, 10, 10));
  ASSERT_TRUE(region);
  EXPECT_EQ(region->at(3, 4), ramp->at(103, 204));  // same size: a plain crop

  EXPECT_FALSE(ramp->resize(_Size<int>(10, 10), _Rect<int>(630, 0, 20, 20)));
  std::shared_ptr<RGBf> dst;
  EXPECT_FALSE(ramp->resizeTo(dst, _Size<int>(10, 10), false, _Rect<int>(-5, 0, 20, 20)));
  EXPECT_EQ(log.countEndingWith(" Can't resize image"), 1u);
  ASSERT_TRUE(ramp->resizeTo(dst, _Size<int>(32, 24)));
  ASSERT_TRUE(dst);
  const auto* reused = dst->data;
  ASSERT_TRUE(ramp->resizeTo(dst, _Size<int>(32, 24)));
  EXPECT_EQ(dst->data, reused);

  // No size, or the buffer's own, copies the whole image whatever the region, as resize does.
  for (const _Size<int> whole : {_Size<int>(0, 0), ramp->size()}) {
    const auto copied = ramp->resize(whole, _Rect<int>(1, 2, 3, 4));
    ASSERT_TRUE(copied);
    std::shared_ptr<RGBf> into;
    ASSERT_TRUE(ramp->resizeTo(into, whole, false, _Rect<int>(1, 2, 3, 4)));
    ASSERT_TRUE(into);
    ASSERT_EQ(into->size(), ramp->size());
    EXPECT_EQ(std::memcmp(into->data, ramp->data, ramp->sizeInBytes()), 0);
    EXPECT_EQ(std::memcmp(copied->data, ramp->data, ramp->sizeInBytes()), 0);
    const auto* kept = into->data;
    ASSERT_TRUE(gradient(640, 480)->resizeTo(into, whole));
    EXPECT_EQ(into->data, kept);
  }
  EXPECT_EQ(log.countEndingWith(" Can't resize image"), 1u);
}

// Whatever derives a frame from another must not present a quarter-size preview as fully
// loaded, nor the reverse; destinations that are reused start from another state.
TEST(ImageData, EveryDerivedFrameKeepsTheLoadState) {
  for (const ImageLoadState state : {QUARTER_LOADED, THUMBNAIL, LOAD_ERROR}) {
    SCOPED_TRACE(imageLoadStateName(state));
    const auto src = gradient(64, 48);
    src->setColorProfile(ColorProfileType::sRGB());
    src->setLoadState(state);
    const auto reusable = [&] {
      auto dst = std::make_shared<RGBf>(src->size(), PixelRGB<float>(0.0f));
      dst->setLoadState(state == THUMBNAIL ? FULL_LOADED : THUMBNAIL);
      return dst;
    };
    const auto expectState = [&](const auto& frame, const char* path) {
      ASSERT_TRUE(frame) << path;
      EXPECT_EQ(frame->getLoadState(), state) << path;
    };

    expectState(std::make_shared<RGBf>(*src), "copy constructor");
    auto assigned = reusable();
    *assigned = *src;
    expectState(assigned, "assignment");
    auto moved = std::make_shared<RGBf>(RGBf(*src));
    expectState(moved, "move constructor");
    expectState(src->copy(), "copy");
    expectState(src->copy(_Rect<int>(3, 4, 10, 10)), "copy of a region");
    expectState(src->copy_saturated(_Rect<int>(3, 4, 10, 10)), "saturated copy");
    std::shared_ptr<RGBf> fresh;
    src->copyTo(fresh, _Rect<int>(3, 4, 10, 10));
    expectState(fresh, "copyTo, new destination");
    auto same = reusable();
    src->copyTo(same);
    expectState(same, "copyTo, reused destination");
    auto part = reusable();
    src->copyPartTo(part, _Rect<int>(3, 4, 10, 10));
    expectState(part, "copyPartTo");

    for (const _Size<int> size :
         {_Size<int>(), src->size(), _Size<int>(13, 9), _Size<int>(100, 70)})
      expectState(src->resize(size), "resize");
    expectState(src->resize(_Size<int>(7, 7), _Rect<int>(3, 4, 10, 10)), "resize of a region");
    for (const _Size<int> size : {_Size<int>(), _Size<int>(13, 9)}) {
      std::shared_ptr<RGBf> resized;
      ASSERT_TRUE(src->resizeTo(resized, size));
      expectState(resized, "resizeTo, new destination");
      resized->setLoadState(FULL_LOADED);
      ASSERT_TRUE(src->resizeTo(resized, size));
      expectState(resized, "resizeTo, reused destination");
    }
    expectState(src->thumbnail(), "thumbnail");
    MaskImage mask(_Size<int>(40, 40), 0.5f);
    mask.setLoadState(state);
    expectState(mask.thumbnail(), "mask thumbnail");

    auto turned = reusable();
    AffineTransform turn;
    turn.rotate(0.1f);
    src->copyAffineTransformedTo(turned, _Rect<float>(0, 0, 64, 48), turn);
    expectState(turned, "affine copy");

    auto converted = reusable();
    ASSERT_TRUE(src->colorTransform(converted, ColorProfileType::proPhotoRGB()));
    expectState(converted, "colour transform, own kernels");
    std::shared_ptr<RGBf> convertedNew;
    ASSERT_TRUE(src->colorTransform(convertedNew, ColorProfileType::adobeRGB()));
    expectState(convertedNew, "colour transform, new destination");
    auto bytes = std::make_shared<ImageDataRGB8>(_Size<int>(5, 5), PixelRGB<unsigned char>(9),
                                                 ColorProfileType::sRGB());
    bytes->setLoadState(state);
    std::shared_ptr<ImageDataRGB8> bytesOut;
    ASSERT_TRUE(bytes->colorTransform(bytesOut, ColorProfileType::proPhotoRGB()));
    expectState(bytesOut, "colour transform, engine");
    std::shared_ptr<_ImageData<float>> planeOut;
    ASSERT_TRUE(mask.colorTransform(planeOut, ColorProfileType::sRGB()));
    expectState(planeOut, "colour transform of a plane");
  }
}

TEST(ImageData, AffineIdentityReturnsTheSourceExactly) {
  auto src = gradient(33, 17);
  src->setLoadState(QUARTER_LOADED);
  auto dst = std::make_shared<RGBf>(src->size(), PixelRGB<float>(-1.0f));
  src->copyAffineTransformedTo(dst, _Rect<float>(0, 0, 33, 17), AffineTransform());
  for (int y = 0; y < 17; ++y)
    for (int x = 0; x < 33; ++x) ASSERT_EQ(dst->at(x, y), src->at(x, y)) << x << "," << y;
  EXPECT_EQ(dst->getLoadState(), QUARTER_LOADED);
  float lo = 0, hi = 0;
  RGBf::adaptAffineTransformForCoppying(AffineTransform(), _Rect<float>(0, 0, 33, 17), src->size(),
                                        lo, hi);
  EXPECT_FLOAT_EQ(hi, 1.0f);
}

TEST(ImageData, AffineMappingScalesAndBackground) {
  float lo = 0, hi = 0;
  AffineTransform rot;
  rot.rotate(0.3f);
  const auto m = RGBf::adaptAffineTransformForCoppying(rot, _Rect<float>(0, 0, 400, 100),
                                                       _Size<int>(100, 100), lo, hi);
  EXPECT_NEAR(hi, 4.0f, 1e-4f);  // singular values of diag(4, 1) under a turn
  EXPECT_NEAR(lo, 1.0f, 1e-4f);
  EXPECT_NE(m, AffineTransform());

  // A shift by half the image leaves background (0.2) where no sample lands.
  auto src = std::make_shared<RGBf>(_Size<int>(10, 10), PixelRGB<float>(0.7f));
  auto dst = std::make_shared<RGBf>(_Size<int>(10, 10));
  src->copyAffineTransformedTo(dst, _Rect<float>(0, 0, 10, 10), AffineTransform(1, 0, 0, 1, 5, 0));
  EXPECT_FLOAT_EQ(dst->at(2, 5).r, 0.2f);
  EXPECT_FLOAT_EQ(dst->at(7, 5).r, 0.7f);

  // Shrinking a checkerboard 4x: every corner sample lands on the same parity, so only the
  // supersampling pulls the pixel off 0 towards the mean.
  auto checks = std::make_shared<RGBf>(_Size<int>(400, 400));
  for (int y = 0; y < 400; ++y)
    for (int x = 0; x < 400; ++x) checks->at(x, y) = PixelRGB<float>(float((x + y) % 2));
  auto small = std::make_shared<RGBf>(_Size<int>(100, 100));
  checks->copyAffineTransformedTo(small, _Rect<float>(0, 0, 400, 400), AffineTransform());
  EXPECT_GT(small->at(50, 50).g, 0.15f);
  EXPECT_LT(small->at(50, 50).g, 0.85f);

  // Only the requested region is written; a singular transform writes nothing.
  auto part = std::make_shared<RGBf>(_Size<int>(10, 10), PixelRGB<float>(-1.0f));
  src->copyAffineTransformedTo(part, _Rect<float>(0, 0, 10, 10), AffineTransform(),
                               _Rect<int>(2, 2, 3, 3));
  EXPECT_FLOAT_EQ(part->at(3, 3).r, 0.7f);
  EXPECT_FLOAT_EQ(part->at(5, 5).r, -1.0f);
  testing::internal::CaptureStderr();
  src->copyAffineTransformedTo(part, _Rect<float>(0, 0, 10, 10), AffineTransform(0, 0, 0, 0, 0, 0));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not invert transform"),
            std::string::npos);
  EXPECT_FLOAT_EQ(part->at(9, 9).r, -1.0f);
}

// Every parallel operation must give the same bytes on one worker as on all of them.
TEST(ImageData, OneThreadEqualsMany) {
  auto src = gradient(517, 333);
  AffineTransform turn;
  turn.rotate(0.2f);
  const auto render = [&] {
    std::vector<std::shared_ptr<RGBf>> out;
    out.push_back(src->resize(_Size<int>(101, 67)));
    out.push_back(src->thumbnail());
    out.push_back(src->copy_saturated());
    auto affine = std::make_shared<RGBf>(_Size<int>(200, 150));
    src->copyAffineTransformedTo(affine, _Rect<float>(0, 0, 517, 333), turn);
    out.push_back(affine);
    return out;
  };
  const auto many = render();
  std::vector<std::shared_ptr<RGBf>> one;
  tbb::task_arena(1).execute([&] { one = render(); });
  ASSERT_EQ(one.size(), many.size());
  for (std::size_t i = 0; i < one.size(); ++i) {
    ASSERT_TRUE(one[i] && many[i]) << i;
    ASSERT_EQ(one[i]->size(), many[i]->size());
    EXPECT_EQ(std::memcmp(one[i]->data, many[i]->data, one[i]->sizeInBytes()), 0) << i;
  }
}

TEST(MaskImage, OperationsAndDiscretization) {
  test::LogCapture log;
  MaskImage mask(_Size<int>(5, 1), 0.25f);
  mask.invert();
  EXPECT_FLOAT_EQ(mask.at(2, 0), 0.75f);
  const float values[] = {1.0f, 0.999f, 0.5f, -1.0f, std::numeric_limits<float>::quiet_NaN()};
  MaskImage given(values, _Size<int>(5, 1));
  std::vector<std::uint8_t> bytes;
  discretizeMask(given, bytes);
  EXPECT_EQ(bytes, (std::vector<std::uint8_t>{255, 254, 127, 0, 0}));

  given.unionWithMask(mask);
  EXPECT_FLOAT_EQ(given.at(3, 0), 0.75f);
  EXPECT_FLOAT_EQ(given.at(0, 0), 1.0f);
  given.unionWithMask(MaskImage(_Size<int>(4, 1), 1.0f));
  EXPECT_EQ(log.countEndingWith(" Different sizes."), 1u);
  EXPECT_FLOAT_EQ(given.at(3, 0), 0.75f);

  const float zeros[] = {0.0f, -0.0f, 1e-30f, 0.0f};
  EXPECT_EQ(MaskImage(zeros, _Size<int>(2, 2)).zeroPixelsCount(), 3u);
  mask.setEmpty();
  EXPECT_EQ(mask.zeroPixelsCount(), 5u);
  mask.setFilled();
  EXPECT_EQ(mask.zeroPixelsCount(), 0u);

  MaskImage large(_Size<int>(800, 600), 0.5f);
  auto thumb = large.thumbnail();
  ASSERT_TRUE(thumb);
  EXPECT_EQ(thumb->size(), _Size<int>(120, 90));
  EXPECT_FLOAT_EQ(thumb->at(10, 10), 0.5f);
}

}  // namespace
}  // namespace vorn
