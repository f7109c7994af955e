#include <gtest/gtest.h>
#include <tiffio.h>
#include <exiv2/exiv2.hpp>

#include <cmath>
#include <filesystem>
#include <limits>

#include "raster_test_support.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn {
namespace {

using namespace test::raster;

std::shared_ptr<ImageFrame> gradient(int w, int h) {
  auto frame = std::make_shared<ImageFrame>(_Size<int>(w, h), ColorProfileType::sRGB());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      frame->at(x, y) = PixelRGB<float>(float(x) / float(w - 1), float(y) / float(h - 1), 0.3f);
  return frame;
}

ConstImageFrame reopen(const std::string& path,
                       std::shared_ptr<const ImageMetadata>* metadata = nullptr) {
  ImageMagickReader reader;
  EXPECT_EQ(reader.openImage(path, {-1, -1}), kImageReaderOk) << path;
  if (!reader.getOpenedImage()) return nullptr;
  if (metadata) *metadata = reader.getOpenedImage()->metadata();
  return reader.getOpenedImage()->workingImage();
}

std::size_t filesIn(const std::filesystem::path& folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder),
                                                std::filesystem::directory_iterator()));
}

TEST(Export, JpegAndTiffRoundTrips) {
  test::TempDir dir("raster");
  // 16-bit steps survive a 16-bit TIFF; an 8-bit TIFF rounds to 8-bit steps.
  auto frame = gradient(300, 7);
  frame->at(5, 5) = PixelRGB<float>(12345.0f / 65535.0f, 1.0f / 65535.0f, 0.0f);
  ExportParameters p;
  p.path = (dir.path() / "deep.tif").string();
  p.tiffBitDepth = 16;
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  auto back = reopen(p.path);
  ASSERT_TRUE(back);
  EXPECT_NEAR(back->at(5, 5).r, 12345.0f / 65535.0f, 1e-6f);
  EXPECT_NEAR(back->at(5, 5).g, 1.0f / 65535.0f, 1e-6f);
  EXPECT_NEAR(back->at(137, 2).r, frame->at(137, 2).r, 1.0f / 65535.0f);

  p.path = (dir.path() / "flat.tif").string();
  p.tiffBitDepth = 8;
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  back = reopen(p.path);
  ASSERT_TRUE(back);
  EXPECT_NEAR(back->at(137, 2).r, std::round(frame->at(137, 2).r * 255.0f) / 255.0f, 1e-6f);

  p.path = (dir.path() / "photo.jpg").string();
  p.jpegQuality = 95;
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  back = reopen(p.path);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->size(), frame->size());
  EXPECT_NEAR(back->at(150, 3).r, frame->at(150, 3).r, 0.03f);
  const auto highQuality = std::filesystem::file_size(p.path);
  p.jpegQuality = 400;  // clamped to 100, never rejected
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  EXPECT_GT(std::filesystem::file_size(p.path), highQuality);

  // Out-of-range and NaN values are limited before encoding.
  frame->at(0, 0) = PixelRGB<float>(std::numeric_limits<float>::quiet_NaN(), 7.0f, -3.0f);
  p.path = (dir.path() / "clamped.tif").string();
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  back = reopen(p.path);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->at(0, 0), PixelRGB<float>(0.0f, 1.0f, 0.0f));
}

TEST(Export, ProfileResizeOrientationAndPages) {
  test::TempDir dir("raster");
  const auto frame = gradient(400, 200);
  ExportParameters p;
  p.path = (dir.path() / "adobe.tif").string();
  p.tiffBitDepth = 16;
  p.colorProfile = ColorProfileType::adobeRGB();
  p.longestSide = 100;
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  const auto back = reopen(p.path);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->size(), _Size<int>(100, 50));
  ASSERT_TRUE(back->colorProfile);
  EXPECT_EQ(back->colorProfile->name(), ColorProfileType::adobeRGB()->name());
  // Converting the written pixels back to sRGB gives the source colours again.
  std::shared_ptr<ImageFrame> srgb;
  ASSERT_TRUE(back->colorTransform(srgb, ColorProfileType::sRGB()));
  ASSERT_TRUE(srgb);
  const auto expected = frame->resize({100, 50});
  ASSERT_TRUE(expected);
  EXPECT_NEAR(srgb->at(60, 20).r, expected->at(60, 20).r, 0.01f);
  EXPECT_NEAR(srgb->at(60, 20).b, expected->at(60, 20).b, 0.01f);

  p = ExportParameters{};
  p.path = (dir.path() / "turned.tif").string();
  p.size = {40, 20};
  p.orientation = 6;
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  const auto turned = reopen(p.path);
  ASSERT_TRUE(turned);
  ASSERT_EQ(turned->size(), _Size<int>(20, 40));
  // A quarter turn clockwise: the source's left edge (red 0) becomes the top.
  EXPECT_LT(turned->at(10, 0).r, 0.05f);
  EXPECT_GT(turned->at(10, 39).r, 0.95f);

  p = ExportParameters{};
  p.path = (dir.path() / "pages.tif").string();
  ASSERT_TRUE(ImageMagickReader::writeImagesToFile({frame, gradient(30, 30)}, p));
  std::vector<Magick::Image> pages;
  Magick::readImages(&pages, "TIFF:" + p.path);
  ASSERT_EQ(pages.size(), 2u);
  EXPECT_EQ(pages[1].columns(), 30u);
  test::LogCapture log;
  p.path = (dir.path() / "pages.jpg").string();
  EXPECT_FALSE(ImageMagickReader::writeImagesToFile({frame, frame}, p));
  EXPECT_FALSE(std::filesystem::exists(p.path));
}

