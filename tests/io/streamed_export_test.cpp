#include <gtest/gtest.h>
#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "core/kernels.h"
#include "raster_test_support.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/streamed_export.h"

namespace vorn {
namespace {

using namespace test::raster;

// A per-pixel edit that moves every value and leaves some above 1 (clipped on the way out).
void brighten(ImageFrame& frame, int rows) {
  for (int y = 0; y < rows; ++y)
    for (int x = 0; x < frame.width; ++x) {
      PixelRGB<float>& p = frame.at(x, y);
      p = PixelRGB<float>(p.r * 1.3f, p.g * 0.8f + 0.1f, p.b * p.b);
    }
}

std::string writeSource(const test::TempDir& dir, int width, int height, int orientation = 1) {
  const std::string path = (dir.path() / "source.jpg").string();
  writeWithMagick(magickImage(uniquePattern(width, height), 8), "JPEG", path);
  auto image = Exiv2::ImageFactory::open(path);
  image->readMetadata();
  image->exifData()["Exif.Image.Model"] = "Model 7";
  image->exifData()["Exif.Image.Orientation"] = std::uint16_t(orientation);
  image->writeMetadata();
  return path;
}

// The reference: the whole frame decoded, edited and exported.
bool exportWhole(const std::string& source, const ExportParameters& parameters) {
  OwnedFrame decoded = ImageReader::decodeFrame(classifyImageFile(source));
  if (!decoded.frame) return false;
  brighten(*decoded.frame, decoded.frame->height);
  return ImageMagickReader::writeImageToFile(*decoded.frame, parameters);
}

std::size_t filesIn(const std::filesystem::path& folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder),
                                                std::filesystem::directory_iterator()));
}

TEST(StreamedExport, WritesTheBytesOfTheWholeFramePathBandByBand) {
  test::TempDir dir("stream");
  // Taller than any band, and not a multiple of the JPEG block rows.
  const std::string source = writeSource(dir, 300, 1037);
  const ImageFileClass file = classifyImageFile(source);
  for (const auto& [name, depth] :
       {std::pair{"out.jpg", 8}, {"out8.tif", 8}, {"out16.tif", 16}, {"out32.tif", 32}}) {
    SCOPED_TRACE(name);
    ExportParameters streamedParameters;
    streamedParameters.path = (dir.path() / (std::string("s_") + name)).string();
    streamedParameters.tiffBitDepth = depth;
    streamedParameters.exifSourcePath = source;
    ExportParameters wholeParameters = streamedParameters;
    wholeParameters.path = (dir.path() / (std::string("w_") + name)).string();

    std::vector<std::pair<int, int>> bands;
    const auto result = exportStreamed(file, FailOn::Error, streamedParameters,
                                       [&](ImageFrame& band, int first, int rows) {
                                         bands.emplace_back(first, rows);
                                         brighten(band, rows);
                                         return true;
                                       });
    ASSERT_EQ(result.status, StreamedExportStatus::Written);
    EXPECT_EQ(result.size, _Size<int>(300, 1037));
    // Every row once, top to bottom (the JPEG encoder in several bands).
    if (std::string(name) == "out.jpg") {
      EXPECT_GT(bands.size(), 1u);
    }
    int next = 0;
    for (const auto& [first, rows] : bands) {
      EXPECT_EQ(first, next);
      next += rows;
    }
    EXPECT_EQ(next, 1037);
    ASSERT_TRUE(exportWhole(source, wholeParameters));
    EXPECT_EQ(readBytes(streamedParameters.path), readBytes(wholeParameters.path));
  }
}

TEST(StreamedExport, LeavesWhatNeedsTheWholeFrameUntouched) {
  test::TempDir dir("stream");
  const auto never = [](ImageFrame&, int, int) {
    ADD_FAILURE() << "no band expected";
    return false;
  };
  ExportParameters p;
  p.path = (dir.path() / "out.jpg").string();
  {
    const std::string turned = writeSource(dir, 40, 30, 6);
    EXPECT_EQ(exportStreamed(classifyImageFile(turned), FailOn::Error, p, never).status,
              StreamedExportStatus::NotStreamable);
  }
  const std::string source = writeSource(dir, 40, 30);
  const ImageFileClass file = classifyImageFile(source);
  ExportParameters resized = p;
  resized.longestSide = 20;
  ExportParameters rotated = p;
  rotated.orientation = 3;
  ExportParameters png = p;
  png.path = (dir.path() / "out.png").string();
  for (const ExportParameters& parameters : {resized, rotated, png})
    EXPECT_EQ(exportStreamed(file, FailOn::Error, parameters, never).status,
              StreamedExportStatus::NotStreamable);
  const std::string tiff = (dir.path() / "source.tif").string();
  writeWithMagick(magickImage(uniquePattern(40, 30), 8), "TIFF", tiff);
  EXPECT_EQ(exportStreamed(classifyImageFile(tiff), FailOn::Error, p, never).status,
            StreamedExportStatus::NotStreamable);
  EXPECT_FALSE(std::filesystem::exists(p.path));
}

