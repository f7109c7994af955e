#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "io/raster/orientation.h"
#include "pipeline/processor_test_support.h"
#include "support/log_capture.h"

namespace vorn {
namespace {

/// A frame of noise over a ramp, so that a pixel read from the wrong place shows.
std::shared_ptr<Image> makeTexturedImage(_Size<int> size) {
  auto frame = std::make_shared<ImageFrame>(size);
  std::uint32_t state = 12345u;
  for (int y = 0; y < size.height; ++y)
    for (int x = 0; x < size.width; ++x) {
      state = state * 1664525u + 1013904223u;
      const float noise = static_cast<float>(state >> 8) / static_cast<float>(1u << 24);
      frame->at(x, y) =
          PixelRGB<float>(static_cast<float>(x) / static_cast<float>(size.width),
                          static_cast<float>(y) / static_cast<float>(size.height), noise);
    }
  return std::make_shared<Image>(
      std::make_shared<ImageSource>(frame, std::make_shared<ImageMetadata>()));
}

/// The test document over a textured image, with a neighbourhood effect on top of the point
/// effects, so that a region rendered without its margin differs at its edges.
struct TexturedDocument : test::Document {
  explicit TexturedDocument(_Size<int> size) : test::Document(size) {
    imageLayer->setImage(makeTexturedImage(size), false);
    adjustment->pushBackEffect(test::makeEffect("VORNShadowsEffect", 80.0f));
  }
  std::shared_ptr<const ImageDataRGBf> renderWith(_Rect<float> roi, _Size<int> size, bool applyCrop,
                                                  bool useCache = true) {
    ImageProcessorSettings settings;
    settings.processingROI = roi;
    settings.processingSize = size;
    settings.applyCrop = applyCrop;
    settings.useCache = useCache;
    processor.startProcessing(settings);
    return processor.getLastResult();
  }
};

std::shared_ptr<ImageDataRGBf> upright(const ImageDataRGBf& render, int orientation) {
  return detail::orientFrame(render, orientation);
}

/// Where the stored top-left, top-right and bottom-left corners land upright, per EXIF.
enum Corner { TL, TR, BL, BR };
struct OrientationCase {
  int orientation;
  Corner topLeft, topRight, bottomLeft;
};

_Point<int> cornerOf(Corner c, _Size<int> size) {
  return _Point<int>(c == TR || c == BR ? size.width - 1 : 0,
                     c == BL || c == BR ? size.height - 1 : 0);
}

TEST(ImageProcessorGeometry, EveryOrientationTurnsTheCanvasUpright) {
  const OrientationCase cases[] = {{1, TL, TR, BL}, {2, TR, TL, BR}, {3, BR, BL, TR},
                                   {4, BL, BR, TL}, {5, TL, BL, TR}, {6, TR, BR, TL},
                                   {7, BR, TR, BL}, {8, BL, TL, BR}};
  const _Size<int> canvas(40, 24);
  TexturedDocument doc(canvas);
  const auto stored = doc.render();
  ASSERT_TRUE(stored);
  const auto copy = std::make_shared<ImageDataRGBf>(*stored);
  for (const OrientationCase& c : cases) {
    SCOPED_TRACE(c.orientation);
    doc.processor.setImageOrientation(c.orientation);
    const auto result = doc.render();
    ASSERT_TRUE(result);
    const bool swapped = c.orientation >= 5;
    const _Size<int> size = swapped ? _Size<int>(24, 40) : canvas;
    ASSERT_EQ(result->size(), size);
    // Three corners fix the whole map: stored (x, y) lands at TL + x * across + y * down.
    const _Point<int> tl = cornerOf(c.topLeft, size), tr = cornerOf(c.topRight, size),
                      bl = cornerOf(c.bottomLeft, size);
    const int ax = (tr.x - tl.x) / (canvas.width - 1), ay = (tr.y - tl.y) / (canvas.width - 1);
    const int dx = (bl.x - tl.x) / (canvas.height - 1), dy = (bl.y - tl.y) / (canvas.height - 1);
    int wrong = 0;
    for (int y = 0; y < canvas.height; ++y)
      for (int x = 0; x < canvas.width; ++x)
        if (!(result->at(tl.x + x * ax + y * dx, tl.y + x * ay + y * dy) == copy->at(x, y)))
          ++wrong;
    EXPECT_EQ(wrong, 0);
    const auto reference = upright(*copy, c.orientation);
    ASSERT_TRUE(reference);
    EXPECT_TRUE(test::sameRGB(*result, *reference)) << "as the decoder turns a frame";
    const auto thumbnail = doc.processor.getLastResultThumbnail();
    ASSERT_TRUE(thumbnail);
    EXPECT_EQ(thumbnail->size(), swapped ? _Size<int>(6, 10) : _Size<int>(10, 6));
  }
  // A preview keeps the ROI's scale along each canvas axis, so its sides swap too.
  doc.processor.setImageOrientation(6);
  const auto preview = doc.render(_Size<int>(20, 12));
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->size(), _Size<int>(12, 20));
}

TEST(ImageProcessorGeometry, CropWithoutTurnIsTheSameRegionOfTheWholeRender) {
  TexturedDocument doc(_Size<int>(160, 120));
  const auto whole = doc.render();
  ASSERT_TRUE(whole);
  const auto kept = std::make_shared<ImageDataRGBf>(*whole);
  const _Rect<int> crop(30, 20, 90, 60);
  doc.processor.setCropDescription(CropDescription(0.0f, crop));
  const auto cropped = doc.renderWith({}, {}, true);
  ASSERT_TRUE(cropped);
  const auto expected = kept->copy(crop);
  ASSERT_TRUE(expected);
  // The geometry is exact; a vector kernel rounds a row's tail apart from its body, so a pixel
  // may differ in its last bit where the crop's rows end elsewhere than the canvas rows.
  EXPECT_LT(test::maxDifference(*cropped, *expected), 1e-6f);
  const auto uncropped = doc.renderWith({}, {}, false);
  ASSERT_TRUE(uncropped);
  EXPECT_TRUE(test::sameRGB(*uncropped, *kept)) << "applyCrop false ignores the crop";

  // The crop rectangle is in upright pixels: with orientation 6 it cuts the turned picture.
  doc.processor.setImageOrientation(6);
  const auto turned = doc.renderWith({}, {}, true);
  ASSERT_TRUE(turned);
  const auto turnedWhole = upright(*kept, 6);
  ASSERT_TRUE(turnedWhole);
  const auto turnedExpected = turnedWhole->copy(_Rect<int>(30, 20, 90, 60));
  ASSERT_TRUE(turnedExpected);
  EXPECT_LT(test::maxDifference(*turned, *turnedExpected), 1e-6f);
  EXPECT_EQ(doc.processor.thumbSize(true), _Size<int>(90, 60));
  const auto thumbnail = doc.processor.getLastResultThumbnail();
  ASSERT_TRUE(thumbnail);
  EXPECT_EQ(thumbnail->size(), _Size<int>(22, 15)) << "the thumbnail follows the crop";
}

/// Bilinear lookup with pixel i centred on i; the caller keeps inside the image.
PixelRGB<float> sampleAt(const ImageDataRGBf& image, double x, double y) {
  const int x0 = static_cast<int>(std::floor(x)), y0 = static_cast<int>(std::floor(y));
  const auto fx = static_cast<float>(x - x0), fy = static_cast<float>(y - y0);
  const auto mix = [](PixelRGB<float> a, PixelRGB<float> b, float t) {
    return PixelRGB<float>(a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t);
  };
  return mix(mix(image.at(x0, y0), image.at(x0 + 1, y0), fx),
             mix(image.at(x0, y0 + 1), image.at(x0 + 1, y0 + 1), fx), fy);
}

TEST(ImageProcessorGeometry, TurnedCropMatchesAWarpOfTheWholeRender) {
  TexturedDocument doc(_Size<int>(160, 120));
  const auto whole = doc.render();
  ASSERT_TRUE(whole);
  const auto kept = std::make_shared<ImageDataRGBf>(*whole);
  const float angle = 0.2f;
  const _Rect<int> crop(40, 30, 80, 50);
  doc.processor.setCropDescription(CropDescription(angle, crop));
  const auto turned = doc.renderWith({}, {}, true);
  ASSERT_TRUE(turned);
  ASSERT_EQ(turned->size(), _Size<int>(80, 50));
  // A crop point (X, Y) sits at centre + (c X' + s Y', -s X' + c Y'), X' and Y' taken from
  // the crop's centre: the rectangle turned by the angle about its centre.
  const double c = std::cos(angle), s = std::sin(angle);
  float worst = 0.0f;
  for (int y = 0; y < 50; ++y)
    for (int x = 0; x < 80; ++x) {
      const double X = x + 0.5 - 40.0, Y = y + 0.5 - 25.0;
      const double px = 80.0 + c * X + s * Y, py = 55.0 - s * X + c * Y;
      const PixelRGB<float> want = sampleAt(*kept, px - 0.5, py - 0.5);
      const PixelRGB<float> got = turned->at(x, y);
      worst = std::max(
          {worst, std::fabs(want.r - got.r), std::fabs(want.g - got.g), std::fabs(want.b - got.b)});
    }
  EXPECT_LT(worst, 1e-4f);
}

TEST(ImageProcessorGeometry, RegionRenderIsTheSamePartOfTheWholeRender) {
  TexturedDocument doc(_Size<int>(160, 120));
  doc.processor.setImageOrientation(6);
  const auto whole = doc.render();
  ASSERT_TRUE(whole);
  const auto kept = std::make_shared<ImageDataRGBf>(*whole);
  // Canvas (32, 16, 64, 48) turns into upright (120 - 64, 32, 48, 64).
  const auto part = doc.renderWith(_Rect<float>(32, 16, 64, 48), _Size<int>(64, 48), false);
  ASSERT_TRUE(part);
  const auto expected = kept->copy(_Rect<int>(56, 32, 48, 64));
  ASSERT_TRUE(expected);
  EXPECT_LT(test::maxDifference(*part, *expected), 1e-6f);

  // At half size the region's cells are cells of the whole half-size render.
  const auto half = doc.render(_Size<int>(80, 60));
  ASSERT_TRUE(half);
  const auto halfKept = std::make_shared<ImageDataRGBf>(*half);
  const auto halfPart = doc.renderWith(_Rect<float>(32, 16, 64, 48), _Size<int>(32, 24), false);
  ASSERT_TRUE(halfPart);
  const auto halfExpected = halfKept->copy(_Rect<int>(28, 16, 24, 32));
  ASSERT_TRUE(halfExpected);
  EXPECT_LT(test::maxDifference(*halfPart, *halfExpected), 1e-6f);
}

TEST(ImageProcessorGeometry, CachedRendersFollowCropAndOrientationChanges) {
  struct Change {
    const char* name;
    void (*apply)(ImageProcessor&);
  };
  const Change changes[] = {
      {"orientation", [](ImageProcessor& p) { p.setImageOrientation(8); }},
      {"crop",
       [](ImageProcessor& p) {
         p.setCropDescription({0.0f, _Rect<int>(8, 8, 60, 40)});
       }},
      {"turned crop",
       [](ImageProcessor& p) {
         p.setCropDescription({-0.1f, _Rect<int>(10, 6, 50, 40)});
       }},
      {"crop dropped", [](ImageProcessor& p) { p.setCropDescription({}); }},
  };
  TexturedDocument cached(_Size<int>(96, 64));
  ASSERT_TRUE(cached.renderWith({}, {}, true));
  for (const Change& change : changes) {
    SCOPED_TRACE(change.name);
    change.apply(cached.processor);
    TexturedDocument fresh(_Size<int>(96, 64));
    fresh.processor.setImageOrientation(cached.processor.getImageOrientation());
    fresh.processor.setCropDescription(cached.processor.getCropDescription());
    const auto a = cached.renderWith({}, {}, true);
    const auto b = fresh.renderWith({}, {}, true, false);
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(test::sameRGB(*a, *b));
  }
}

TEST(ImageProcessorGeometry, HeldPicturesAreNeverRewritten) {
  TexturedDocument doc(_Size<int>(64, 48));
  doc.processor.setCropDescription(CropDescription(0.1f, _Rect<int>(8, 8, 40, 30)));
  const auto held = doc.renderWith({}, {}, true);
  ASSERT_TRUE(held);
  const auto before = std::make_shared<ImageDataRGBf>(*held);
  doc.adjustment->effectAtIndex(0)->parameters()[0].setValue(-40.0f);
  const auto next = doc.renderWith({}, {}, true);
  ASSERT_TRUE(next);
  EXPECT_NE(next, held);
  EXPECT_TRUE(test::sameRGB(*held, *before)) << "the host's picture stays as it was";
  EXPECT_GT(test::maxDifference(*next, *before), 0.01f);
}

TEST(ImageProcessorGeometry, UpdateRectFollowsOrientationAndCrop) {
  test::Document doc(_Size<int>(100, 80));
  ImageProcessor& p = doc.processor;
  p.setImageOrientation(6);
  p.setCropDescription(CropDescription(0.0f, _Rect<int>(10, 5, 60, 70)));
  ImageProcessorSettings settings;
  settings.applyCrop = true;
  p.startProcessing(settings);
  ASSERT_TRUE(p.getLastResult());
  // Canvas x 10..40, y 20..30 turns into upright x 50..60, y 10..40, then the crop moves it.
  EXPECT_EQ(p.getResultImageUpdateRectForUpdateRectInLayer(
                doc.adjustment, _Rect<int>(10, 20, 30, 10), _Rect<float>(0, 0, 100, 80),
                _Size<int>(100, 80)),
            _Rect<int>(40, 5, 10, 30));
}

TEST(ImageProcessorGeometry, ShownMaskTurnsWithThePicture) {
  test::Document doc(_Size<int>(40, 24));
  ASSERT_TRUE(doc.adjustment->createMaskWithSize(_Size<int>(40, 24), 0.0f));
  doc.adjustment->mask()->fillRect(1.0f, _Rect<int>(0, 0, 20, 24));
  doc.adjustment->resetMaskCache();
  doc.processor.setImageOrientation(6);
  const auto clean = doc.render();
  ASSERT_TRUE(clean);
  const auto kept = std::make_shared<ImageDataRGBf>(*clean);
  doc.processor.setShowMaskLayer(doc.adjustment);
  const auto shown = doc.render();
  ASSERT_TRUE(shown);
  ASSERT_EQ(shown->size(), _Size<int>(24, 40));
  // The masked left half of the canvas is the top half of the upright picture.
  EXPECT_NEAR(shown->at(12, 5).r, kept->at(12, 5).r * 0.5f + 0.5f, 1e-5f);
  EXPECT_EQ(shown->at(12, 30), kept->at(12, 30));
}

TEST(ImageProcessorGeometry, UnusableGeometryFailsTheRenderCleanly) {
  test::LogCapture log;
  test::Document doc(_Size<int>(64, 48));
  ImageProcessor& p = doc.processor;
  const auto first = doc.render();
  ASSERT_TRUE(first);
  for (const int bad : {0, 9, -1}) p.setImageOrientation(bad);
  EXPECT_EQ(p.getImageOrientation(), 1);
  EXPECT_EQ(log.countContaining("Incorrect image orientation!"), 3u);

  ImageProcessorSettings settings;
  settings.applyCrop = true;
  for (const CropDescription& crop :
       {CropDescription(0.0f, _Rect<int>(4, 4, 0, 10)), CropDescription(0.1f, _Rect<int>()),
        CropDescription(INFINITY, _Rect<int>(4, 4, 10, 10))}) {
    p.setCropDescription(crop);
    p.startProcessing(settings);
  }
  EXPECT_EQ(log.countContaining("Incorrect crop description!"), 3u);
  p.setCropDescription(CropDescription(0.0f, _Rect<int>(500, 500, 20, 20)));
  p.startProcessing(settings);
  EXPECT_EQ(log.countEndingWith("The crop lies outside the picture!"), 1u);
  // A ROI in the part of the canvas the crop cuts off shows nothing.
  p.setCropDescription(CropDescription(0.0f, _Rect<int>(0, 0, 20, 20)));
  settings.processingROI = _Rect<float>(40, 30, 10, 10);
  p.startProcessing(settings);
  EXPECT_EQ(log.countContaining("shows nothing"), 1u);
  // Scales that would count cells or pixels past an int are refused, not overflowed.
  p.setCropDescription(CropDescription(0.0f, _Rect<int>(0, 0, 2000000000, 2000000000)));
  settings.processingROI = {};
  p.startProcessing(settings);
  EXPECT_EQ(log.countContaining("too large"), 1u);
  settings.applyCrop = false;
  settings.processingROI = _Rect<float>(0, 0, 1e-30f, 1e-30f);
  settings.processingSize = _Size<int>(100, 100);
  p.startProcessing(settings);
  EXPECT_EQ(log.countContaining("too small for the processingSize"), 1u);
  EXPECT_EQ(p.getLastResult(), first) << "refused renders change nothing";
  settings.processingROI = _Rect<float>(40, 30, 10, 10);
  settings.processingSize = _Size<int>(10, 10);
  p.startProcessing(settings);
  ASSERT_TRUE(p.getLastResult());
  EXPECT_EQ(p.getLastResult()->size(), _Size<int>(10, 10)) << "without the crop it shows";
}

}  // namespace
}  // namespace vorn
