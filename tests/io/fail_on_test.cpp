#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "io/raster_test_support.h"
#include "io/raw_test_support.h"
#include "support/log_capture.h"
#include "support/scoped_setting.h"
#include "support/temp_dir.h"
#include "vorn/io/fail_on.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/image_source_raw.h"

namespace vorn {
namespace {

using test::raster::dataFile;
using test::raster::readBytes;

OwnedFrame decodeWith(const std::string& path, FailOn policy) {
  FrameRequest request;
  request.failOn = policy;
  return ImageReader::decodeFrame(classifyImageFile(path), request);
}

// The sample JPEG damaged three ways, each a few kilobytes into its Huffman-coded data.
struct DamagedJpeg {
  const char* name;
  bool truncation;  ///< the data ends early, rather than being corrupt
};

std::vector<std::uint8_t> damage(std::vector<std::uint8_t> bytes, const std::string& how) {
  const std::size_t middle = bytes.size() / 2;
  if (how == "truncated") {
    bytes.resize(bytes.size() * 3 / 5);
  } else if (how == "garbage") {
    std::uint32_t state = 12345;  // fixed, so every run damages the same bytes
    for (std::size_t i = 0; i < 4096; ++i) {
      state = state * 1103515245u + 12345u;
      bytes[middle + i] = static_cast<std::uint8_t>(state >> 16);
    }
  } else {
    for (std::size_t i = 0; i < 8; ++i) bytes[middle + i * 257] ^= 0xFF;
  }
  return bytes;
}

TEST(FailOn, SettingNamesThePolicyAndDefaultsToError) {
  FailOn policy = FailOn::None;
  EXPECT_TRUE(parseFailOn("truncated", policy));
  EXPECT_EQ(policy, FailOn::Truncated);
  EXPECT_FALSE(parseFailOn("warning", policy));
  EXPECT_FALSE(parseFailOn("", policy));
  EXPECT_EQ(policy, FailOn::Truncated) << "a bad name leaves the policy alone";
  {
    const test::ScopedSetting none(kFailOnSetting, "none");
    EXPECT_EQ(failOnSetting(), FailOn::None);
  }
  const test::ScopedSetting unknown(kFailOnSetting, "sometimes");
  EXPECT_EQ(failOnSetting(), FailOn::Error);
}

// Truncated data fails unless the policy is none; corrupt data only under error, the default.
// What a policy lets through keeps the rows decoded before the damage.
TEST(FailOn, DamagedJpegsAreRefusedByDefaultAndKeptWhenThePolicySaysSo) {
  test::TempDir dir("fail_on");
  const std::string clean = dataFile("fallenleaf_canon_eos70d.jpg");
  const OwnedFrame intact = decodeWith(clean, FailOn::Error);
  ASSERT_TRUE(intact.frame);
  for (const DamagedJpeg& variant :
       {DamagedJpeg{"truncated", true}, {"garbage", false}, {"flipped", false}}) {
    SCOPED_TRACE(variant.name);
    const std::string path = (dir.path() / (std::string(variant.name) + ".jpg")).string();
    test::raster::writeBytes(path, damage(readBytes(clean), variant.name));
    {
      test::LogCapture log;
      const OwnedFrame refused = decodeWith(path, FailOn::Error);
      EXPECT_EQ(refused.errorCode, kImageReaderCorrupt);
      EXPECT_FALSE(refused.frame);
      EXPECT_EQ(log.countContaining(path + ": decode: "), 1u);
      EXPECT_EQ(log.countContaining(variant.truncation ? "Premature end" : "Corrupt JPEG data"),
                1u);
    }
    const OwnedFrame lenient = decodeWith(path, FailOn::Truncated);
    EXPECT_EQ(lenient.errorCode, variant.truncation ? kImageReaderCorrupt : kImageReaderOk);
    const OwnedFrame kept = decodeWith(path, FailOn::None);
    ASSERT_EQ(kept.errorCode, kImageReaderOk);
    ASSERT_TRUE(kept.frame);
    ASSERT_EQ(kept.frame->size(), intact.frame->size());
    for (int x = 0; x < kept.frame->width; x += 97)
      EXPECT_EQ(kept.frame->at(x, 0), intact.frame->at(x, 0)) << x;

    // Opens without a policy of their own follow the setting.
    EXPECT_EQ(ImageReader::instance()
                  .open_sync(path, ImageReader::kNoResizeSize, kOpenDefault, nullptr, {})
                  .errorCode,
              kImageReaderCorrupt);
    const test::ScopedSetting none(kFailOnSetting, "none");
    EXPECT_EQ(ImageReader::instance()
                  .open_sync(path, ImageReader::kNoResizeSize, kOpenDefault, nullptr, {})
                  .errorCode,
              kImageReaderOk);
  }
}

// A CMYK JPEG goes through ImageMagick's decoder, whose warnings follow the same policy.
TEST(FailOn, TruncatedCmykJpegFollowsThePolicyToo) {
  test::TempDir dir("fail_on");
  const std::string path = (dir.path() / "cmyk.jpg").string();
  Magick::Image image = test::raster::magickImage(test::raster::uniquePattern(256, 256), 8);
  image.colorSpace(Magick::CMYKColorspace);
  test::raster::writeWithMagick(image, "JPEG", path);
  test::raster::writeBytes(path, damage(readBytes(path), "truncated"));
  {
    test::LogCapture log;
    EXPECT_EQ(decodeWith(path, FailOn::Error).errorCode, kImageReaderCorrupt);
    EXPECT_EQ(log.countContaining("Premature end"), 1u);
  }
  EXPECT_EQ(decodeWith(path, FailOn::None).errorCode, kImageReaderOk);
}

// A DNG whose image data lies past its end: a truncation, refused unless the policy is none,
// which gets what LibRaw made of it, in the raw source's loaders as in a direct decode.
TEST(FailOn, TruncatedRawDataFollowsThePolicy) {
  const std::string path = test::testData("truncated_iphone12promax_exiv2.dng");
  {
    test::LogCapture log;
    EXPECT_EQ(decodeWith(path, FailOn::Truncated).errorCode, kImageReaderCorrupt);
    EXPECT_EQ(log.countContaining("unpack '" + path + "': image data lies beyond"), 1u);
  }
  const OwnedFrame kept = decodeWith(path, FailOn::None);
  ASSERT_EQ(kept.errorCode, kImageReaderOk);
  ASSERT_TRUE(kept.frame);
  EXPECT_EQ(kept.frame->size(), _Size<int>(3024, 4032));

  const test::ScopedSetting none(kFailOnSetting, "none");
  const ImageResult opened = ImageReader::readRaw(path, kOpenDefault, nullptr, "");
  ASSERT_TRUE(opened.image);
  auto* source = dynamic_cast<ImageSourceRawBase*>(opened.image->source().get());
  ASSERT_TRUE(source);
  EXPECT_TRUE(test::finishesWithin(60, [source] { source->waitForQuarterFrame(); }));
  EXPECT_GE(opened.image->status(), QUARTER_LOADED) << "the loaders read the setting too";
}

// The damaged DNG samples: each is an error naming the file and the damage, never a crash
// and never a black frame.
TEST(FailOn, HostileDngSamplesAreErrors) {
  struct Case {
    const char* name;
    const char* reason;
  };
  for (const Case& c : {Case{"libraw_segv_64b.dng", "Input/output error"},
                        {"libraw_segv_cfa_tiled.dng", "colour filter pattern"},
                        {"dng_bad_tile_black_frame.dng", "before any image data"},
                        {"dng_mutant_black_frame.dng", "before any image data"},
                        {"dng_4kb_declares_12mp.dng", "before any image data"}}) {
    const std::string path = test::sharedSample("hostile", c.name);
    if (path.empty()) GTEST_SKIP() << "sample " << c.name << " is absent";
    test::LogCapture log;
    const OwnedFrame decoded = decodeWith(path, FailOn::Error);
    EXPECT_NE(decoded.errorCode, kImageReaderOk) << c.name;
    EXPECT_FALSE(decoded.frame) << c.name;
    EXPECT_EQ(log.countContaining(path), 1u) << c.name;
    EXPECT_EQ(log.countContaining(c.reason), 1u) << c.name;
  }
}

}  // namespace
}  // namespace vorn
