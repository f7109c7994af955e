#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "io/raw_test_support.h"
#include "support/data_store_guard.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "vorn/core/data_store.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/image_source_raw.h"

namespace vorn {
namespace {

using test::TempDir;

TEST(RawSourceSize, PixelAspectOrientationAndKnownSizes) {
  RawFrameGeometry g;
  g.decoderSize = _Size<int>(4000, 3000);
  EXPECT_EQ(reportedRawSize(g), _Size<int>(4000, 3000));
  g.pixelAspect = 0.5;
  EXPECT_EQ(reportedRawSize(g), _Size<int>(4000, 6000));
  g.pixelAspect = 2.0;
  EXPECT_EQ(reportedRawSize(g), _Size<int>(8000, 3000));
  g.pixelAspect = 1.0;
  for (int orientation : {5, 6, 7, 8}) {
    g.orientation = orientation;
    EXPECT_EQ(reportedRawSize(g), _Size<int>(3000, 4000)) << orientation;
  }
  g.orientation = 3;
  EXPECT_EQ(reportedRawSize(g), _Size<int>(4000, 3000));
  // Rounding of the stretched side: 3001 / 0.75 = 4001.33.
  g.pixelAspect = 0.75;
  g.decoderSize = _Size<int>(10, 3001);
  EXPECT_EQ(reportedRawSize(g), _Size<int>(10, 4001));

  // A recorded crop stands as it is while no size is known; a known size wins over both.
  g = RawFrameGeometry{};
  g.decoderSize = _Size<int>(4000, 3000);
  g.crop = _Rect<int>(10, 10, 1000, 500);
  g.pixelAspect = 2.0;
  g.orientation = 6;
  EXPECT_EQ(reportedRawSize(g), _Size<int>(1000, 500));
  g.knownSize = _Size<int>(2000, 1000);
  EXPECT_EQ(reportedRawSize(g), _Size<int>(1000, 4000));
}

struct Notes {
  std::mutex mutex;
  std::vector<ImageLoadState> states;
};

TEST(RawSourceLoad, QuarterFirstThenFullWithListeners) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  test::LogCapture log;
  // The load time is checked below, so the key starts absent and is put back afterwards.
  test::DataStoreGuard loadTime("Profile.Load.RawLoadTime");
  DataStore::instance().remove("Profile.Load.RawLoadTime");
  const ImageResult result = ImageReader::readRaw(dng, kOpenDefault, nullptr, "");
  ASSERT_EQ(result.errorCode, kImageReaderOk);
  ASSERT_TRUE(result.image);
  auto notes = std::make_shared<Notes>();
  auto* source = dynamic_cast<ImageSourceRaw*>(result.image->source().get());
  ASSERT_TRUE(source);
  for (int i = 0; i < 2; ++i)
    result.image->setUpdateCallback([notes, source] {
      std::lock_guard lock(notes->mutex);
      notes->states.push_back(source->status());
    });
  EXPECT_EQ(result.image->size(), _Size<int>(4128, 2176));
  ASSERT_TRUE(result.image->metadata());
  EXPECT_EQ(result.image->metadata()->cameraName, "Blackmagic");
  EXPECT_EQ(result.image->metadata()->sizeRawMatrix, std::make_pair(4128, 2176));
  EXPECT_EQ(result.image->metadata()->shutterSpeed, 0.0f);  // the file's negative value
  // The DNG's colour calibration reaches the metadata: a colour matrix and as-shot multipliers.
  const ImageMetadata::CameraColor& color = result.image->metadata()->cameraColor;
  const std::array<float, 9> absent{};
  EXPECT_NE(color.colorMatrix1, absent);
  EXPECT_GT(color.illuminant1, 0);
  EXPECT_EQ(color.asShotMultipliers[1], 1.0f);
  EXPECT_GT(color.asShotMultipliers[0], 0.0f);
  EXPECT_GT(color.asShotMultipliers[2], 0.0f);

  source->waitForQuarterFrame();
  const ConstImageFrame first = source->getImageData();
  ASSERT_TRUE(first);
  if (first->getLoadState() == QUARTER_LOADED) {
    EXPECT_EQ(first->size(), _Size<int>(2064, 1088));
    // Regions are asked in full-frame coordinates whatever frame is loaded.
    const auto region =
        result.image->imageData(_Size<int>(100, 50), _Rect<int>(2064, 1088, 2064, 1088), false);
    ASSERT_TRUE(region);
    EXPECT_EQ(region->size(), _Size<int>(100, 50));
  }

