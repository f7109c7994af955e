#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>

#include "io/ipc/loader_process.h"
#include "io/ipc_test_support.h"
#include "io/raw_test_support.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "vorn/io/image_file_class.h"

namespace vorn {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A real raw file with bits flipped: most in the first 4 KiB, where the directories that steer
// the decoder sit, a few anywhere (the image data).
std::string mutated(const std::string& original, std::mt19937& random) {
  std::string bytes = original;
  const std::size_t head = std::min<std::size_t>(bytes.size(), 4096);
  std::uniform_int_distribution<std::size_t> inHead(0, head - 1), anywhere(0, bytes.size() - 1);
  std::uniform_int_distribution<int> bit(0, 7);
  for (int flip = 0; flip < 64; ++flip) {
    const std::size_t at = flip % 4 == 0 ? anywhere(random) : inHead(random);
    bytes[at] = static_cast<char>(bytes[at] ^ (1 << bit(random)));
  }
  return bytes;
}

// Mutated raws go through the child both ways the library sends them (a single decode and a
// progressive load): each ends with some code in time, nothing is left behind, and a good file
// decodes after them. A test rather than a mode of the raw fuzz target, whose build decodes in
// process: here the child and its fault handling are what is exercised.
TEST(IpcLoader, MutatedRawsThroughTheChildEndAndTheNextLoadWorks) {
  VORN_REQUIRE_SAMPLE(nef, "nikon_coolscan4_imageio.nef");
  test::LoaderSettings settings;
  DataStore::instance().set("IPC.Loader.timeout_ms", 20'000);
  test::TempDir dir("ipc_fuzz");
  const std::string original = readFile(nef);
  ASSERT_GT(original.size(), 4096u);
  std::mt19937 random(15);
  test::LogCapture log;
  int refused = 0;
  for (int n = 0; n < 10; ++n) {
    const std::string path = (dir.path() / ("mutant_" + std::to_string(n) + ".nef")).string();
    std::ofstream(path, std::ios::binary) << mutated(original, random);
    int code = -1;
    EXPECT_TRUE(test::finishesWithin(60, [&] {
      if (n % 2 == 0) {
        FrameRequest request;
        request.outOfProcess = true;
        const OwnedFrame decoded = ImageReader::decodeFrame(classifyImageFile(path), request);
        code = decoded.errorCode;
        if (code == kImageReaderOk && (!decoded.frame || decoded.frame->empty())) code = -2;
      } else {
        const ImageResult opened = ImageReader::instance().open_ipc_async(
            path, ImageReader::kNoResizeSize, kOpenDefault, {}, -1);
        ImageSourceRawIPC* source = test::ipcSource(opened);
        code = opened.errorCode;
        if (source) {
          opened.image->waitForFullRaw();
          code = source->errorCode();
        }
      }
    })) << path;
    EXPECT_GE(code, kImageReaderOk) << path;
    refused += code != kImageReaderOk ? 1 : 0;
    EXPECT_TRUE(test::leftoverIpcNames().empty()) << path;
  }
  // The fixed seed makes some of them fail; a corpus that all decodes tests nothing.
  EXPECT_GT(refused, 0);
  FrameRequest request;
  request.outOfProcess = true;
  const OwnedFrame good = ImageReader::decodeFrame(classifyImageFile(nef), request);
  EXPECT_EQ(good.errorCode, kImageReaderOk);
  ASSERT_TRUE(good.frame);
  EXPECT_FALSE(good.frame->empty());
}

}  // namespace
}  // namespace vorn
