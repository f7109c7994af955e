#include "vorn/io/image_reader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "io/raster_test_support.h"
#include "io/raw_test_support.h"
#include "support/data_store_guard.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "vorn/core/data_store.h"
#include "vorn/core/library.h"
#include "vorn/io/image_source_raw.h"

namespace vorn {
namespace {

using test::TempDir;

TEST(ImageReaderFormats, SetsAndRawTests) {
  const auto& all = ImageReader::allSupportedFormats();
  EXPECT_EQ(all.size(), 32u);
  EXPECT_EQ(ImageReader::rawSupportedFormats().size(), 28u);
  for (const char* ext : {"heic", "dng", "mos", "jpg", "jpeg", "tif", "tiff"})
    EXPECT_TRUE(all.count(ext)) << ext;
  EXPECT_FALSE(all.count("png"));
  EXPECT_FALSE(ImageReader::rawSupportedFormats().count("jpg"));

  EXPECT_TRUE(ImageReader::isRawImageFile("/photos/IMG_1.heic"));
  EXPECT_TRUE(ImageReader::isHEIC("/photos/IMG_1.heic"));
  EXPECT_TRUE(ImageReader::isRawImageFile("/photos/DSC_1.NEF"));
  EXPECT_FALSE(ImageReader::isRawImageFile("/photos/a.png"));
  EXPECT_FALSE(ImageReader::isRawImageFile("/photos/a.jpg"));
  EXPECT_TRUE(ImageReader::isDngImageFile("x.dng"));
  EXPECT_FALSE(ImageReader::isDngImageFile("x.dng.jpg"));
  EXPECT_FALSE(ImageReader::isHEIC("x.heif"));
}

TEST(ImageReaderFormats, TiffIsRawOnlyForRawTiffCameraModels) {
  TempDir dir;
  const std::string plain = dir.str() + "/plain.tif";
  const std::string scanner = dir.str() + "/scan.tiff";
  const std::string kodak = dir.str() + "/kodak.tif";
  const std::string hybrid = dir.str() + "/hybrid.TIF";
  test::writeTinyTiff(plain, "");
  test::writeTinyTiff(scanner, "CanoScan 9000F");
  test::writeTinyTiff(kodak, "KODAK DCS Pro 14N DIGITAL CAMERA");
  test::writeTinyTiff(hybrid, "EOS D2000C");
  EXPECT_FALSE(ImageReader::isRawImageFile(plain));
  EXPECT_FALSE(ImageReader::isRawImageFile(scanner));
  EXPECT_TRUE(ImageReader::isRawImageFile(kodak));
  EXPECT_TRUE(ImageReader::isRawImageFile(hybrid));
  EXPECT_FALSE(ImageReader::isRawImageFile(dir.str() + "/missing.tif"));
}

TEST(ImageReaderSize, MinusOneFollowsTheDecodedAspectTruncating) {
  const _Size<int> decoded(4000, 3000);
  EXPECT_EQ(ImageReader::requestedSize({-1, 600}, decoded), _Size<int>(800, 600));
  EXPECT_EQ(ImageReader::requestedSize({1000, -1}, decoded), _Size<int>(1000, 750));
  // Fractional results are truncated, for the computed height as for the computed width.
  EXPECT_EQ(ImageReader::requestedSize({-1, 600}, {4000, 3001}), _Size<int>(799, 600));
  EXPECT_EQ(ImageReader::requestedSize({1000, -1}, {4001, 3000}), _Size<int>(1000, 749));
  EXPECT_EQ(ImageReader::requestedSize({-1, 1000}, {3000, 4001}), _Size<int>(749, 1000));
  EXPECT_EQ(ImageReader::requestedSize({300, 200}, decoded), _Size<int>(300, 200));
  EXPECT_EQ(ImageReader::kNoResizeSize, _Size<int>(-1, -1));
}

TEST(ImageReaderSize, OpenSyncTruncatesTheComputedSide) {
  TempDir dir;
  const std::string path = dir.str() + "/401x300.tif";
  test::raster::writeWithMagick(test::raster::magickImage(test::raster::uniquePattern(401, 300), 8),
                                "TIFF", path);
  const auto openAt = [&](_Size<int> size) {
    const ImageResult result =
        ImageReader::instance().open_sync(path, size, kOpenDefault, nullptr, "");
    return ImageReader::isImageResultValid(result) ? result.image->size() : _Size<int>();
  };
  EXPECT_EQ(openAt({100, -1}), _Size<int>(100, 74));  // 300 * 100 / 401 = 74.8
  EXPECT_EQ(openAt({-1, 74}), _Size<int>(98, 74));    // 74 * 401 / 300 = 98.9
}

ImageResult finishedResult(int width, int height) {
  auto frame = std::make_shared<ImageFrame>(_Size<int>(width, height), PixelRGB<float>(0.5f));
  ImageResult result;
  result.image = std::make_shared<Image>(
      std::make_shared<ImageSource>(std::move(frame), std::make_shared<ImageMetadata>()));
  result.errorCode = kImageReaderOk;
  return result;
}

TEST(ImageReaderSize, PostProcessFitsInsideKeepingTheAspect) {
  const ImageResult wide = finishedResult(400, 300);
  const ImageResult fitted = ImageReader::postProcess(wide, kOpenDefault, {100, 100});
  ASSERT_TRUE(ImageReader::isImageResultValid(fitted));
  EXPECT_EQ(fitted.image->size(), _Size<int>(100, 75));
  const ConstImageFrame pixels = fitted.image->workingImage();
  ASSERT_TRUE(pixels);
  EXPECT_NEAR(pixels->at(50, 40).g, 0.5f, 1e-5f);
  const ImageResult narrow = ImageReader::postProcess(wide, kOpenDefault, {30, 200});
  ASSERT_TRUE(ImageReader::isImageResultValid(narrow));
  EXPECT_EQ(narrow.image->size(), _Size<int>(30, 22));
  // Never enlarged, and invalid input passes through untouched.
  EXPECT_EQ(ImageReader::postProcess(wide, kOpenDefault, {1000, 1000}).image, wide.image);
  ImageResult failed;
  EXPECT_FALSE(ImageReader::isImageResultValid(failed));
  EXPECT_EQ(ImageReader::postProcess(failed, kOpenDefault, {10, 10}).errorCode, kImageReaderFailed);
}

TEST(ImageReaderOpen, MissingFileGivesCodeFourWithoutImage) {
  TempDir dir;
  const ImageResult sync = ImageReader::instance().open_sync(
      dir.str() + "/none.nef", ImageReader::kNoResizeSize, kOpenDefault, nullptr, "");
  EXPECT_EQ(sync.errorCode, kImageReaderFailed);
  EXPECT_FALSE(sync.image);
  const ImageResult viaOpen = ImageReader::instance().open(dir.str() + "/none.jpg", {-1, 100});
  EXPECT_EQ(viaOpen.errorCode, kImageReaderFailed);
  EXPECT_FALSE(viaOpen.image);
  EXPECT_EQ(ImageReader::instance().runningTaskCount(), 0u);
}

TEST(ImageReaderTasks, RegisteredIdIsRefusedUntilCancelled) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  ImageReader& reader = ImageReader::instance();
  auto flag = std::make_shared<bool>(false);
  const ImageResult first = reader.open(dng, ImageReader::kNoResizeSize, kOpenDefault, flag, "", 7);
  ASSERT_EQ(first.errorCode, kImageReaderOk);
  // The raw load runs on; its id stays taken. A missing path proves nothing was decoded: it
  // would give code 4.
  const ImageResult refused = reader.open("/nonexistent/x.jpg", {-1, -1}, kOpenDefault, {}, "", 7);
  EXPECT_EQ(refused.errorCode, kImageReaderCancelled);
  EXPECT_FALSE(refused.image);

