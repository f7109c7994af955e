#include <gtest/gtest.h>
#include <tiffio.h>
#include <exiv2/exiv2.hpp>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>

#include "io/input_limits.h"
#include "io/memory_limit.h"
#include "raster_test_support.h"
#include "support/log_capture.h"
#include "support/scoped_setting.h"
#include "support/temp_dir.h"
#include "vorn/io/exif_reader.h"
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

// What a JPEG's frame header says about its coding: progressive, and the luma sampling
// factors (1 x 1 is 4:4:4, 2 x 1 is 4:2:2, 2 x 2 is 4:2:0).
struct JpegCoding {
  bool progressive = false;
  int lumaH = 0, lumaV = 0;
};

JpegCoding jpegCoding(const std::vector<std::uint8_t>& b) {
  JpegCoding coding;
  for (std::size_t i = 2; i + 4 < b.size() && b[i] == 0xFF;) {
    const std::uint8_t marker = b[i + 1];
    const std::size_t length = std::size_t(b[i + 2]) << 8 | b[i + 3];
    if ((marker == 0xC0 || marker == 0xC1 || marker == 0xC2) && i + 11 < b.size()) {
      coding.progressive = marker == 0xC2;
      coding.lumaH = b[i + 11] >> 4;
      coding.lumaV = b[i + 11] & 15;
      return coding;
    }
    i += 2 + length;
  }
  return coding;
}

// Noise that no encoder setting compresses away, so file sizes tell settings apart.
std::shared_ptr<ImageFrame> noise(int w, int h) {
  auto frame = std::make_shared<ImageFrame>(_Size<int>(w, h), ColorProfileType::sRGB());
  std::uint32_t state = 12345;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      float v[3];
      for (float& c : v) {
        state = state * 1664525u + 1013904223u;
        c = static_cast<float>(state >> 8) / 16777216.0f;
      }
      frame->at(x, y) = PixelRGB<float>(v[0], v[1], v[2]);
    }
  return frame;
}

// A 64 x 48 JPEG stored with orientation 6, with camera EXIF, GPS and XMP.
std::string writeCameraSource(const test::TempDir& dir) {
  const std::string source = (dir.path() / "source.jpg").string();
  writeWithMagick(magickImage(uniquePattern(64, 48), 8), "JPEG", source);
  auto image = Exiv2::ImageFactory::open(source);
  image->readMetadata();
  Exiv2::ExifData& exif = image->exifData();
  exif["Exif.Image.Make"] = "Maker";
  exif["Exif.Image.Model"] = "Model 7";
  exif["Exif.Image.Orientation"] = std::uint16_t(6);
  exif["Exif.Photo.ExposureTime"] = Exiv2::Rational(1, 250);
  exif["Exif.Image.StripOffsets"] = std::uint32_t(12345);  // describes the source's pixels
  exif["Exif.GPSInfo.GPSLatitudeRef"] = "N";
  exif["Exif.GPSInfo.GPSLatitude"] = "48/1 51/1 30/1";
  image->xmpData()["Xmp.xmp.Rating"] = "4";
  image->xmpData()["Xmp.tiff.Orientation"] = "6";
  image->writeMetadata();
  return source;
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
  const std::string source = writeCameraSource(dir);
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

TEST(Export, JpegSubsamplingProgressionAndHuffmanOptions) {
  test::TempDir dir("raster");
  const auto frame = noise(96, 64);
  ExportParameters p;
  p.path = (dir.path() / "coded.jpg").string();
  const auto coded = [&] {
    EXPECT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
    return jpegCoding(readBytes(p.path));
  };
  p.jpegQuality = 90;  // from 90 up colour keeps its full resolution
  JpegCoding c = coded();
  EXPECT_EQ(c.lumaH * 10 + c.lumaV, 11);
  EXPECT_FALSE(c.progressive);
  p.jpegQuality = 89;
  c = coded();
  EXPECT_EQ(c.lumaH * 10 + c.lumaV, 22);
  p.jpegSubsampling = JpegSubsampling::S422;
  c = coded();
  EXPECT_EQ(c.lumaH * 10 + c.lumaV, 21);
  p.jpegProgressive = true;
  EXPECT_TRUE(coded().progressive);

  p = ExportParameters{};
  p.path = (dir.path() / "huffman.jpg").string();
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  const auto standardTables = std::filesystem::file_size(p.path);
  p.jpegOptimizeHuffman = true;
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  EXPECT_LT(std::filesystem::file_size(p.path), standardTables);
}

// EXIF (orientation reset, dimensions updated), XMP and the profile reach JPEG and 8-, 16- and
// 32-bit TIFF alike, resized or not.
TEST(Export, MetadataTravelsIntoEveryOutputKind) {
  test::TempDir dir("raster");
  const std::string source = writeCameraSource(dir);
  struct Kind {
    const char* name;
    int depth;
  };
  for (const Kind kind :
       {Kind{"out.jpg", 8}, {"out8.tif", 8}, {"out16.tif", 16}, {"out32.tif", 32}}) {
    SCOPED_TRACE(kind.name);
    ExportParameters p;
    p.path = (dir.path() / kind.name).string();
    p.tiffBitDepth = kind.depth;
    p.longestSide = 32;
    p.exifSourcePath = source;
    ASSERT_TRUE(ImageMagickReader::writeImageToFile(*gradient(64, 48), p));
    auto written = Exiv2::ImageFactory::open(p.path);
    written->readMetadata();
    Exiv2::ExifData& exif = written->exifData();
    EXPECT_EQ(exif["Exif.Image.Model"].toString(), "Model 7");
    EXPECT_EQ(exif["Exif.Image.Orientation"].toLong(), 1);
    EXPECT_EQ(exif["Exif.Photo.ExposureTime"].toRational(), Exiv2::Rational(1, 250));
    EXPECT_EQ(exif["Exif.GPSInfo.GPSLatitude"].toString(), "48/1 51/1 30/1");
    EXPECT_EQ(exif["Exif.Photo.PixelXDimension"].toLong(), 32);
    EXPECT_EQ(exif["Exif.Photo.PixelYDimension"].toLong(), 24);
    Exiv2::XmpData& xmp = written->xmpData();
    EXPECT_EQ(xmp["Xmp.xmp.Rating"].toString(), "4");
    EXPECT_EQ(xmp["Xmp.tiff.Orientation"].toString(), "1");
    std::shared_ptr<const ImageMetadata> metadata;
    const auto back = reopen(p.path, &metadata);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->size(), _Size<int>(32, 24));
    EXPECT_EQ(metadata->cameraModel, "Model 7");
    EXPECT_FALSE(back->colorProfile->iccProfile().empty());
  }
  // A real camera file's XMP (its white balance lives there) survives too.
  ExportParameters p;
  p.path = (dir.path() / "camera.tif").string();
  p.exifSourcePath = dataFile("fallenleaf_canon_eos70d.jpg");
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*gradient(40, 25), p));
  float temperature = 0.0f, tint = 0.0f;
  EXPECT_TRUE(getTemperatureAndTint(temperature, tint, p.path));
  EXPECT_FLOAT_EQ(temperature, 5300.0f);
}

