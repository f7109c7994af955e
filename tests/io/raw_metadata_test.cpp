#include "vorn/io/additional_raw_metadata.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include "support/log_capture.h"

namespace vorn {
namespace {

/// A future over std::shared_future, as the analysis jobs would hand out.
template <typename T>
class PromisedValue final : public IFuture<T> {
 public:
  explicit PromisedValue(std::shared_future<T> future) : future_(std::move(future)) {}
  void get(T& value) override { value = future_.get(); }
  bool hasValue() const override {
    return future_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }

 private:
  std::shared_future<T> future_;
};

using Tone = AdditionalRawMetadata::AutoDetectedTone;
using CA = AutoDetectedLensCorrection::ca_t;
using Distortion = AutoDetectedLensCorrection::distortion_t;

TEST(RawMetadataAsync, GettersGiveZerosUntilTheValueIsThere) {
  AdditionalRawMetadataAsync metadata;
  EXPECT_EQ(metadata.getAutoDetectedCA(), CA{});  // nothing scheduled
  std::promise<CA> ca;
  metadata.scheduleCA(std::make_shared<PromisedValue<CA>>(ca.get_future().share()));
  EXPECT_EQ(metadata.getAutoDetectedCA(), CA{});  // scheduled, no value yet: never blocks
  ca.set_value(CA{1.001f, 0.999f});
  EXPECT_EQ(metadata.getAutoDetectedCA(), (CA{1.001f, 0.999f}));
  metadata.removeCAdata();
  EXPECT_EQ(metadata.getAutoDetectedCA(), CA{});
}

TEST(RawMetadataAsync, WaitBlocksUntilEveryScheduledValueArrives) {
  AdditionalRawMetadataAsync metadata;
  std::promise<Tone> tone;
  std::promise<Distortion> distortion;
  metadata.scheduleTone(std::make_shared<PromisedValue<Tone>>(tone.get_future().share()));
  metadata.scheduleDistortion(
      std::make_shared<PromisedValue<Distortion>>(distortion.get_future().share()));
  std::thread producer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    tone.set_value(Tone{0.5f, 10.0f, -20.0f, 15.0f, 0.0f, -5.0f});
    distortion.set_value(Distortion{-0.02f, 0.001f, 0.0f});
  });
  metadata.wait();
  EXPECT_FLOAT_EQ(metadata.getAutoDetectedTone().exposure, 0.5f);
  EXPECT_FLOAT_EQ(metadata.getAutoDetectedDistortion().k1, -0.02f);
  producer.join();

  // A finished record read through the synchronous form gives the same values directly.
  auto finished = std::make_shared<AdditionalRawMetadataAsync>();
  std::promise<Tone> ready;
  ready.set_value(Tone{1.0f, 0, 0, 0, 0, 0});
  finished->scheduleTone(std::make_shared<PromisedValue<Tone>>(ready.get_future().share()));
  AdditionalRawMetadataSync sync(finished);
  EXPECT_FLOAT_EQ(sync.getAutoDetectedTone().exposure, 1.0f);
  EXPECT_EQ(sync.getAutoDetectedCA(), CA{});
  EXPECT_EQ(AdditionalRawMetadataSync(nullptr).getAutoDetectedTone(), Tone{});
}

TEST(RawMetadataAsync, FailedJobIsLoggedAndGivesZeros) {
  test::LogCapture log;
  AdditionalRawMetadataAsync metadata;
  std::promise<Distortion> failing;
  failing.set_exception(std::make_exception_ptr(std::runtime_error("lens analysis failed")));
  metadata.scheduleDistortion(
      std::make_shared<PromisedValue<Distortion>>(failing.get_future().share()));
  EXPECT_EQ(metadata.getAutoDetectedDistortion(), Distortion{});
  metadata.wait();  // returns despite the failure
  EXPECT_EQ(log.countEndingWith("Obtaining auto detected values failed!"), 2u);
}

}  // namespace
}  // namespace vorn