  result.image->waitForFullRaw();
  const ConstImageFrame full = result.image->workingImage();
  ASSERT_TRUE(full);
  EXPECT_EQ(full->getLoadState(), FULL_LOADED);
  EXPECT_EQ(full->size(), result.image->size());
  EXPECT_EQ(full->colorProfile, ColorProfileType::melissaRGB());
  EXPECT_EQ(source->errorCode(), kImageReaderOk);
  double sum = 0;
  for (int y = 0; y < full->height; y += 7)
    for (int x = 0; x < full->width; x += 7) {
      const PixelRGB<float>& p = full->at(x, y);
      ASSERT_TRUE(p.r >= 0.0f && p.r <= 1.0f && p.g >= 0.0f && p.g <= 1.0f && p.b >= 0.0f &&
                  p.b <= 1.0f);
      sum += p.g;
    }
  EXPECT_GT(sum, 0.0);

  // Waiters wake before the listeners are told, so give the loader thread time to tell them.
  const auto heard = [&] {
    std::lock_guard lock(notes->mutex);
    return notes->states.size();
  };
  for (int i = 0; i < 1000 && heard() < 4; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::lock_guard lock(notes->mutex);
  ASSERT_EQ(notes->states.size(), 4u) << "each of two listeners hears the quarter and the full";
  EXPECT_EQ(notes->states[0], QUARTER_LOADED);
  EXPECT_EQ(notes->states[3], FULL_LOADED);
  EXPECT_EQ(log.countContaining("[metrics] FULL LOAD_TIME: "), 1u);
  EXPECT_GT(DataStore::instance().getFloat("Profile.Load.RawLoadTime", 0.0f), 0.0f);

  // The background frame equals the one decoded in a single thread.
  const auto [code, synced, metadata] = dngImageRead(dng);
  ASSERT_EQ(code, kImageReaderOk);
  ASSERT_TRUE(synced);
  ASSERT_EQ(synced->size(), full->size());
  EXPECT_EQ(std::memcmp(synced->data, full->data, full->sizeInBytes()), 0);
  ASSERT_TRUE(metadata);
  EXPECT_EQ(metadata->cameraModel, "Pocket Cinema Camera 4K");
}

TEST(RawSourceLoad, ScannerNefHasNoMosaicAndLoads) {
  VORN_REQUIRE_SAMPLE(nef, "nikon_coolscan4_imageio.nef");
  const ImageResult result = ImageReader::readRaw(nef, kOpenDefault, nullptr, "");
  ASSERT_EQ(result.errorCode, kImageReaderOk);
  ASSERT_TRUE(result.image);
  result.image->waitForFullRaw();
  const ConstImageFrame frame = result.image->workingImage();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->size(), _Size<int>(869, 593));
  EXPECT_GT(frame->at(400, 300).g, 0.8f);  // an almost white scan
}

TEST(RawSourceLoad, ThrowingListenerIsLoggedAndTheOthersStillHear) {
  // The slow sample, so that the listeners are in place long before its first frame.
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  test::LogCapture log;
  const ImageResult result = ImageReader::readRaw(dng, kOpenDefault, nullptr, "");
  ASSERT_EQ(result.errorCode, kImageReaderOk);
  ASSERT_TRUE(result.image);
  auto heard = std::make_shared<std::atomic<int>>(0);
  result.image->setUpdateCallback([] { throw std::runtime_error("listener broke"); });
  result.image->setUpdateCallback([heard] { ++*heard; });
  // Each round of telling logs the throw, then reaches the second listener: the loader thread
  // survives the throw and nobody after the thrower misses a frame.
  const auto settled = [&] {
    const std::size_t told = static_cast<std::size_t>(heard->load());
    return told >= 1 &&
           log.countEndingWith("ImageSourceRaw proceed exception: listener broke") == told;
  };
  for (int i = 0; i < 3000 && !settled(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(settled());
  EXPECT_NE(result.image->status(), LOAD_ERROR);
}

TEST(RawSourceCancel, WaitersWakeOnCancellation) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  test::LogCapture log;
  {
    const ImageResult result = ImageReader::readRaw(dng, kOpenDefault, nullptr, "");
    ASSERT_EQ(result.errorCode, kImageReaderOk);
    ASSERT_TRUE(result.image);
    auto* source = dynamic_cast<ImageSourceRaw*>(result.image->source().get());
    ASSERT_TRUE(source);
    source->cancelLoading();
    EXPECT_TRUE(test::finishesWithin(30, [image = result.image] { image->waitForFullRaw(); }));
    EXPECT_EQ(source->errorCode(), kImageReaderCancelled);
    EXPECT_FALSE(source->getImageData());
    EXPECT_EQ(source->status(), LOAD_ERROR);
  }
  // Through the reader's registry: the host's flag stops both loaders at their next stage.
  const ImageResult viaReader =
      ImageReader::instance().open(dng, ImageReader::kNoResizeSize, kOpenDefault, nullptr, "", 42);
  ASSERT_EQ(viaReader.errorCode, kImageReaderOk);
  ASSERT_TRUE(viaReader.image);
  ImageReader::instance().cancel(42);
  EXPECT_TRUE(test::finishesWithin(30, [image = viaReader.image] { image->waitForFullRaw(); }));
  EXPECT_TRUE(test::finishesWithin(30, [] { ImageReader::waitForAllTasks(); }));
  auto* source = dynamic_cast<ImageSourceRaw*>(viaReader.image->source().get());
  ASSERT_TRUE(source);
  EXPECT_EQ(source->errorCode(), kImageReaderCancelled);
  EXPECT_EQ(log.countContaining("RawImage loading cancelled"), 1u);
  EXPECT_EQ(log.countContaining("Fast raw opening canceled."), 1u);
}

TEST(RawSourceCancel, DestroyedWhileLoadingDoesNotHang) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  EXPECT_TRUE(test::finishesWithin(30, [dng] {
    for (int i = 0; i < 3; ++i) ImageReader::readRaw(dng, kOpenDefault, nullptr, "");
  }));
}

// Every hostile file ends with a code and exactly one log line naming the file and the stage.
TEST(RawSourceHostile, BadFilesFailCleanly) {
  TempDir dir;
  const std::string empty = dir.str() + "/empty.dng";
  std::ofstream(empty).close();
  const std::string garbage = dir.str() + "/garbage.nef";
  std::ofstream(garbage) << std::string(10000, 'g');
  const std::string tiny = dir.str() + "/tiny.cr2";
  test::writeTinyTiff(tiny, "");

  struct Case {
    std::string path;
    const char* stage;
  };
  std::vector<Case> cases = {{empty, "read '"},
                             {garbage, "identify '"},
                             {tiny, "identify '"},
                             {test::testData("pruned_canon_r6_exiv2.cr3"), "identify '"}};
  if (const std::string gpr = test::rawSample("gopro_hero6_GOPR0024.gpr"); !gpr.empty())
    cases.push_back({gpr, "identify '"});
  for (const Case& c : cases) {
    test::LogCapture log;
    const ImageResult result = ImageReader::readRaw(c.path, kOpenDefault, nullptr, "");
    EXPECT_NE(result.errorCode, kImageReaderOk) << c.path;
    EXPECT_FALSE(result.image) << c.path;
    EXPECT_EQ(log.countContaining(std::string(c.stage) + c.path), 1u) << c.path;
  }
  test::LogCapture log;
  EXPECT_EQ(ImageReader::readRaw(empty, kOpenDefault, nullptr, "").errorCode, kImageReaderFailed);
  EXPECT_EQ(log.countContaining("DNG is not raw"), 0u);
}

TEST(RawSourceHostile, TruncatedDngIsReportedCorruptOnce) {
  test::LogCapture log;
  const std::string path = test::testData("truncated_iphone12promax_exiv2.dng");
  const ImageResult result = ImageReader::readRaw(path, kOpenDefault, nullptr, "");
  ASSERT_EQ(result.errorCode, kImageReaderOk);  // its structure is sound; its data is not
  ASSERT_TRUE(result.image);
  EXPECT_EQ(result.image->size(), _Size<int>(3024, 4032));
  EXPECT_TRUE(test::finishesWithin(60, [image = result.image] { image->waitForFullRaw(); }));
  auto* source = dynamic_cast<ImageSourceRawBase*>(result.image->source().get());
  ASSERT_TRUE(source);
  EXPECT_EQ(source->errorCode(), kImageReaderCorrupt);
  EXPECT_EQ(result.image->status(), LOAD_ERROR);
  EXPECT_EQ(log.countContaining("unpack '" + path + "': "), 1u);
}

TEST(RawSourceHostile, PixelLimitRefusesBeforeUnpacking) {
  VORN_REQUIRE_SAMPLE(nef, "nikon_coolscan4_imageio.nef");
  test::LogCapture log;
  test::DataStoreGuard maxPixels("ImageReader.MaxPixels");
  DataStore::instance().set("ImageReader.MaxPixels", 869 * 593 - 1);
  const ImageResult refused = ImageReader::readRaw(nef, kOpenDefault, nullptr, "");
  EXPECT_EQ(refused.errorCode, kImageReaderTooLarge);
  EXPECT_FALSE(refused.image);
  EXPECT_EQ(log.countContaining("more than the limit of 515316"), 1u);
  DataStore::instance().set("ImageReader.MaxPixels", 869 * 593);
  EXPECT_EQ(ImageReader::readRaw(nef, kOpenDefault, nullptr, "").errorCode, kImageReaderOk);
  DataStore::instance().set("ImageReader.MaxPixels", "");  // back to the default cap
}

TEST(RawSourceHostile, CancelledBeforeStartDecodesNothing) {
  test::LogCapture log;
  auto cancel = std::make_shared<bool>(true);
  const ImageResult result = ImageReader::readRaw(
      test::testData("truncated_iphone12promax_exiv2.dng"), kOpenDefault, cancel, "");
  EXPECT_EQ(result.errorCode, kImageReaderCancelled);
  EXPECT_FALSE(result.image);
  EXPECT_EQ(log.countContaining("RawImage loading cancelled"), 1u);
}

}  // namespace
}  // namespace vorn