TEST(Export, EightBitIsConvertedIntoSrgbWhileDeeperOutputKeepsTheWorkingProfile) {
  test::TempDir dir("raster");
  // Inside the sRGB gamut, and far enough from grey that converting moves it visibly.
  auto wide = std::make_shared<ImageFrame>(_Size<int>(16, 8), PixelRGB<float>(0.5f, 0.45f, 0.3f),
                                           ColorProfileType::proPhotoRGB());
  std::shared_ptr<ImageFrame> expected;
  ASSERT_TRUE(wide->colorTransform(expected, ColorProfileType::sRGB()));
  ExportParameters p;
  p.path = (dir.path() / "srgb.tif").string();
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*wide, p));
  auto back = reopen(p.path);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->colorProfile->name(), ColorProfileType::sRGB()->name());
  ASSERT_GT(std::abs(expected->at(3, 3).r - 0.5f), 0.05f);
  EXPECT_NEAR(back->at(3, 3).r, expected->at(3, 3).r, 0.5f / 255.0f);
  EXPECT_NEAR(back->at(3, 3).b, expected->at(3, 3).b, 0.5f / 255.0f);

  p.path = (dir.path() / "wide.tif").string();
  p.tiffBitDepth = 16;
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*wide, p));
  back = reopen(p.path);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->colorProfile->name(), ColorProfileType::proPhotoRGB()->name());
  EXPECT_NEAR(back->at(3, 3).g, 0.45f, 0.5f / 65535.0f);

  p.path = (dir.path() / "adobe.jpg").string();
  p.colorProfile = ColorProfileType::adobeRGB();
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*wide, p));
  back = reopen(p.path);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->colorProfile->name(), ColorProfileType::adobeRGB()->name());
}

// Another vendor's sRGB matches the asked-for sRGB to within half an 8-bit step: the frame keeps
// its own profile and values instead of a pass that would change no code by one.
TEST(Export, AnEquivalentSrgbProfileIsKeptRatherThanConverted) {
  VORN_REQUIRE_PHOTO(photo, "canon_5d3_22mp_issue266.jpg");
  ImageMagickReader reader;
  ASSERT_EQ(reader.openImage(photo, {720, 480}), kImageReaderOk);
  const auto frame = reader.getOpenedImage()->workingImage();
  ASSERT_TRUE(frame);
  ASSERT_NE(frame->colorProfile->name(), ColorProfileType::sRGB()->name());
  test::TempDir dir("raster");
  ExportParameters p;
  p.path = (dir.path() / "kept.tif").string();
  ASSERT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
  const auto back = reopen(p.path);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->colorProfile->iccProfile().size(), frame->colorProfile->iccProfile().size());
  EXPECT_NEAR(back->at(100, 100).g, frame->at(100, 100).g, 0.5f / 255.0f);
}

