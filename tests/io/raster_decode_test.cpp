#include <gtest/gtest.h>
#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <cmath>

#include "raster_test_support.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/raster_info.h"

namespace vorn {
namespace {

using namespace test::raster;

ConstImageFrame openFrame(const std::string& path, ImageReaderErrorCode expected = kImageReaderOk) {
  ImageMagickReader reader;
  EXPECT_EQ(reader.openImage(path, {-1, -1}), expected) << path;
  if (expected != kImageReaderOk) {
    EXPECT_FALSE(reader.getOpenedImage());
    return nullptr;
  }
  return reader.getOpenedImage() ? reader.getOpenedImage()->workingImage() : nullptr;
}

void setExifOrientation(const std::string& path, int orientation) {
  auto image = Exiv2::ImageFactory::open(path);
  image->readMetadata();
  image->exifData()["Exif.Image.Orientation"] = static_cast<std::uint16_t>(orientation);
  image->writeMetadata();
}

// Upright (x, y) to stored (sx, sy) for EXIF orientations, worked out by hand from the tag's
// "row 0 is the visual top/bottom/left/right" wording.
void storedPosition(int orientation, int x, int y, int ws, int hs, int& sx, int& sy) {
  switch (orientation) {
    case 1:
      sx = x;
      sy = y;
      break;
    case 2:
      sx = ws - 1 - x;
      sy = y;
      break;
    case 3:
      sx = ws - 1 - x;
      sy = hs - 1 - y;
      break;
    case 4:
      sx = x;
      sy = hs - 1 - y;
      break;
    case 5:
      sx = y;
      sy = x;
      break;
    case 6:
      sx = y;
      sy = hs - 1 - x;
      break;
    case 7:
      sx = ws - 1 - y;
      sy = hs - 1 - x;
      break;
    default:
      sx = ws - 1 - y;
      sy = x;
      break;
  }
}

TEST(RasterDecode, JpegMatchesTheReferenceDecoderAndKeepsMetadata) {
  const std::string path = dataFile("fallenleaf_canon_eos70d.jpg");
  const auto frame = openFrame(path);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->size(), _Size<int>(2560, 1600));
  EXPECT_EQ(frame->colorProfile, ColorProfileType::sRGB());  // the file has no ICC profile
  int w = 0, h = 0;
  const std::vector<float> reference = magickReference("JPEG:" + path, w, h);
  ASSERT_EQ(_Size<int>(w, h), frame->size());
  // Both run the same accurate integer IDCT; the upsampling may differ by a step.
  std::size_t off = 0;
  float worst = 0.0f;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const float d = maxDifference(frame->at(x, y), &reference[(std::size_t(y) * w + x) * 3]);
      worst = std::max(worst, d);
      off += d > 1.5f / 255.0f;
    }
  EXPECT_LE(worst, 4.0f / 255.0f);
  EXPECT_LT(off, frame->area() / 100);

  ImageMagickReader reader;
  ASSERT_EQ(reader.openImage(path, {-1, -1}), kImageReaderOk);
  ASSERT_TRUE(reader.getOpenedImage());
  const auto metadata = reader.getOpenedImage()->metadata();
  ASSERT_TRUE(metadata);
  EXPECT_EQ(metadata->cameraModel, "Canon EOS 70D");
  EXPECT_EQ(metadata->mutableParameters.orientation, 1);
}

