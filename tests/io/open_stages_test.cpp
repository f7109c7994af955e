#include "io/open_stages.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "io/raster_test_support.h"
#include "io/raw_test_support.h"
#include "support/log_capture.h"
#include "vorn/io/image_reader.h"

namespace vorn {
namespace {

constexpr const char* kPlainCancelled = "ImageSource processing canceled by the user";

// JPEG and TIFF opens ask to stop before decoding, before orientation and colour, and before
// resizing; a stop at any of them ends the open at once with code 5, no image and one line.
TEST(OpenStages, JpegAndTiffStopBetweenEveryStage) {
  for (const char* name : {"fallenleaf_canon_eos70d.jpg", "casio_qv4000_lzw.tif"}) {
    SCOPED_TRACE(name);
    const ImageFileClass file = classifyImageFile(test::raster::dataFile(name));
    int checks = 0;
    const ImageResult whole = detail::openClassified(file, {-1, 100}, nullptr, [&] {
      ++checks;
      return false;
    });
    ASSERT_TRUE(ImageReader::isImageResultValid(whole));
    EXPECT_EQ(whole.image->height(), 100);
    EXPECT_EQ(checks, 3);

    for (int stopAt = 1; stopAt <= 3; ++stopAt) {
      test::LogCapture log;
      int seen = 0;
      const ImageResult stopped =
          detail::openClassified(file, {-1, 100}, nullptr, [&] { return ++seen >= stopAt; });
      EXPECT_EQ(stopped.errorCode, kImageReaderCancelled) << stopAt;
      EXPECT_FALSE(stopped.image) << stopAt;
      EXPECT_EQ(seen, stopAt);
      EXPECT_EQ(log.countEndingWith(kPlainCancelled), 1u) << stopAt;
      EXPECT_EQ(log.countContaining(name), 0u) << "a stop is not a failure";
    }
  }

  // Through the reader: the host's flag is what the stages ask.
  test::LogCapture log;
  const ImageResult cancelled =
      ImageReader::instance().open(test::raster::dataFile("fallenleaf_canon_eos70d.jpg"), {-1, 100},
                                   kOpenDefault, std::make_shared<bool>(true));
  EXPECT_EQ(cancelled.errorCode, kImageReaderCancelled);
  EXPECT_FALSE(cancelled.image);
  EXPECT_EQ(log.countEndingWith(kPlainCancelled), 1u);
}

TEST(OpenStages, RawProcessingStopsOnceTheLoadersStarted) {
  VORN_REQUIRE_SAMPLE(nef, "nikon_coolscan4_imageio.nef");
  test::LogCapture log;
  int seen = 0;
  const ImageResult stopped =
      detail::openClassified(classifyImageFile(nef), {100, -1}, nullptr, [&] {
        ++seen;
        return true;
      });
  EXPECT_EQ(stopped.errorCode, kImageReaderCancelled);
  EXPECT_FALSE(stopped.image);
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(log.countEndingWith("ImageSourceRaw processing canceled"), 1u);
}

TEST(OpenStages, ProcessingFailuresAreLoggedForTheirKindOfSource) {
  using detail::SourceKind;
  struct Case {
    SourceKind kind;
    std::function<void()> fail;
    std::string line;
  };
  const auto plainError = [] { throw std::runtime_error("bad pixels"); };
  const auto sourceError = [] { throw ImageSourceException("imageData nullptr"); };
  const auto oddThrow = [] { throw 7; };
  const std::vector<Case> cases = {
      {SourceKind::Plain, plainError, "ImageSource processing exception: bad pixels"},
      {SourceKind::Plain, sourceError, "ImageSourceException: imageData nullptr"},
      {SourceKind::Plain, oddThrow, "ImageSource proceed exception"},
      {SourceKind::Raw, plainError, "ImageSourceRaw processing exception: bad pixels"},
      {SourceKind::Raw, sourceError, "ImageSource exception: imageData nullptr"},
      {SourceKind::Raw, oddThrow, "ImageSourceRaw processing unknown exception"}};
  for (const Case& c : cases) {
    test::LogCapture log;
    const ImageResult result = detail::processSource(c.kind, [&] {
      c.fail();
      return ImageResult{};
    });
    EXPECT_EQ(result.errorCode, kImageReaderFailed) << c.line;
    EXPECT_FALSE(result.image) << c.line;
    EXPECT_EQ(log.countEndingWith(c.line), 1u) << c.line;
  }

  test::LogCapture log;
  const ImageResult refused =
      detail::finishedImage(nullptr, std::make_shared<ImageMetadata>(), "frame.jpg");
  EXPECT_EQ(refused.errorCode, kImageReaderFailed);
  EXPECT_FALSE(refused.image);
  EXPECT_EQ(log.countEndingWith("ImageSourceException: imageData nullptr (frame.jpg)"), 1u);
}

TEST(OpenStages, ResizedImagesKeepTheLoadStateOfTheirFrame) {
  for (ImageLoadState state : {THUMBNAIL, QUARTER_LOADED, FULL_LOADED}) {
    SCOPED_TRACE(imageLoadStateName(state));
    auto frame = std::make_shared<ImageFrame>(_Size<int>(80, 60), PixelRGB<float>(0.25f));
    frame->setLoadState(state);
    ImageResult result;
    result.image = std::make_shared<Image>(
        std::make_shared<ImageSource>(std::move(frame), std::make_shared<ImageMetadata>()));
    result.errorCode = kImageReaderOk;

    const ImageResult fitted = ImageReader::postProcess(result, kOpenDefault, {40, 40});
    ASSERT_TRUE(ImageReader::isImageResultValid(fitted));
    EXPECT_EQ(fitted.image->size(), _Size<int>(40, 30));
    EXPECT_EQ(fitted.image->status(), state);
    const auto resized = result.image->resize({20, 15}, {}, true);
    ASSERT_TRUE(resized);
    EXPECT_EQ(resized->getLoadState(), state);
  }
}

}  // namespace
}  // namespace vorn