TEST(Export, SizesBeyondALimitAreRefusedUpFrontNamingTheLimit) {
  test::TempDir dir("raster");
  test::LogCapture log;
  const auto frame = gradient(50, 40);
  ExportParameters p;
  p.path = (dir.path() / "big.tif").string();
  std::string reason;
  {
    const test::ScopedSetting cap(detail::kMaxPixelsSetting, "5000");
    p.longestSide = 100;
    EXPECT_FALSE(ImageMagickReader::checkExport(frame->size(), p, reason));
    EXPECT_NE(reason.find("100 x 80 exceeds the pixel cap of 5000"), std::string::npos) << reason;
    EXPECT_FALSE(ImageMagickReader::writeImageToFile(*frame, p));
    EXPECT_EQ(log.countContaining("exceeds the pixel cap of 5000"), 1u);
  }
  {
    const test::ScopedSetting bound(detail::kMaxMemorySetting, "1");
    p.longestSide = 1000;  // a 1000 x 800 float frame: 9.2 MiB
    EXPECT_FALSE(ImageMagickReader::writeImageToFile(*frame, p));
    EXPECT_EQ(log.countContaining("more than the memory bound of 1 MiB"), 1u);
    // A progressive JPEG holds all 1.4 MiB of coefficients of a 600 x 400 image; a
    // sequential one streams.
    ExportParameters q;
    q.path = (dir.path() / "streamed.jpg").string();
    const auto large = gradient(600, 400);
    EXPECT_TRUE(ImageMagickReader::writeImageToFile(*large, q));
    q.jpegProgressive = true;
    EXPECT_FALSE(ImageMagickReader::checkExport(large->size(), q, reason));
    EXPECT_NE(reason.find("more than the memory bound"), std::string::npos) << reason;
    std::filesystem::remove(q.path);
  }
  p.longestSide = 0;
  p.size = {70000, 2};
  p.path = (dir.path() / "wide.jpg").string();
  EXPECT_FALSE(ImageMagickReader::checkExport(frame->size(), p, reason));
  EXPECT_NE(reason.find("largest side of 65500"), std::string::npos) << reason;
  EXPECT_FALSE(ImageMagickReader::writeImageToFile(*frame, p));
  EXPECT_EQ(filesIn(dir.path()), 0u);

  p.size = {0, 0};
  p.path = (dir.path() / "no_folder" / "out.jpg").string();
  EXPECT_FALSE(ImageMagickReader::checkExport(frame->size(), p, reason));
  EXPECT_NE(reason.find("does not exist"), std::string::npos) << reason;
}

// Found by fuzzing: a profile that opens (its tags are read only when a conversion is built) but
// whose tone curve is damaged made a frame that decoded and then could not be written. The
// reader drops such a profile.
TEST(Export, AProfileThatConvertsNowhereIsDroppedOnDecodeSoTheFrameExports) {
  const Blob& adobe = ColorProfileType::adobeRGB()->iccProfile();
  const auto* bytes = static_cast<const std::uint8_t*>(adobe.data());
  std::vector<std::uint8_t> icc(bytes, bytes + adobe.size());
  const auto be32 = [&](std::size_t at) {
    return std::uint32_t(icc[at]) << 24 | std::uint32_t(icc[at + 1]) << 16 |
           std::uint32_t(icc[at + 2]) << 8 | icc[at + 3];
  };
  bool damaged = false;
  for (std::uint32_t i = 0; i < be32(128) && !damaged; ++i) {
    const std::size_t entry = 132 + 12 * i;
    if (std::memcmp(&icc[entry], "rTRC", 4) != 0) continue;
    std::fill_n(icc.begin() + be32(entry + 4), 4, 0xFF);  // the curve's type signature
    damaged = true;
  }
  ASSERT_TRUE(damaged);
  ASSERT_TRUE(ColorProfile(Blob(icc.data(), icc.size())).isValid());

  test::TempDir dir("raster");
  const std::string source = (dir.path() / "damaged_profile.tif").string();
  TIFF* tiff = TIFFOpen(source.c_str(), "w");
  ASSERT_TRUE(tiff);
  const std::uint8_t pixels[4 * 3] = {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120};
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, 4);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, 1);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_ICCPROFILE, static_cast<std::uint32_t>(icc.size()), icc.data());
  ASSERT_EQ(TIFFWriteScanline(tiff, const_cast<std::uint8_t*>(pixels), 0, 0), 1);
  TIFFClose(tiff);

  test::LogCapture log;
  const auto frame = reopen(source);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->colorProfile, ColorProfileType::sRGB());
  EXPECT_EQ(log.countContaining("converts to no other profile"), 1u);
  ExportParameters p;
  p.path = (dir.path() / "out.jpg").string();
  EXPECT_TRUE(ImageMagickReader::writeImageToFile(*frame, p));
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
