#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "pipeline/processor_test_support.h"
#include "support/log_capture.h"
#include "vorn/effects/lens_effects.h"
#include "vorn/io/image_metadata.h"

namespace vorn {
namespace {

/// A source that holds a quarter frame until the test hands it the full one.
class LateSource final : public ImageSource {
 public:
  LateSource(ConstImageFrame quarter, _Size<int> full)
      : ImageSource(std::make_shared<ImageMetadata>()), full_(full) {
    setImageData(std::move(quarter));
  }
  _Size<int> size() const override { return full_; }
  void setUpdateCallback(Listener listener) const override {
    std::lock_guard lock(mutex_);
    listeners_.push_back(std::move(listener));
  }
  void deliver(ConstImageFrame frame) {
    setImageData(std::move(frame));
    std::vector<Listener> listeners;
    {
      std::lock_guard lock(mutex_);
      listeners = listeners_;
    }
    for (const Listener& listener : listeners) listener();
  }

 private:
  _Size<int> full_;
  mutable std::mutex mutex_;
  mutable std::vector<Listener> listeners_;
};

TEST(ImageProcessorSource, RendersFromTheBestFrameAndCallsBack) {
  const _Size<int> full(64, 48);
  const auto plain = test::makePlainImage(full);
  const ConstImageFrame fullFrame = plain->workingImage();
  ASSERT_TRUE(fullFrame);
  auto quarter = fullFrame->resize(_Size<int>(32, 24));
  ASSERT_TRUE(quarter);
  quarter->setLoadState(QUARTER_LOADED);
  auto source = std::make_shared<LateSource>(quarter, full);
  test::Document doc(full);
  doc.processor.removeLayer(doc.imageLayer);
  auto layer = std::make_shared<ImageLayer>(std::make_shared<Image>(source));
  doc.processor.addLayer(layer, 0);
  std::atomic<int> calls{0};
  doc.processor.setUpdateCallback([&calls] { ++calls; });

  const auto early = doc.render();
  ASSERT_TRUE(early);
  EXPECT_EQ(early->size(), full) << "a quarter frame stands for the whole source";

  auto loaded = std::make_shared<ImageFrame>(*fullFrame);
  loaded->setLoadState(FULL_LOADED);
  source->deliver(loaded);
  EXPECT_EQ(calls.load(), 1) << "the host is told to render again";
  test::LogCapture log;
  const auto late = doc.render();
  ASSERT_TRUE(late);
  EXPECT_EQ(log.countEndingWith("cache-> layer needs processing(0) op(0)"), 1u);
  test::Document reference(full);
  const auto expected = reference.render();
  ASSERT_TRUE(expected);
  EXPECT_TRUE(test::sameRGB(*late, *expected));
}

TEST(ImageProcessorSource, LensLayerGetsASmallRenderOfTheStackBeneath) {
  test::Document doc(_Size<int>(1600, 1200));
  auto lens = std::make_shared<AdjustmentLayer>(0);
  auto correction = test::makeEffect(std::string(LensCorrectionEffect::kId), 10.0f);
  ASSERT_TRUE(correction);
  lens->pushBackEffect(correction);
  doc.processor.addLayer(lens, 2);
  ASSERT_TRUE(doc.render(_Size<int>(400, 300)));
  const auto preview = doc.processor.lensCorrectionPreviewSource(lens);
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->size(), _Size<int>(1000, 750));
  {
    test::LogCapture log;
    ASSERT_TRUE(doc.render(_Size<int>(400, 300)));
    EXPECT_EQ(log.countEndingWith("cache-> all operations are done(4) op(3)"), 1u)
        << "an unchanged stack beneath leaves the lens layer cached";
  }

  ImageProcessorSettings settings;
  settings.processingSize = _Size<int>(1000, 750);
  settings.lensCorrectionPreview = true;
  lens->setEnabled(false);
  doc.processor.startProcessing(settings);
  ASSERT_TRUE(doc.processor.getLastResult());
  EXPECT_LT(test::maxDifference(*preview, *doc.processor.getLastResult()), 1e-5f)
      << "the image layer and the exposure layer beneath, nothing else";
}

TEST(ImageProcessorSource, LensLayerCorrectsForThePhotosLens) {
  const _Size<int> size(1200, 800);
  auto metadata = std::make_shared<ImageMetadata>();
  metadata->cameraName = "Canon";
  metadata->cameraModel = "Canon EOS 5D Mark II";
  metadata->lensModel = "Canon EF 24-105mm f/4L IS USM";
  metadata->focalLen = 24.0f;
  metadata->fNumber = 4.0f;
  auto frame = std::make_shared<ImageFrame>(size, PixelRGB<float>(0.5f));
  auto layer = std::make_shared<ImageLayer>(
      std::make_shared<Image>(std::make_shared<ImageSource>(frame, metadata)));
  test::Document doc(size);
  doc.processor.removeLayer(doc.imageLayer);
  doc.processor.addLayer(layer, 0);
  auto lens = std::make_shared<AdjustmentLayer>(0);
  const auto correction = std::dynamic_pointer_cast<LensCorrectionEffect>(
      test::makeEffect(std::string(LensCorrectionEffect::kId), 0.0f));
  ASSERT_TRUE(correction);
  correction->parameters().at(2).setValue(100.0f);
  lens->pushBackEffect(correction);
  doc.processor.addLayer(lens, 2);
  const auto result = doc.render(_Size<int>(600, 400));
  ASSERT_TRUE(result);
  ASSERT_TRUE(correction->shot());
  EXPECT_EQ(correction->shot()->lensModel, metadata->lensModel);
  EXPECT_TRUE(correction->hasProfile());
  const auto source = doc.processor.lensCorrectionPreviewSource(lens);
  const auto preview = doc.processor.lensCorrectionPreview(lens);
  ASSERT_TRUE(source && preview);
  EXPECT_EQ(preview->size(), _Size<int>(1000, 667));
  // Vignetting correction lifts the corners of the small render and leaves its centre.
  EXPECT_GT(preview->at(0, 0).g, source->at(0, 0).g + 0.05f);
  EXPECT_NEAR(preview->at(500, 333).g, source->at(500, 333).g, 0.005f);
  // The main render corrects too.
  EXPECT_GT(result->at(0, 0).g, result->at(300, 200).g + 0.05f);
}

}  // namespace
}  // namespace vorn