TEST(RasterDecode, TiffDepthsChannelsAndAlpha) {
  test::TempDir dir("raster");
  const Pixels pattern = uniquePattern(40, 12);
  const auto check16 = [&](const std::string& name, Magick::Image image) {
    const std::string path = (dir.path() / name).string();
    writeWithMagick(std::move(image), "TIFF", path);
    return openFrame(path);
  };
  // 16-bit RGB keeps every 16-bit step.
  auto frame = check16("rgb16.tif", magickImage(pattern, 16));
  ASSERT_TRUE(frame);
  for (int y = 0; y < pattern.height; ++y)
    for (int x = 0; x < pattern.width; ++x)
      ASSERT_LT(maxDifference(frame->at(x, y), const_cast<Pixels&>(pattern).at(x, y)), 1e-6f);

  // Greyscale comes out as three equal channels; LZW is read like any other compression.
  Magick::Image grey = magickImage(pattern, 16);
  grey.type(Magick::GrayscaleType);
  grey.compressType(Magick::LZWCompression);
  frame = check16("grey16.tif", grey);
  ASSERT_TRUE(frame);
  EXPECT_FLOAT_EQ(frame->at(7, 3).r, frame->at(7, 3).g);
  EXPECT_FLOAT_EQ(frame->at(7, 3).g, frame->at(7, 3).b);
  EXPECT_GT(frame->at(39, 11).r, frame->at(0, 0).r);

  // Alpha is dropped, not composited: a half-transparent pixel keeps its colour.
  Pixels rgba{2, 2, 4, {0.2f, 0.4f, 0.6f, 0.5f, 1, 0, 0, 0.0f, 0, 1, 0, 1.0f, 0, 0, 1, 0.25f}};
  frame = check16("alpha.tif", magickImage(rgba, 16));
  ASSERT_TRUE(frame);
  EXPECT_NEAR(frame->at(0, 0).r, 0.2f, 1e-4f);
  EXPECT_NEAR(frame->at(0, 0).b, 0.6f, 1e-4f);
  EXPECT_NEAR(frame->at(1, 0).r, 1.0f, 1e-4f);

  // 8-bit LZW from a real camera.
  frame = openFrame(dataFile("casio_qv4000_lzw.tif"));
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->size(), _Size<int>(2147, 1027));
}

TEST(RasterDecode, EveryOrientationIsTurnedUpright) {
  test::TempDir dir("raster");
  // Wider than a 64-pixel tile and taller than a 32-row band, so the tiled walk is covered.
  const Pixels pattern = uniquePattern(100, 70);
  for (int orientation = 1; orientation <= 8; ++orientation) {
    SCOPED_TRACE(orientation);
    const std::string path = (dir.path() / ("o" + std::to_string(orientation) + ".tif")).string();
    Magick::Image image = magickImage(pattern, 16);
    image.orientation(static_cast<Magick::OrientationType>(orientation));
    writeWithMagick(image, "TIFF", path);
    ImageMagickReader reader;
    ASSERT_EQ(reader.openImage(path, {-1, -1}), kImageReaderOk);
    ASSERT_TRUE(reader.getOpenedImage());
    const auto frame = reader.getOpenedImage()->workingImage();
    ASSERT_TRUE(frame);
    ASSERT_TRUE(reader.getOpenedImage()->metadata());
    EXPECT_EQ(reader.getOpenedImage()->metadata()->mutableParameters.orientation, orientation);
    const bool swaps = orientation >= 5;
    ASSERT_EQ(frame->size(), swaps ? _Size<int>(70, 100) : _Size<int>(100, 70));
    EXPECT_EQ(ImageReader::getImageSize(path), frame->size());
    int mismatches = 0;
    for (int y = 0; y < frame->height; ++y)
      for (int x = 0; x < frame->width; ++x) {
        int sx = 0, sy = 0;
        storedPosition(orientation, x, y, 100, 70, sx, sy);
        mismatches +=
            maxDifference(frame->at(x, y), const_cast<Pixels&>(pattern).at(sx, sy)) > 1e-6f;
      }
    EXPECT_EQ(mismatches, 0);
  }

  // The JPEG path turns while it converts; blocks of flat colour survive the compression.
  Pixels blocks{32, 16, 3, std::vector<float>(32 * 16 * 3)};
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 32; ++x) {
      float* px = blocks.at(x, y);
      px[0] = x < 16 ? 1.0f : 0.0f;  // left half red
      px[1] = y < 8 ? 1.0f : 0.0f;   // top half green
      px[2] = 0.0f;
    }
  const std::string jpeg = (dir.path() / "o6.jpg").string();
  writeWithMagick(magickImage(blocks, 8), "JPEG", jpeg);
  setExifOrientation(jpeg, 6);
  const auto frame = openFrame(jpeg);
  ASSERT_TRUE(frame);
  ASSERT_EQ(frame->size(), _Size<int>(16, 32));
  // Rotated a quarter turn clockwise: the stored top (green) is now on the right, the stored
  // left (red) at the top.
  EXPECT_GT(frame->at(12, 12).g, 0.9f);
  EXPECT_LT(frame->at(3, 12).g, 0.1f);
  EXPECT_GT(frame->at(8, 3).r, 0.9f);
  EXPECT_LT(frame->at(8, 28).r, 0.1f);
}

