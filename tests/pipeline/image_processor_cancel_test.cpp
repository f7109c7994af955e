#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "pipeline/processor_test_support.h"
#include "vorn/core/processing_status.h"

namespace vorn {
namespace {

// A spatial effect over a large frame, stopped from another thread while it runs.
TEST(ImageProcessorCancel, StopFromAnotherThreadThenRenderAgain) {
  test::Document doc(_Size<int>(2400, 1600));
  doc.adjustment->pushBackEffect(test::makeEffect("VORNDehazeEffect", 60.0f));
  const auto before = doc.render(_Size<int>(240, 160));
  ASSERT_TRUE(before);

  ImageProcessorSettings settings;
  settings.stopProcessing = std::make_shared<bool>(false);
  std::atomic<bool> started{false};
  std::thread stopper([&] {
    while (!started.load()) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    requestCancel(settings.stopProcessing.get());
  });
  started.store(true);
  doc.processor.startProcessing(settings);
  stopper.join();
  ASSERT_TRUE(isCancelRequested(settings.stopProcessing.get()));
  EXPECT_EQ(doc.processor.getLastResult(), before) << "a stopped render keeps the last result";
  EXPECT_TRUE(doc.imageLayer->isNeedProcessing()) << "image layers are marked for the next render";

  const auto again = doc.render();
  test::Document fresh(_Size<int>(2400, 1600));
  fresh.adjustment->pushBackEffect(test::makeEffect("VORNDehazeEffect", 60.0f));
  const auto expected = fresh.render({}, false);
  ASSERT_TRUE(again && expected);
  EXPECT_TRUE(test::sameRGB(*again, *expected));
}

}  // namespace
}  // namespace vorn