TEST(Export, ExifIsCopiedWithOrientationReset) {
  test::TempDir dir("raster");
  const std::string source = (dir.path() / "source.jpg").string();
  writeWithMagick(magickImage(uniquePattern(64, 48), 8), "JPEG", source);
  {
    auto image = Exiv2::ImageFactory::open(source);
    image->readMetadata();
    Exiv2::ExifData& exif = image->exifData();
    exif["Exif.Image.Make"] = "Maker";
    exif["Exif.Image.Model"] = "Model 7";
    exif["Exif.Image.Orientation"] = std::uint16_t(6);
    exif["Exif.Photo.ExposureTime"] = Exiv2::Rational(1, 250);
    exif["Exif.Image.StripOffsets"] = std::uint32_t(12345);  // describes the source's pixels
    image->writeMetadata();
  }
  const std::vector<std::uint8_t> before = readBytes(source);
  const auto upright = reopen(source);
  ASSERT_TRUE(upright);
  for (const char* name : {"copy.jpg", "copy.tif"}) {
    SCOPED_TRACE(name);
    ExportParameters p;
    p.path = (dir.path() / name).string();
    p.exifSourcePath = source;
    ASSERT_TRUE(ImageMagickReader::writeImageToFile(*upright, p));
    std::shared_ptr<const ImageMetadata> metadata;
    const auto back = reopen(p.path, &metadata);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->size(), _Size<int>(48, 64));  // written upright, not turned again
    ASSERT_TRUE(metadata);
    EXPECT_EQ(metadata->cameraModel, "Model 7");
    EXPECT_EQ(metadata->mutableParameters.orientation, 1);
    EXPECT_FLOAT_EQ(metadata->shutterSpeed, 1.0f / 250.0f);
    auto written = Exiv2::ImageFactory::open(p.path);
    written->readMetadata();
    EXPECT_EQ(written->exifData()["Exif.Photo.PixelXDimension"].toLong(), 48);
  }
  EXPECT_EQ(readBytes(source), before);

  // The export never replaces its own EXIF source.
  test::LogCapture log;
  ExportParameters self;
  self.path = source;
  self.exifSourcePath = source;
  EXPECT_FALSE(ImageMagickReader::writeImageToFile(*upright, self));
  EXPECT_EQ(readBytes(source), before);
}

TEST(Export, FailuresLeaveNoPartialFile) {
  test::TempDir dir("raster");
  const auto frame = gradient(50, 50);
  const std::string existing = (dir.path() / "keep.jpg").string();
  writeBytes(existing, {'o', 'l', 'd'});
  test::LogCapture log;
  ExportParameters p;
  p.path = existing;
  p.exifSourcePath = (dir.path() / "no_such_source.jpg").string();
  EXPECT_FALSE(ImageMagickReader::writeImageToFile(*frame, p));
  EXPECT_EQ(readBytes(existing), (std::vector<std::uint8_t>{'o', 'l', 'd'}));
  EXPECT_EQ(filesIn(dir.path()), 1u);  // no temporary file left behind
  EXPECT_EQ(log.countContaining(existing + ": exif:"), 1u);

  p = ExportParameters{};
  p.path = (dir.path() / "missing_folder" / "out.tif").string();
  EXPECT_FALSE(ImageMagickReader::writeImageToFile(*frame, p));
  p.path = (dir.path() / "out.png").string();
  EXPECT_FALSE(ImageMagickReader::writeImageToFile(*frame, p));
  p.path = (dir.path() / "out.tif").string();
  p.tiffBitDepth = 12;
  EXPECT_FALSE(ImageMagickReader::writeImageToFile(*frame, p));
  p = ExportParameters{};
  p.path = existing;
  EXPECT_FALSE(ImageMagickReader::writeImageToFile(ImageFrame(_Size<int>(0, 0)), p));
  EXPECT_EQ(filesIn(dir.path()), 1u);
}

TEST(Export, HdrTiffKeepsValuesAboveOne) {
  test::TempDir dir("raster");
  auto frame = gradient(33, 9);
  frame->at(3, 4) = PixelRGB<float>(4.5f, -0.25f, 1000.0f);
  frame->at(4, 4) = PixelRGB<float>(std::numeric_limits<float>::infinity(),
                                    std::numeric_limits<float>::quiet_NaN(), 1.0f);
  const std::string path = (dir.path() / "hdr.tif").string();
  ASSERT_TRUE(ImageMagickReader::writeHDRImageToFile(*frame, path));

  TIFF* tiff = TIFFOpen(path.c_str(), "r");
  ASSERT_TRUE(tiff);
  std::uint32_t width = 0, height = 0;
  std::uint16_t bits = 0, format = 0;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
  TIFFGetField(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetField(tiff, TIFFTAG_SAMPLEFORMAT, &format);
  EXPECT_EQ(width, 33u);
  EXPECT_EQ(height, 9u);
  EXPECT_EQ(bits, 32);
  EXPECT_EQ(format, SAMPLEFORMAT_IEEEFP);
  std::vector<float> row(33 * 3);
  for (std::uint32_t y = 0; y <= 4; ++y) ASSERT_EQ(TIFFReadScanline(tiff, row.data(), y, 0), 1);
  TIFFClose(tiff);
  EXPECT_EQ(row[9], 4.5f);
  EXPECT_EQ(row[10], -0.25f);
  EXPECT_EQ(row[11], 1000.0f);
  EXPECT_EQ(row[12], 0.0f);
  EXPECT_EQ(row[13], 0.0f);
  EXPECT_EQ(row[6 * 3 + 1], frame->at(6, 4).g);
}

}  // namespace
}  // namespace vorn