TEST(StreamedExport, DamagedInputAndRefusingProcessorLeaveNoFile) {
  test::TempDir dir("stream");
  const std::string source = writeSource(dir, 256, 600);
  std::vector<std::uint8_t> bytes = readBytes(source);
  const std::size_t files = filesIn(dir.path());
  ExportParameters p;
  p.path = (dir.path() / "out.jpg").string();
  const auto keep = [](ImageFrame&, int, int) { return true; };

  // Cut short in the middle of the scan: damaged under "error", kept under "none".
  const std::string cut = (dir.path() / "cut.jpg").string();
  writeBytes(cut, std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
  {
    test::LogCapture log;
    const auto result = exportStreamed(classifyImageFile(cut), FailOn::Error, p, keep);
    EXPECT_EQ(result.status, StreamedExportStatus::InputFailed);
    EXPECT_EQ(result.code, kImageReaderCorrupt);
    EXPECT_NE(result.reason.find("cut.jpg"), std::string::npos) << result.reason;
  }
  EXPECT_EQ(filesIn(dir.path()), files + 1);  // only the damaged copy itself
  EXPECT_EQ(exportStreamed(classifyImageFile(cut), FailOn::None, p, keep).status,
            StreamedExportStatus::Written);
  std::filesystem::remove(p.path);

  int calls = 0;
  const auto refuse = [&calls](ImageFrame&, int first, int) {
    ++calls;
    return first == 0;  // the second band fails
  };
  test::LogCapture log;
  EXPECT_EQ(exportStreamed(classifyImageFile(source), FailOn::Error, p, refuse).status,
            StreamedExportStatus::ProcessFailed);
  EXPECT_EQ(calls, 2);  // nothing is processed after the failure
  EXPECT_EQ(filesIn(dir.path()), files + 1);
}

TEST(StreamedExport, HeaderDamageMeetsThePolicyOnBothPaths) {
  test::TempDir dir("stream");
  std::vector<std::uint8_t> bytes = readBytes(writeSource(dir, 64, 40));
  // Stray bytes before the first Huffman table: a warning of the header, not an error.
  const std::uint8_t dht[] = {0xFF, 0xC4};
  const auto at = std::search(bytes.begin(), bytes.end(), std::begin(dht), std::end(dht));
  ASSERT_NE(at, bytes.end());
  bytes.insert(at, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  const std::string damaged = (dir.path() / "damaged.jpg").string();
  writeBytes(damaged, bytes);
  const ImageFileClass file = classifyImageFile(damaged);
  ExportParameters p;
  p.path = (dir.path() / "out.jpg").string();
  const auto keep = [](ImageFrame&, int, int) { return true; };
  test::LogCapture log;
  for (const FailOn policy : {FailOn::None, FailOn::Truncated, FailOn::Error}) {
    SCOPED_TRACE(static_cast<int>(policy));
    FrameRequest request;
    request.failOn = policy;
    const OwnedFrame whole = ImageReader::decodeFrame(file, request);
    const auto streamed = exportStreamed(file, policy, p, keep);
    const bool kept = policy != FailOn::Error;
    EXPECT_EQ(static_cast<bool>(whole.frame), kept);
    EXPECT_EQ(streamed.status,
              kept ? StreamedExportStatus::Written : StreamedExportStatus::InputFailed);
    std::filesystem::remove(p.path);
  }
}

TEST(Quantize, VectorsRoundAndClampLikeTheScalarRule) {
  std::vector<float> values = {-1.0f,
                               -0.0f,
                               0.0f,
                               0.5f / 255.0f,
                               0.49f / 255.0f,
                               0.5f,
                               1.0f,
                               1.5f,
                               std::numeric_limits<float>::quiet_NaN(),
                               std::numeric_limits<float>::infinity(),
                               -std::numeric_limits<float>::infinity(),
                               0.999f,
                               0.25f};
  for (int i = 0; i < 300; ++i) values.push_back(static_cast<float>(i) / 257.0f - 0.1f);
  std::vector<std::uint8_t> bytes(values.size());
  std::vector<std::uint16_t> words(values.size());
  detail::quantizeToBytes(values.data(), values.size(), bytes.data());
  detail::quantizeToWords(values.data(), values.size(), words.data());
  for (std::size_t i = 0; i < values.size(); ++i) {
    const float v = values[i] > 0.0f ? (values[i] < 1.0f ? values[i] : 1.0f) : 0.0f;
    EXPECT_EQ(bytes[i], static_cast<std::uint8_t>(v * 255.0f + 0.5f)) << i << " " << values[i];
    EXPECT_EQ(words[i], static_cast<std::uint16_t>(v * 65535.0f + 0.5f)) << i << " " << values[i];
  }
}

}  // namespace
}  // namespace vorn
