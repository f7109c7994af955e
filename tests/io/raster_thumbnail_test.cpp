#include <gtest/gtest.h>
#include <exiv2/exiv2.hpp>

#include "raster_test_support.h"
#include "raw_test_support.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "vorn/io/thumbnails.h"

namespace vorn {
namespace {

using namespace test::raster;

// A missing thumbnail reads as size (-1, -1), so comparing it fails the check, not the run.
_Size<int> sizeOf(const std::shared_ptr<ImageFrame>& frame) {
  return frame ? frame->size() : _Size<int>(-1, -1);
}

bool fitsInside(const _Size<int>& size, const _Size<int>& box) {
  return (box.width <= 0 || size.width <= box.width) &&
         (box.height <= 0 || size.height <= box.height);
}

TEST(Thumbnail, NeverLargerThanAskedAndUpright) {
  const std::string leaf = dataFile("fallenleaf_canon_eos70d.jpg");   // 256 x 160 preview
  const std::string ripple = dataFile("coldripple_olympus_em1.jpg");  // 196 x 122 preview
  const std::string tiff = dataFile("casio_qv4000_lzw.tif");
  for (const std::string& path : {leaf, ripple, tiff})
    for (const _Size<int> box : {_Size<int>(256, 256), _Size<int>(100, 300), _Size<int>(-1, 90),
                                 _Size<int>(700, 0), _Size<int>(5000, 5000)}) {
      SCOPED_TRACE(path + " " + std::to_string(box.width) + "x" + std::to_string(box.height));
      for (bool highQuality : {false, true}) {
        const auto thumb = getThumbnailBySize(path, box, highQuality);
        ASSERT_TRUE(thumb);
        EXPECT_TRUE(fitsInside(thumb->size(), box));
        EXPECT_EQ(thumb->getLoadState(), THUMBNAIL);
        // Aspect kept within a pixel of rounding.
        const _Size<int> full = path == tiff ? _Size<int>(2147, 1027) : _Size<int>(2560, 1600);
        EXPECT_NEAR(double(thumb->width) / thumb->height, double(full.width) / full.height,
                    2.0 / std::min(thumb->width, thumb->height));
      }
      const auto native = getThumbnailNative(path, box, true);
      ASSERT_TRUE(native);
      EXPECT_TRUE(fitsInside(native->size(), box));
    }
}

TEST(Thumbnail, SourcesPreviewsAndDctScales) {
  const std::string leaf = dataFile("fallenleaf_canon_eos70d.jpg");
  const std::string ripple = dataFile("coldripple_olympus_em1.jpg");
  // The 256 x 160 preview covers a 256 box exactly: used as it is.
  std::shared_ptr<const ImageMetadata> metadata;
  auto thumb = getThumbnailBySide(leaf, 256, true, &metadata);
  ASSERT_TRUE(thumb);
  EXPECT_EQ(thumb->size(), _Size<int>(256, 160));
  ASSERT_TRUE(metadata);
  EXPECT_EQ(metadata->cameraModel, "Canon EOS 70D");
  // A 196-wide preview is too small for 256 in high quality (the image is decoded), and is
  // taken as it is on the fast path.
  EXPECT_EQ(sizeOf(getThumbnailBySide(ripple, 256, true)), _Size<int>(256, 160));
  EXPECT_EQ(sizeOf(getThumbnailBySide(ripple, 256, false)), _Size<int>(196, 122));
  // Native: the largest source fitting 700 x 700 unresampled is the 1/4 DCT decode.
  EXPECT_EQ(sizeOf(getThumbnailNative(leaf, {700, 700}, true)), _Size<int>(640, 400));
  EXPECT_EQ(sizeOf(getThumbnailNative(leaf, {200, 200}, true)), _Size<int>(200, 125));

  // The DCT-scaled decode agrees with a full decode shrunk the same way.
  const auto scaled = getThumbnailBySide(ripple, 320, true);
  ASSERT_EQ(sizeOf(scaled), _Size<int>(320, 200));
  int w = 0, h = 0;
  const std::vector<float> full = magickReference("JPEG:" + ripple, w, h);
  double mean = 0.0, referenceMean = 0.0;
  for (int y = 0; y < scaled->height; ++y)
    for (int x = 0; x < scaled->width; ++x) mean += scaled->at(x, y).g;
  for (std::size_t i = 1; i < full.size(); i += 3) referenceMean += full[i];
  EXPECT_NEAR(mean / double(scaled->area()), referenceMean / double(full.size() / 3), 0.01);
}

TEST(Thumbnail, OrientationCancelAndFailures) {
  test::TempDir dir("raster");
  const std::string turned = (dir.path() / "turned.jpg").string();
  writeWithMagick(magickImage(uniquePattern(300, 200), 8), "JPEG", turned);
  {
    auto image = Exiv2::ImageFactory::open(turned);
    image->readMetadata();
    image->exifData()["Exif.Image.Orientation"] = std::uint16_t(8);
    image->writeMetadata();
  }
  EXPECT_EQ(sizeOf(getThumbnailBySide(turned, 150, true)), _Size<int>(100, 150));

  const ImageResult wrapped =
      openThumbnailAsImage(turned, {60, 60}, kOpenDefault, nullptr, QUARTER_LOADED);
  ASSERT_EQ(wrapped.errorCode, kImageReaderOk);
  ASSERT_TRUE(wrapped.image);
  EXPECT_EQ(wrapped.image->status(), QUARTER_LOADED);
  EXPECT_EQ(wrapped.image->size(), _Size<int>(40, 60));
  ASSERT_TRUE(wrapped.image->metadata());
  EXPECT_EQ(wrapped.image->metadata()->mutableParameters.orientation, 8);

  auto cancel = std::make_shared<bool>(true);
  test::LogCapture log;
  EXPECT_FALSE(getThumbnailBySide(turned, 64, true, nullptr, cancel));
  EXPECT_EQ(openThumbnailAsImage(turned, {64, 64}, kOpenDefault, cancel, THUMBNAIL).errorCode,
            kImageReaderCancelled);
  EXPECT_EQ(log.countContaining("Can't open image at path: "), 0u);

  const std::string missing = (dir.path() / "missing.jpg").string();
  EXPECT_FALSE(getThumbnailBySize(missing, {64, 64}, true));
  EXPECT_EQ(log.countContaining("Can't open image at path: " + missing), 1u);
  const std::string text = (dir.path() / "text.tif").string();
  writeBytes(text, {'n', 'o', 't', ' ', 'a', ' ', 't', 'i', 'f', 'f'});
  EXPECT_EQ(openThumbnailAsImage(text, {64, 64}, kOpenDefault, nullptr, THUMBNAIL).errorCode,
            kImageReaderFailed);
  EXPECT_EQ(log.countContaining("Can't open image at path: " + text), 1u);
}

TEST(Thumbnail, PortraitSample) {
  VORN_REQUIRE_PHOTO(iphone, "iphone4s_orient6.jpg");
  const auto fast = getThumbnailBySide(iphone, 256, false);  // from the 160 x 120 preview
  ASSERT_TRUE(fast);
  EXPECT_EQ(fast->size(), _Size<int>(120, 160));
  const auto fine = getThumbnailBySide(iphone, 256, true);
  ASSERT_TRUE(fine);
  EXPECT_EQ(fine->size(), _Size<int>(192, 256));
}

TEST(Thumbnail, RawFilesWithoutAFittingPreviewUseTheHalfSizeDecode) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  for (const _Size<int> box : {_Size<int>(256, 256), _Size<int>(40, 0), _Size<int>(0, 0)}) {
    SCOPED_TRACE(std::to_string(box.width) + "x" + std::to_string(box.height));
    for (bool highQuality : {false, true}) {
      const auto thumb = getThumbnailBySize(dng, box, highQuality);
      ASSERT_TRUE(thumb);
      EXPECT_TRUE(fitsInside(thumb->size(), box));
      EXPECT_GT(thumb->width, 0);
      EXPECT_EQ(thumb->getLoadState(), THUMBNAIL);
    }
    const auto native = getThumbnailNative(dng, box, true);
    ASSERT_TRUE(native);
    EXPECT_TRUE(fitsInside(native->size(), box));
  }
  // A raw file whose pixels are missing fails with the path and the stage, never a crash.
  test::LogCapture log;
  const std::string truncated = dataFile("truncated_iphone12promax_exiv2.dng");
  EXPECT_FALSE(getThumbnailBySize(truncated, {64, 64}, true));
  EXPECT_EQ(log.countContaining("Can't open image at path: " + truncated), 1u);
}

}  // namespace
}  // namespace vorn