  reader.cancel(-1);
  EXPECT_FALSE(*flag);
  reader.cancel(7);
  EXPECT_TRUE(*flag);
  EXPECT_EQ(reader.open("/nonexistent/x.jpg", {-1, -1}, kOpenDefault, {}, "", 7).errorCode,
            kImageReaderFailed);
  EXPECT_TRUE(test::finishesWithin(60, [] { ImageReader::waitForAllTasks(); }));
  EXPECT_EQ(reader.runningTaskCount(), 0u);
}

TEST(ImageReaderTasks, MinusOneNeverCollidesAcrossThreads) {
  VORN_REQUIRE_SAMPLE(nef, "nikon_coolscan4_imageio.nef");
  std::vector<std::thread> threads;
  std::vector<ImageResult> results(6);
  for (std::size_t i = 0; i < results.size(); ++i)
    threads.emplace_back([&, i] {
      results[i] = ImageReader::instance().open(nef, ImageReader::kNoResizeSize);
      if (results[i].image) results[i].image->waitForFullRaw();
    });
  for (auto& t : threads) t.join();
  for (const ImageResult& result : results) {
    EXPECT_EQ(result.errorCode, kImageReaderOk);
    ASSERT_TRUE(result.image);
    EXPECT_EQ(result.image->status(), FULL_LOADED);
    EXPECT_EQ(result.image->size(), _Size<int>(869, 593));
  }
  ImageReader::waitForAllTasks();
  EXPECT_EQ(ImageReader::instance().runningTaskCount(), 0u);
}

TEST(ImageReaderLoader, EnabledRuleAndInProcessFallback) {
  EXPECT_FALSE(ImageReader::isOutOfProcessLoaderRequested());  // no context yet
  test::DataStoreGuard loaderSetting("IPC.Loader.enable_win");
  TempDir dir;
  SVornContext context(dir.str(), dir.str());
  // Torn down however the test ends, so no later test runs with this context.
  struct TearDown {
    ~TearDown() { vornTearDown(); }
  } tearDown;
  ASSERT_EQ(vornInit(context), kInitOk);
  EXPECT_TRUE(ImageReader::isOutOfProcessLoaderRequested());
  EXPECT_TRUE(ImageReader::isOutOfProcessLoaderEnabled());
  DataStore::instance().set("IPC.Loader.enable_win", false);
  EXPECT_FALSE(ImageReader::isOutOfProcessLoaderRequested());
  DataStore::instance().set("IPC.Loader.enable_win", true);
  context.mode = SVornContext::kModeNoOutOfProcess;
  ASSERT_EQ(vornInit(context), kInitOk);
  DataStore::instance().set("IPC.Loader.enable_win", true);
  EXPECT_FALSE(ImageReader::isOutOfProcessLoaderRequested());
  context.mode = 0;
  context.forbidOutOfProcessLoader = true;
  ASSERT_EQ(vornInit(context), kInitOk);
  EXPECT_FALSE(ImageReader::isOutOfProcessLoaderRequested());

  const std::string nef = test::rawSample("nikon_coolscan4_imageio.nef");
  if (nef.empty()) return;
  const ImageResult forced =
      ImageReader::instance().open(nef, ImageReader::kNoResizeSize, kOpenInProcess);
  ASSERT_EQ(forced.errorCode, kImageReaderOk);
  ASSERT_TRUE(forced.image);
  EXPECT_TRUE(dynamic_cast<ImageSourceRaw*>(forced.image->source().get()));
}

TEST(ImageReaderOpen, RequestedSizeOnRawAndHostileFiles) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  test::LogCapture log;
  const ImageResult sized =
      ImageReader::instance().open_sync(dng, {-1, 600}, kOpenDefault, nullptr, "");
  ASSERT_EQ(sized.errorCode, kImageReaderOk);
  ASSERT_TRUE(sized.image);
  EXPECT_EQ(sized.image->size(), _Size<int>(600 * 4128 / 2176, 600));
  // The 2064 x 1088 quarter frame covers the size: the result says it was made from it.
  EXPECT_EQ(sized.image->status(), QUARTER_LOADED);
  EXPECT_FALSE(dynamic_cast<ImageSourceRawBase*>(sized.image->source().get()));
  // A size the quarter frame does not cover waits for the full one, and says so. (This scan's
  // quarter decode is already 869 x 593: only a larger size needs the full frame.)
  if (const std::string nef = test::rawSample("nikon_coolscan4_imageio.nef"); !nef.empty()) {
    const ImageResult large =
        ImageReader::instance().open_sync(nef, {1000, -1}, kOpenDefault, nullptr, "");
    ASSERT_TRUE(ImageReader::isImageResultValid(large));
    EXPECT_EQ(large.image->size(), _Size<int>(1000, 593 * 1000 / 869));
    EXPECT_EQ(large.image->status(), FULL_LOADED);
  }

