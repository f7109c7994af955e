#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <fstream>
#include <thread>

#include "io/ipc/loader_process.h"
#include "io/ipc_test_support.h"
#include "io/raw/raw_decoder.h"
#include "io/raw_test_support.h"
#include "support/log_capture.h"
#include "support/scoped_setting.h"
#include "support/temp_dir.h"
#include "vorn/core/library.h"
#include "vorn/io/image_file_class.h"

namespace vorn {
namespace {

constexpr const char* kSmallRaw = "nikon_coolscan4_imageio.nef";

ImageResult openThroughChild(const std::string& path, std::shared_ptr<bool> cancel = {}) {
  return ImageReader::instance().open_ipc_async(path, ImageReader::kNoResizeSize, kOpenDefault, {},
                                                -1, std::move(cancel));
}

// The code a load through the child ends with, after waiting for all of it.
int finalCode(const ImageResult& result) {
  if (result.errorCode != kImageReaderOk) return result.errorCode;
  ImageSourceRawIPC* source = test::ipcSource(result);
  if (!source) return -1;
  result.image->waitForFullRaw();
  return source->errorCode();
}

void expectWorkingLoad(const std::string& path) {
  const ImageResult result = openThroughChild(path);
  EXPECT_EQ(finalCode(result), kImageReaderOk) << path;
  ASSERT_TRUE(result.image);
  EXPECT_EQ(result.image->status(), FULL_LOADED);
}

// The truncated DNG decodes when the policy lets damage through; its quarter frame is a real
// half-size decode, so both frames are compared.
TEST(IpcLoader, FramesEqualTheInProcessDecodeBitForBit) {
  const std::string dng = test::testData("truncated_iphone12promax_exiv2.dng");
  test::LoaderSettings settings;
  DataStore::instance().set(kFailOnSetting, "none");
  test::LogCapture log;
  const ImageResult local = ImageReader::readRaw(dng, kOpenInProcess, nullptr, "");
  ASSERT_TRUE(local.image);
  const ImageResult child = openThroughChild(dng);
  ASSERT_EQ(child.errorCode, kImageReaderOk);
  ASSERT_TRUE(test::ipcSource(child));
  std::atomic<int> told{0};
  child.image->setUpdateCallback([&told] { ++told; });
  EXPECT_EQ(child.image->size(), local.image->size());
  EXPECT_EQ(child.image->metadata()->print(), local.image->metadata()->print());
  EXPECT_EQ(child.image->metadata()->cameraColor, local.image->metadata()->cameraColor);

  // The in-process source may be past its quarter frame by now: a half-size decode stands in.
  FrameRequest half;
  half.cover = {1, 1};
  half.failOn = FailOn::None;
  const OwnedFrame quarter = ImageReader::decodeFrame(classifyImageFile(dng), half);
  ASSERT_TRUE(quarter.frame);
  test::ipcSource(child)->waitForQuarterFrame();
  EXPECT_EQ(child.image->status(), QUARTER_LOADED);
  const ConstImageFrame childQuarter = child.image->source()->getImageData();
  ASSERT_TRUE(childQuarter);
  quarter.frame->setLoadState(QUARTER_LOADED);
  EXPECT_TRUE(test::sameFrames(childQuarter, quarter.frame));
  local.image->waitForFullRaw();
  child.image->waitForFullRaw();
  EXPECT_EQ(test::ipcSource(child)->errorCode(), kImageReaderOk);
  EXPECT_TRUE(test::sameFrames(child.image->source()->getImageData(),
                               local.image->source()->getImageData()));
  EXPECT_EQ(child.image->size(), local.image->size()) << "the full frame's known size";
  EXPECT_GE(told.load(), 1);
  EXPECT_EQ(log.countContaining("[metrics] FULL LOAD_TIME IPC: "), 1u);
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

TEST(IpcLoader, WarmChildServesTheNextLoadAndRefusalsKeepIt) {
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  test::LoaderSettings settings;
  test::LogCapture log;
  expectWorkingLoad(nef);
  const pid_t warm = ipc::LoaderPool::instance().idlePid();
  ASSERT_GT(warm, 0);
  test::TempDir dir;
  const std::string garbage = dir.str() + "/garbage.nef";
  std::ofstream(garbage) << std::string(10000, 'g');
  const ImageResult refused = openThroughChild(garbage);
  EXPECT_EQ(refused.errorCode, kImageReaderFailed);
  EXPECT_FALSE(refused.image);
  EXPECT_EQ(log.countContaining("'" + garbage + "'"), 1u);
  expectWorkingLoad(nef);
  EXPECT_EQ(ipc::LoaderPool::instance().idlePid(), warm);
}

// Each hostile raw ends as it does in process, the child survives or is replaced, and the
// next load works.
TEST(IpcLoader, HostileRawsEndAsInProcessAndTheNextLoadWorks) {
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  test::LoaderSettings settings;
  for (const char* name :
       {"libraw_segv_64b.dng", "libraw_segv_cfa_tiled.dng", "dng_bad_tile_black_frame.dng",
        "dng_mutant_black_frame.dng", "dng_4kb_declares_12mp.dng"}) {
    const std::string path = test::sharedSample("hostile", name);
    if (path.empty()) continue;
    test::LogCapture log;
    const ImageResult local = ImageReader::readRaw(path, kOpenInProcess, nullptr, "");
    const int localCode =
        local.image ? (local.image->waitForFullRaw(),
                       dynamic_cast<ImageSourceRawBase*>(local.image->source().get())->errorCode())
                    : local.errorCode;
    const ImageResult child = openThroughChild(path);
    EXPECT_EQ(finalCode(child), localCode) << name;
    EXPECT_NE(localCode, kImageReaderOk) << name;
    EXPECT_GE(log.countContaining("RawImage IPC error: '" + path + "'"), 1u) << name;
    expectWorkingLoad(nef);
  }
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

// The test hook kills the child at each stage, hangs it, or has it send garbage.
TEST(IpcLoader, ChildFaultsEndTheLoadWithCode4AndLeaveNothing) {
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  test::LoaderSettings settings;
  DataStore::instance().set("IPC.Loader.timeout_ms", 1500);
  for (const char* stage :
       {"identify", "before_quarter", "between_frames", "during_full", "garbage", "hang"}) {
    test::LogCapture log;
    DataStore::instance().set("IPC.Loader.test_fault", stage);
    ImageResult result;
    int code = -1;
    EXPECT_TRUE(test::finishesWithin(20, [&] {
      result = openThroughChild(nef);
      code = finalCode(result);
    })) << stage;
    EXPECT_EQ(code, kImageReaderFailed) << stage;
    EXPECT_EQ(log.countContaining("RawImage IPC error: '" + nef + "'"), 1u) << stage;
    DataStore::instance().set("IPC.Loader.test_fault", "");
    expectWorkingLoad(nef);
    EXPECT_TRUE(test::leftoverIpcNames().empty()) << stage;
  }
}

// The limits are set by the child itself. Wherever the decode meets the address-space limit
// (the decoder's buffers, the frame pool, the memory check), the load ends as a fault, code 4,
// and a CPU runaway (below) ends the same way; each time the next load gets a working child.
TEST(IpcLoader, ChildPastItsMemoryFailsTheLoadWithCode4) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers' shadow memory rules out an address-space limit";
#endif
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  const std::string dng = test::testData("truncated_iphone12promax_exiv2.dng");
  test::LoaderSettings settings;
  test::DataStoreGuard memory("IPC.Loader.memory_mb");
  DataStore::instance().set(kFailOnSetting, "none");
  for (const int megabytes : {300, 500, 650}) {
    ipc::LoaderPool::instance().clear();
    DataStore::instance().set("IPC.Loader.memory_mb", megabytes);
    test::LogCapture log;
    EXPECT_EQ(finalCode(openThroughChild(dng)), kImageReaderFailed) << megabytes;
    EXPECT_EQ(log.countContaining("ran out of memory under its limit"), 1u) << megabytes;
    expectWorkingLoad(nef);
  }
  DataStore::instance().set("IPC.Loader.memory_mb", "");
  ipc::LoaderPool::instance().clear();
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

TEST(IpcLoader, ChildPastItsCpuTimeFailsTheLoadWithCode4) {
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  test::LoaderSettings settings;
  test::DataStoreGuard cpu("IPC.Loader.cpu_seconds");
  DataStore::instance().set("IPC.Loader.cpu_seconds", 1);
  DataStore::instance().set("IPC.Loader.test_fault", "spin");
  test::LogCapture log;
  int code = -1;
  EXPECT_TRUE(test::finishesWithin(30, [&] { code = finalCode(openThroughChild(nef)); }));
  EXPECT_EQ(code, kImageReaderFailed);
  EXPECT_EQ(log.countContaining("ran past its CPU time limit"), 1u);
  DataStore::instance().set("IPC.Loader.test_fault", "");
  expectWorkingLoad(nef);
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

TEST(IpcLoader, CancelWakesWaitersAndReachesTheChild) {
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  test::LoaderSettings settings;
  DataStore::instance().set("IPC.Loader.timeout_ms", 1500);
  // A hung child cannot finish first: the cancel alone must end the waits.
  DataStore::instance().set("IPC.Loader.test_fault", "hang");
  auto cancel = std::make_shared<bool>(false);
  const ImageResult result = openThroughChild(nef, cancel);
  ASSERT_TRUE(test::ipcSource(result));
  raw::requestCancel(cancel);
  EXPECT_TRUE(test::finishesWithin(1.0, [image = result.image] { image->waitForFullRaw(); }));
  EXPECT_EQ(test::ipcSource(result)->errorCode(), kImageReaderCancelled);
  DataStore::instance().set("IPC.Loader.test_fault", "");
  // A child that answers the cancel is kept for the next load.
  expectWorkingLoad(nef);
  const ImageResult second = openThroughChild(nef);
  ASSERT_TRUE(test::ipcSource(second));
  test::ipcSource(second)->cancelLoading();
  second.image->waitForFullRaw();
  EXPECT_NE(test::ipcSource(second)->errorCode(), kImageReaderFailed);
  expectWorkingLoad(nef);
}

// With a context that allows it, open() sends raw files to the child unless flag 97 says
// otherwise, and cancel(taskId) reaches a load there.
TEST(IpcLoader, OpenRoutesRawFilesAndCancelReachesTheChild) {
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  test::LoaderSettings settings;
  test::DataStoreGuard enable("IPC.Loader.enable_win");
  test::TempDir dir;
  const SVornContext context(dir.str(), dir.str());
  struct TearDown {
    ~TearDown() { vornTearDown(); }
  } tearDown;
  ASSERT_EQ(vornInit(context), kInitOk);
  ASSERT_TRUE(ImageReader::isOutOfProcessLoaderEnabled());
  const ImageResult inProcess =
      ImageReader::instance().open(nef, ImageReader::kNoResizeSize, kOpenInProcess);
  ASSERT_TRUE(inProcess.image);
  EXPECT_FALSE(test::ipcSource(inProcess));
  const ImageResult routed = ImageReader::instance().open(nef, ImageReader::kNoResizeSize);
  ASSERT_TRUE(test::ipcSource(routed));
  routed.image->waitForFullRaw();
  inProcess.image->waitForFullRaw();
  EXPECT_TRUE(test::sameFrames(routed.image->source()->getImageData(),
                               inProcess.image->source()->getImageData()));
  const ImageResult resized = ImageReader::instance().open(nef, {100, -1});
  ASSERT_TRUE(resized.image);
  EXPECT_EQ(resized.image->width(), 100);

  DataStore::instance().set("IPC.Loader.timeout_ms", 1500);
  DataStore::instance().set("IPC.Loader.test_fault", "hang");
  const ImageResult hung =
      ImageReader::instance().open(nef, ImageReader::kNoResizeSize, kOpenDefault, nullptr, "", 7);
  ASSERT_TRUE(test::ipcSource(hung));
  ImageReader::instance().cancel(7);
  EXPECT_TRUE(test::finishesWithin(1.0, [image = hung.image] { image->waitForFullRaw(); }));
  EXPECT_EQ(test::ipcSource(hung)->errorCode(), kImageReaderCancelled);
  ImageReader::waitForAllTasks();
  EXPECT_TRUE(test::leftoverIpcNames().empty());
  DataStore::instance().set("IPC.Loader.enable_win", false);
  EXPECT_FALSE(test::ipcSource(ImageReader::instance().open(nef, ImageReader::kNoResizeSize)));
}

// A single decode stopped while the child hangs returns code 5 at once; the child is ended
// rather than awaited, and the next decode gets a fresh one.
TEST(IpcLoader, StoppedSingleDecodeEndsTheChildAndTheNextWorks) {
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  test::LoaderSettings settings;
  ipc::LoaderPool::instance().clear();
  DataStore::instance().set("IPC.Loader.test_fault", "hang");
  FrameRequest request;
  request.outOfProcess = true;
  request.cancel = std::make_shared<bool>(false);
  std::thread stopper([cancel = request.cancel] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    raw::requestCancel(cancel);
  });
  OwnedFrame stopped;
  EXPECT_TRUE(test::finishesWithin(
      10, [&] { stopped = ImageReader::decodeFrame(classifyImageFile(nef), request); }));
  stopper.join();
  EXPECT_EQ(stopped.errorCode, kImageReaderCancelled);
  EXPECT_FALSE(stopped.frame);
  EXPECT_EQ(ipc::LoaderPool::instance().idlePid(), -1);
  DataStore::instance().set("IPC.Loader.test_fault", "");
  request.cancel.reset();
  EXPECT_EQ(ImageReader::decodeFrame(classifyImageFile(nef), request).errorCode, kImageReaderOk);
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

TEST(IpcLoaderConcurrent, SeveralThreadsLoadAtOnce) {
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  test::LoaderSettings settings;
  const ImageResult reference = ImageReader::readRaw(nef, kOpenInProcess, nullptr, "");
  ASSERT_TRUE(reference.image);
  reference.image->waitForFullRaw();
  const ConstImageFrame expected = reference.image->source()->getImageData();
  std::atomic<int> equal{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 2; ++i) {
        const ImageResult result = openThroughChild(nef);
        if (finalCode(result) == kImageReaderOk &&
            test::sameFrames(result.image->source()->getImageData(), expected))
          ++equal;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(equal.load(), 6);
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

// Two workers decoding side by side, as `vorn batch -j 2` does, each keep a warm child: a
// second round starts no process, and every frame equals the in-process decode.
TEST(IpcLoaderConcurrent, ParallelWorkersKeepOneWarmChildEach) {
  VORN_REQUIRE_SAMPLE(nef, kSmallRaw);
  test::LoaderSettings settings;
  ipc::LoaderPool::instance().clear();
  const ImageFileClass file = classifyImageFile(nef);
  const OwnedFrame expected = ImageReader::decodeFrame(file);
  ASSERT_TRUE(expected.frame);
  std::atomic<int> equal{0};
  const auto round = [&] {
    std::barrier together(2);
    std::vector<std::thread> workers;
    for (int t = 0; t < 2; ++t)
      workers.emplace_back([&] {
        for (int i = 0; i < 3; ++i) {
          together.arrive_and_wait();
          FrameRequest request;
          request.outOfProcess = true;
          const OwnedFrame decoded = ImageReader::decodeFrame(file, request);
          if (decoded.errorCode == kImageReaderOk &&
              test::sameFrames(decoded.frame, expected.frame))
            ++equal;
        }
      });
    for (std::thread& worker : workers) worker.join();
    std::vector<pid_t> pids = ipc::LoaderPool::instance().idlePids();
    std::sort(pids.begin(), pids.end());
    return pids;
  };
  const std::vector<pid_t> first = round();
  EXPECT_EQ(first.size(), 2u);
  EXPECT_EQ(round(), first);
  EXPECT_EQ(equal.load(), 12);
  ipc::LoaderPool::instance().clear();
}

}  // namespace
}  // namespace vorn