TEST(RasterDecode, EmbeddedProfilesAreKeptAndDamagedOnesDropped) {
  test::TempDir dir("raster");
  const auto adobe = ColorProfileType::adobeRGB();
  const Blob& icc = adobe->iccProfile();
  Pixels flat{16, 16, 3, std::vector<float>(16 * 16 * 3, 0.5f)};
  for (const char* coder : {"JPEG", "TIFF"}) {
    Magick::Image image = magickImage(flat, 8);
    image.iccColorProfile(Magick::Blob(icc.data(), icc.size()));
    const std::string path = (dir.path() / (std::string("icc.") + coder)).string() +
                             (std::string(coder) == "JPEG" ? ".jpg" : ".tif");
    writeWithMagick(image, coder, path);
    const auto frame = openFrame(path);
    ASSERT_TRUE(frame);
    ASSERT_TRUE(frame->colorProfile);
    EXPECT_EQ(frame->colorProfile->name(), adobe->name()) << coder;
  }

  // The same JPEG with its profile's colour space field spoilt: pixels kept, sRGB assumed.
  const std::string good = (dir.path() / "icc.JPEG.jpg").string();
  std::vector<std::uint8_t> bytes = readBytes(good);
  // Bytes 12..19 of the profile header: device class, then the colour space to spoil.
  const auto at = std::search(bytes.begin(), bytes.end(), icc.bytes() + 12, icc.bytes() + 20);
  ASSERT_NE(at, bytes.end());
  std::copy_n("CMYK", 4, at + 4);
  const std::string spoilt = (dir.path() / "spoilt.jpg").string();
  writeBytes(spoilt, bytes);
  test::LogCapture log;
  const auto frame = openFrame(spoilt);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->colorProfile, ColorProfileType::sRGB());
  EXPECT_NEAR(frame->at(5, 5).g, 0.5f, 2.0f / 255.0f);
  EXPECT_EQ(log.countContaining("embedded ICC profile dropped"), 1u);
}

TEST(RasterDecode, OnlyTheJpegAndTiffCodersAreAllowed) {
  detail::ensureMagickEnvironment();
  const auto allowed = [](const char* coder, MagickCore::PolicyRights rights) {
    return MagickCore::IsRightsAuthorized(MagickCore::CoderPolicyDomain, rights, coder) ==
           MagickCore::MagickTrue;
  };
  for (const char* coder : {"JPEG", "TIFF"}) {
    EXPECT_TRUE(allowed(coder, MagickCore::ReadPolicyRights)) << coder;
    EXPECT_TRUE(allowed(coder, MagickCore::WritePolicyRights)) << coder;
  }
  for (const char* coder : {"PNG", "SVG", "MVG", "MSL", "PS", "TEXT", "XC", "EPHEMERAL"})
    EXPECT_FALSE(allowed(coder, MagickCore::ReadPolicyRights)) << coder;
  EXPECT_FALSE(MagickCore::IsRightsAuthorized(MagickCore::DelegatePolicyDomain,
                                              MagickCore::ExecutePolicyRights,
                                              "gs") == MagickCore::MagickTrue);
  // A PNG named as such is refused by the policy, not decoded.
  Magick::Image png;
  EXPECT_THROW(png.read(Magick::Blob("\x89PNG\r\n\x1a\n", 8), Magick::Geometry(), "PNG"),
               Magick::Exception);
}

