#include <gtest/gtest.h>
#include <exiv2/exiv2.hpp>

#include "raster_test_support.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "vorn/io/exif_reader.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn {
namespace {

using namespace test::raster;

TEST(ExifReader, CameraExposureLensAndWhiteBalance) {
  const std::string path = dataFile("fallenleaf_canon_eos70d.jpg");
  const auto m = readImageMetadata(path);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->cameraName, "Canon");
  EXPECT_EQ(m->cameraModel, "Canon EOS 70D");
  EXPECT_FLOAT_EQ(m->fNumber, 2.0f);
  EXPECT_FLOAT_EQ(m->aperture, 2.0f);
  EXPECT_FLOAT_EQ(m->shutterSpeed, 1.0f / 4000.0f);
  EXPECT_FLOAT_EQ(m->isoSpeed, 100.0f);
  EXPECT_FLOAT_EQ(m->focalLen, 50.0f);
  EXPECT_FLOAT_EQ(m->minFocalLen, 50.0f);
  EXPECT_FLOAT_EQ(m->maxFocalLen, 50.0f);
  EXPECT_EQ(m->lensModel, "EF50mm f/1.8 II");
  EXPECT_FLOAT_EQ(m->exposureBias, 0.0f);
  EXPECT_NEAR(m->focalPlaneXResolution, 80351024.0f / 32768.0f, 0.01f);
  // The as-shot white balance of this file is in its XMP camera settings.
  EXPECT_FLOAT_EQ(m->WBTemperature, 5300.0f);
  EXPECT_FLOAT_EQ(m->WBTint, 21.0f);
  EXPECT_FLOAT_EQ(m->mutableParameters.temperature, 5300.0f);
  float temperature = 0.0f, tint = 0.0f;
  EXPECT_TRUE(getTemperatureAndTint(temperature, tint, path));
  EXPECT_FLOAT_EQ(temperature, 5300.0f);
  EXPECT_FLOAT_EQ(tint, 21.0f);
  EXPECT_EQ(readExifCameraModel(path), "Canon EOS 70D");
  const auto exif = readExifData(path);
  ASSERT_TRUE(exif);
  EXPECT_GT(exif->count(), 20);
}

TEST(ExifReader, BrokenXmpKeepsExifAndAbsentDataGivesDefaults) {
  // The XMP packet of this file does not parse; its EXIF still does, with padded strings.
  test::LogCapture log;
  const std::string olympus = dataFile("coldripple_olympus_em1.jpg");
  const auto m = readImageMetadata(olympus);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->cameraName, "OLYMPUS IMAGING CORP.");
  EXPECT_EQ(m->cameraModel, "E-M1");
  EXPECT_FLOAT_EQ(m->focalLen, 7.0f);
  float temperature = 1.0f, tint = 1.0f;
  EXPECT_FALSE(getTemperatureAndTint(temperature, tint, olympus));
  // The broken XMP is reported as a warning that names the file, and reading goes on.
  EXPECT_GE(log.countContaining("coldripple_olympus_em1.jpg)"), 1u);
  EXPECT_EQ(log.countContaining("Exiv2: "), log.countContaining("coldripple_olympus_em1.jpg)"));

  test::TempDir dir("raster");
  const std::string bare = (dir.path() / "bare.tif").string();
  writeWithMagick(magickImage(uniquePattern(8, 8), 8), "TIFF", bare);
  const auto plain = readImageMetadata(bare);
  ASSERT_TRUE(plain);
  EXPECT_TRUE(plain->cameraModel.empty());
  EXPECT_EQ(plain->mutableParameters.orientation, 1);
  EXPECT_EQ(readExifCameraModel(bare), "");
  EXPECT_EQ(readExifOrientation(bare), 1);

  EXPECT_FALSE(readImageMetadata((dir.path() / "missing.jpg").string()));
  EXPECT_FALSE(readExifData((dir.path() / "missing.jpg").string()));
}

TEST(ExifReader, DamagedExifIsDroppedAndPixelsKept) {
  test::TempDir dir("raster");
  std::vector<std::uint8_t> bytes = readBytes(dataFile("fallenleaf_canon_eos70d.jpg"));
  // Spoil the TIFF header inside the APP1 "Exif" segment: its byte order mark and first IFD.
  const std::uint8_t mark[] = {'E', 'x', 'i', 'f', 0, 0};
  const auto at = std::search(bytes.begin(), bytes.end(), std::begin(mark), std::end(mark));
  ASSERT_NE(at, bytes.end());
  std::fill_n(at + 6, 8, std::uint8_t{0xEE});
  const std::string path = (dir.path() / "bad_exif.jpg").string();
  writeBytes(path, bytes);

  test::LogCapture log;
  ImageMagickReader reader;
  ASSERT_EQ(reader.openImage(path, {-1, -1}), kImageReaderOk);
  ASSERT_TRUE(reader.getOpenedImage());
  EXPECT_EQ(reader.getOpenedImage()->size(), _Size<int>(2560, 1600));
  ASSERT_TRUE(reader.getOpenedImage()->metadata());
  EXPECT_TRUE(reader.getOpenedImage()->metadata()->cameraModel.empty());
  EXPECT_GE(log.countContaining("bad_exif.jpg"), 1u);
}

TEST(ExifReader, MakerNoteTemperatureAndSamples) {
  VORN_REQUIRE_PHOTO(canon, "canon_5d3_22mp_issue266.jpg");
  const auto m = readImageMetadata(canon);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->cameraModel, "Canon EOS 5D Mark III");
  EXPECT_EQ(m->lensModel, "EF24-70mm f/2.8L USM");
  EXPECT_FLOAT_EQ(m->minFocalLen, 24.0f);
  EXPECT_FLOAT_EQ(m->maxFocalLen, 70.0f);
  EXPECT_FLOAT_EQ(m->WBTemperature, 3350.0f);
  EXPECT_FLOAT_EQ(m->WBTint, 11.0f);
  VORN_REQUIRE_PHOTO(iphone, "iphone4s_orient6.jpg");
  EXPECT_EQ(readExifOrientation(iphone), 6);
  const auto portrait = readImageMetadata(iphone);
  ASSERT_TRUE(portrait);
  EXPECT_FLOAT_EQ(portrait->focalLen35mm, 35.0f);
}

}  // namespace
}  // namespace vorn
