#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "io/memory_limit.h"
#include "io/raster/orientation.h"
#include "io/raster_test_support.h"
#include "io/raw_test_support.h"
#include "support/log_capture.h"
#include "support/scoped_setting.h"
#include "vorn/io/image_reader.h"

namespace vorn {
namespace {

OwnedFrame decodeCovering(const std::string& path, _Size<int> cover) {
  FrameRequest request;
  request.cover = cover;
  return ImageReader::decodeFrame(classifyImageFile(path), request);
}

// A JPEG stops at the coarsest DCT scale that still covers the upright size asked for; the
// frame is the caller's alone.
TEST(FrameDecode, JpegDecodesAtTheScaleTheCoverNeeds) {
  const std::string photo = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  struct Case {
    _Size<int> cover;
    _Size<int> size;
  };
  for (const Case& c : {Case{{0, 0}, {2560, 1600}},
                        {{400, 0}, {640, 400}},
                        {{0, 700}, {1280, 800}},
                        {{321, 201}, {640, 400}},
                        {{5000, 0}, {2560, 1600}}}) {
    const OwnedFrame decoded = decodeCovering(photo, c.cover);
    ASSERT_EQ(decoded.errorCode, kImageReaderOk);
    ASSERT_TRUE(decoded.frame);
    EXPECT_EQ(decoded.frame->size(), c.size) << c.cover.width << "x" << c.cover.height;
    EXPECT_EQ(decoded.frame.use_count(), 1);
    ASSERT_TRUE(decoded.metadata);
    EXPECT_EQ(decoded.metadata->cameraModel, "Canon EOS 70D");
  }
  // The cover is upright: orientation 6 stores the sides the other way round.
  VORN_REQUIRE_PHOTO(turned, "iphone4s_orient6.jpg");
  const OwnedFrame upright = decodeCovering(turned, {0, 800});
  ASSERT_TRUE(upright.frame);
  EXPECT_EQ(upright.frame->size(), _Size<int>(612, 816));
}

// Half size serves a mosaic raw whose half still covers the need; a file without a mosaic has
// no half-size decode and comes whole.
TEST(FrameDecode, RawDecodesAtHalfSizeWhenThatCovers) {
  VORN_REQUIRE_SAMPLE(scanner, "nikon_coolscan4_imageio.nef");
  const OwnedFrame whole = decodeCovering(scanner, {100, 0});
  ASSERT_TRUE(whole.frame);
  EXPECT_EQ(whole.frame->size(), _Size<int>(869, 593));
  VORN_REQUIRE_SAMPLE(mosaic, "bmpcc4k_imageio.dng");
  const OwnedFrame half = decodeCovering(mosaic, {2000, 0});
  ASSERT_TRUE(half.frame);
  EXPECT_EQ(half.frame->size(), _Size<int>(2064, 1088));
  EXPECT_EQ(half.frame.use_count(), 1);
}

// A frame beyond the memory bound is refused before it is made; the DCT-scaled decode of the
// same file fits.
TEST(FrameDecode, LimitsAreCheckedBeforeTheFrameIsMade) {
  const std::string photo = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  {
    const test::ScopedSetting bound(detail::kMaxMemorySetting, "16");
    test::LogCapture log;
    EXPECT_EQ(decodeCovering(photo, {}).errorCode, kImageReaderTooLarge);
    EXPECT_EQ(log.countContaining("more than the memory bound of 16 MiB"), 1u);
    EXPECT_EQ(decodeCovering(photo, {400, 0}).errorCode, kImageReaderOk);
  }
  const ImageResult opened = ImageReader::instance().open_sync(photo, ImageReader::kNoResizeSize,
                                                               kOpenDefault, nullptr, {});
  ASSERT_TRUE(opened.image);
  const test::ScopedSetting cap("ImageReader.MaxPixels", "4000000");
  test::LogCapture log;
  EXPECT_EQ(opened.image->resize({2560, 1600}, {}, true), nullptr);
  EXPECT_EQ(log.countContaining("exceeds the pixel cap of 4000000"), 1u);
  EXPECT_NE(opened.image->resize({1280, 800}, {}, true), nullptr);
}

// Band by band, in bands of any height, the rows land where the whole-frame turn puts them.
TEST(FrameDecode, BandsLandUprightForEveryOrientation) {
  const _Size<int> stored(150, 37);  // wider than a tile of columns
  std::vector<std::uint8_t> rgb(static_cast<std::size_t>(stored.width) * stored.height * 3);
  for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<std::uint8_t>(i * 7 % 251);
  const std::size_t rowBytes = static_cast<std::size_t>(stored.width) * 3;
  ImageFrame plain(stored);
  detail::convertRgb8Rows(rgb.data(), rowBytes, 0, stored.height, stored, 1, plain);
  for (int orientation = 1; orientation <= 8; ++orientation) {
    SCOPED_TRACE(orientation);
    const auto expected = detail::orientFrame(plain, orientation);
    ImageFrame banded(detail::orientedSize(stored, orientation));
    for (int first = 0; first < stored.height; first += 5) {
      const int rows = std::min(5, stored.height - first);
      detail::convertRgb8Rows(rgb.data() + first * rowBytes, rowBytes, first, rows, stored,
                              orientation, banded);
    }
    ASSERT_EQ(banded.size(), expected->size());
    int mismatches = 0;
    for (int y = 0; y < banded.height; ++y)
      for (int x = 0; x < banded.width; ++x) mismatches += !(banded.at(x, y) == expected->at(x, y));
    EXPECT_EQ(mismatches, 0);
  }
  EXPECT_FLOAT_EQ(plain.at(1, 0).g, static_cast<float>(4 * 7 % 251) / 255.0f);
}

}  // namespace
}  // namespace vorn