TEST(RasterDecode, HostileFilesGiveCodesAndOneLogLine) {
  test::TempDir dir("raster");
  const std::vector<std::uint8_t> jpeg = readBytes(dataFile("fallenleaf_canon_eos70d.jpg"));
  ASSERT_GT(jpeg.size(), 100000u);
  const auto file = [&](const std::string& name, const std::vector<std::uint8_t>& bytes) {
    const std::string path = (dir.path() / name).string();
    writeBytes(path, bytes);
    return path;
  };
  // A small uncompressed TIFF to patch: its IFD entries are where the encoder put them.
  const std::string tiffPath = (dir.path() / "base.tif").string();
  Magick::Image small = magickImage(uniquePattern(64, 64), 8);
  small.compressType(Magick::NoCompression);
  small.defineValue("tiff", "rows-per-strip", "64");
  writeWithMagick(small, "TIFF", tiffPath);
  const std::vector<std::uint8_t> tiff = readBytes(tiffPath);

  // The frame header's height and width as 65000 x 65000; the walk skips the EXIF preview's.
  std::vector<std::uint8_t> hugeJpeg = jpeg;
  std::size_t sof = 2;
  while (sof + 4 < hugeJpeg.size() && !(hugeJpeg[sof + 1] >= 0xC0 && hugeJpeg[sof + 1] <= 0xC2))
    sof += 2 + std::size_t(hugeJpeg[sof + 2] << 8 | hugeJpeg[sof + 3]);
  ASSERT_LT(sof + 9, hugeJpeg.size());
  for (int i : {5, 7}) hugeJpeg[sof + i] = 0xFD, hugeJpeg[sof + i + 1] = 0xE8;

  // ImageWidth (256) and ImageLength (257) as 32-bit values of 60000.
  // And the one strip's offset moved near the end: its data runs past the end of the file.
  std::vector<std::uint8_t> hugeTiff = tiff;
  std::vector<std::uint8_t> shortStrip = tiff;
  const std::uint32_t ifd = hugeTiff[4] | hugeTiff[5] << 8 | hugeTiff[6] << 16 | hugeTiff[7] << 24;
  const int entries = hugeTiff[ifd] | hugeTiff[ifd + 1] << 8;
  for (int i = 0; i < entries; ++i) {
    std::uint8_t* entry = &hugeTiff[ifd + 2 + 12 * i];
    const int tag = entry[0] | entry[1] << 8;
    if (tag == 273) {
      const std::uint32_t nearEnd = static_cast<std::uint32_t>(tiff.size() - 64);
      for (int b = 0; b < 4; ++b)
        shortStrip[ifd + 2 + 12 * i + 8 + b] = std::uint8_t(nearEnd >> (8 * b));
    }
    if (tag != 256 && tag != 257) continue;
    entry[2] = 4, entry[3] = 0;                                      // LONG
    entry[8] = 0x60, entry[9] = 0xEA, entry[10] = 0, entry[11] = 0;  // 60000
  }

  const std::vector<std::uint8_t> half(jpeg.begin(), jpeg.begin() + jpeg.size() / 2);
  const std::vector<std::uint8_t> tiffHalf(tiff.begin(), tiff.begin() + tiff.size() / 2);

  std::vector<std::uint8_t> garbage = tiff;
  std::fill(garbage.begin() + 4, garbage.end(), 0xA5);
  struct Case {
    std::string path;
    ImageReaderErrorCode code;
    std::string stage;
  };
  const std::vector<Case> cases = {
      {(dir.path() / "missing.jpg").string(), kImageReaderFailed, "open"},
      {file("empty.jpg", {}), kImageReaderFailed, "signature"},
      {file("jpeg_named.tif", jpeg), kImageReaderFailed, "signature"},
      {file("png_named.jpg", {0x89, 'P', 'N', 'G', 13, 10, 26, 10, 0, 0}), kImageReaderFailed,
       "signature"},
      {file("notes.png", jpeg), kImageReaderFailed, "open"},
      {file("truncated.jpg", half), kImageReaderCorrupt, "decode"},
      {file("huge.jpg", hugeJpeg), kImageReaderTooLarge, "limit"},
      {file("huge.tif", hugeTiff), kImageReaderTooLarge, "limit"},
      {file("truncated.tif", tiffHalf), kImageReaderCorrupt, "header"},
      {file("short_strip.tif", shortStrip), kImageReaderCorrupt, "decode"},
      {file("garbage.tif", garbage), kImageReaderCorrupt, "header"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    test::LogCapture log;
    openFrame(c.path, c.code);
    EXPECT_EQ(log.countContaining(c.path + ": " + c.stage + ":"), 1u);
  }
}

TEST(RasterDecode, MemoryOpenAndHeaderQueries) {
  const std::string path = dataFile("fallenleaf_canon_eos70d.jpg");
  const std::vector<std::uint8_t> bytes = readBytes(path);
  const ImageResult fromMemory = openRasterFromMemory(bytes.data(), bytes.size());
  ASSERT_EQ(fromMemory.errorCode, kImageReaderOk);
  ASSERT_TRUE(fromMemory.image);
  const auto memoryFrame = fromMemory.image->workingImage();
  const auto fileFrame = openFrame(path);
  ASSERT_TRUE(memoryFrame);
  ASSERT_TRUE(fileFrame);
  ASSERT_EQ(memoryFrame->size(), fileFrame->size());
  EXPECT_EQ(memoryFrame->at(1234, 567), fileFrame->at(1234, 567));
  ASSERT_TRUE(fromMemory.image->metadata());
  EXPECT_EQ(fromMemory.image->metadata()->cameraModel, "Canon EOS 70D");

  test::LogCapture log;
  EXPECT_EQ(openRasterFromMemory(nullptr, 10).errorCode, kImageReaderFailed);
  const std::uint8_t text[] = "plain text, not an image";
  EXPECT_EQ(openRasterFromMemory(text, sizeof text).errorCode, kImageReaderFailed);
  EXPECT_EQ(openRasterFromMemory(bytes.data(), bytes.size() / 3).errorCode, kImageReaderCorrupt);

  EXPECT_EQ(ImageReader::getImageSize(path), _Size<int>(2560, 1600));
  EXPECT_EQ(ImageReader::getColorDepth(path), 8);
  EXPECT_EQ(ImageReader::getPreciseColorDepth(dataFile("casio_qv4000_lzw.tif")), 8);
  EXPECT_EQ(ImageReader::getImageSize(dataFile("casio_qv4000_lzw.tif")), _Size<int>(2147, 1027));
  EXPECT_EQ(ImageReader::getImageSize(dataFile("missing.jpg")), _Size<int>(0, 0));
  EXPECT_EQ(ImageReader::getColorDepth(dataFile("missing.tif")), 0);
}

TEST(RasterDecode, LargeSamples) {
  VORN_REQUIRE_PHOTO(iphone, "iphone4s_orient6.jpg");
  VORN_REQUIRE_PHOTO(canon, "canon_5d3_22mp_issue266.jpg");
  VORN_REQUIRE_PHOTO(dji, "dji_fc6360_multispectral_16bit.tif");

  // Orientation 6: the upright (0, 0) is the stored bottom-left pixel.
  ImageMagickReader reader;
  ASSERT_EQ(reader.openImage(iphone, {-1, -1}), kImageReaderOk);
  ASSERT_TRUE(reader.getOpenedImage());
  const auto upright = reader.getOpenedImage()->workingImage();
  ASSERT_TRUE(upright);
  ASSERT_EQ(upright->size(), _Size<int>(2448, 3264));
  ASSERT_TRUE(reader.getOpenedImage()->metadata());
  EXPECT_EQ(reader.getOpenedImage()->metadata()->mutableParameters.orientation, 6);
  EXPECT_EQ(ImageReader::getImageSize(iphone), _Size<int>(2448, 3264));
  int w = 0, h = 0;
  const std::vector<float> stored = magickReference("JPEG:" + iphone, w, h);
  ASSERT_EQ(_Size<int>(w, h), _Size<int>(3264, 2448));
  for (const auto& [x, y] : {std::pair{0, 0}, {100, 2000}, {2447, 3263}}) {
    int sx = 0, sy = 0;
    storedPosition(6, x, y, w, h, sx, sy);
    EXPECT_LE(maxDifference(upright->at(x, y), &stored[(std::size_t(sy) * w + sx) * 3]),
              4.0f / 255.0f);
  }

  const auto frame = openFrame(canon);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->size(), _Size<int>(5760, 3840));
  ASSERT_TRUE(frame->colorProfile);
  EXPECT_NE(frame->colorProfile, ColorProfileType::sRGB());
  EXPECT_TRUE(frame->colorProfile->isValid());

  const auto grey = openFrame(dji);
  ASSERT_TRUE(grey);
  ASSERT_EQ(grey->size(), _Size<int>(1600, 1300));
  EXPECT_EQ(grey->at(800, 650).r, grey->at(800, 650).b);
  EXPECT_EQ(ImageReader::getColorDepth(dji), 16);
}

}  // namespace
}  // namespace vorn