  // A truncated file fails in its loaders; a sized open waits for them and returns their code.
  const ImageResult truncated = ImageReader::instance().open_sync(
      test::testData("truncated_iphone12promax_exiv2.dng"), {-1, 100}, kOpenDefault, nullptr, "");
  EXPECT_EQ(truncated.errorCode, kImageReaderCorrupt);
  EXPECT_FALSE(truncated.image);
  EXPECT_EQ(log.countContaining("RawImage error: unpack '" +
                                test::testData("truncated_iphone12promax_exiv2.dng")),
            1u);
}

TEST(ImageReaderOpen, InMemoryRawAndGarbage) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  std::ifstream file(dng, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const ImageResult fromMemory = ImageReader::open(bytes.data(), bytes.size());
  ASSERT_EQ(fromMemory.errorCode, kImageReaderOk);
  ASSERT_TRUE(fromMemory.image);
  EXPECT_TRUE(dynamic_cast<ImageSourceRaw*>(fromMemory.image->source().get()));
  EXPECT_EQ(fromMemory.image->size(), _Size<int>(4128, 2176));

  std::vector<char> garbage(4096, 'x');
  const ImageResult bad = ImageReader::open(garbage.data(), garbage.size());
  EXPECT_NE(bad.errorCode, kImageReaderOk);
  EXPECT_FALSE(bad.image);
  EXPECT_EQ(ImageReader::open(nullptr, 10).errorCode, kImageReaderFailed);
}

TEST(ImageReaderInfo, RawSizeAndDepth) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  EXPECT_EQ(ImageReader::getImageSize(dng), _Size<int>(4128, 2176));
  EXPECT_EQ(ImageReader::getColorDepth(dng), 16);
  EXPECT_EQ(ImageReader::getPreciseColorDepth(dng), 12);
  // Orientation 6 swaps the sides even though the file's data is cut short.
  EXPECT_EQ(ImageReader::getImageSize(test::testData("truncated_iphone12promax_exiv2.dng")),
            _Size<int>(3024, 4032));
  EXPECT_EQ(ImageReader::getImageSize(test::testData("pruned_canon_r6_exiv2.cr3")), _Size<int>());
}

}  // namespace
}  // namespace vorn
