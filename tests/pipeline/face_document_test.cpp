// Face effects inside a document: the faces come from the photo under the layer, so a region
// of the canvas, and a preview, retouch the same face as the whole render.
#include <gtest/gtest.h>

#include <cmath>

#include "pipeline/processor_test_support.h"
#include "vorn/io/image_reader.h"

namespace vorn {
namespace {

/// The portrait's face (brows to chin, ear to ear) and a part of it far from the face.
constexpr _Rect<int> kFaceArea(108, 40, 66, 78);
constexpr _Rect<int> kFarAway(0, 200, 60, 120);

float largestDifference(const ImageDataRGBf& a, const ImageDataRGBf& b, _Rect<int> rect, int bx,
                        int by) {
  float worst = 0.0f;
  for (int y = 0; y < rect.height; ++y)
    for (int x = 0; x < rect.width; ++x) {
      const PixelRGB<float>& p = a.at(rect.x + x, rect.y + y);
      const PixelRGB<float>& q = b.at(bx + x, by + y);
      for (const float d : {p.r - q.r, p.g - q.g, p.b - q.b})
        worst = std::max(worst, std::isnan(d) ? INFINITY : std::fabs(d));
    }
  return worst;
}

double meanDifferenceIn(const ImageDataRGBf& a, const ImageDataRGBf& b, _Rect<int> rect) {
  double sum = 0.0;
  for (int y = rect.y; y < rect.y + rect.height; ++y)
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      const PixelRGB<float>& p = a.at(x, y);
      const PixelRGB<float>& q = b.at(x, y);
      sum += std::fabs(p.r - q.r) + std::fabs(p.g - q.g) + std::fabs(p.b - q.b);
    }
  return sum / (3.0 * rect.width * rect.height);
}

TEST(FaceDocument, RegionsAndPreviewsRetouchTheSameFace) {
  const ImageResult opened =
      ImageReader::readNonRaw(VORN_SOURCE_DIR "/tests/data/astronaut_face_320.jpg");
  ASSERT_TRUE(opened.image);
  const auto photo = opened.image->workingImage();
  ASSERT_TRUE(photo);
  auto effect = EffectFactory::instance().makeEffectWithID("VORNFaceEffect");
  ASSERT_TRUE(effect);
  effect->parameters()[0].setValue(60.0f);
  effect->parameters()[1].setValue(100.0f);
  effect->parameters()[2].setValue(80.0f);
  ImageProcessor processor;
  auto adjustment = std::make_shared<AdjustmentLayer>(0);
  adjustment->pushBackEffect(effect);
  processor.addLayer(std::make_shared<ImageLayer>(opened.image), 0);
  processor.addLayer(adjustment, 1);

  processor.startProcessing(ImageProcessorSettings());
  const auto full = processor.getLastResult();
  ASSERT_TRUE(full);
  ASSERT_EQ(full->size(), photo->size());
  EXPECT_GT(largestDifference(*full, *photo, kFaceArea, kFaceArea.x, kFaceArea.y), 0.02f);
  EXPECT_EQ(largestDifference(*full, *photo, kFarAway, kFarAway.x, kFarAway.y), 0.0f);

  ImageProcessorSettings region;
  const _Rect<int> cut(130, 60, 80, 70);
  region.processingROI = _Rect<float>(130, 60, 80, 70);
  region.processingSize = cut.size();
  processor.startProcessing(region);
  const auto part = processor.getLastResult();
  ASSERT_TRUE(part);
  ASSERT_EQ(part->size(), cut.size());
  EXPECT_LE(largestDifference(*full, *part, cut, 0, 0), 1e-5f);

  ImageProcessorSettings preview;
  preview.processingSize = _Size<int>(160, 160);
  processor.startProcessing(preview);
  const auto small = processor.getLastResult();
  const auto shrunk = full->resize(_Size<int>(160, 160));
  const auto original = photo->resize(_Size<int>(160, 160));
  ASSERT_TRUE(small && shrunk && original);
  const _Rect<int> face(kFaceArea.x / 2, kFaceArea.y / 2, kFaceArea.width / 2,
                        kFaceArea.height / 2);
  EXPECT_LT(meanDifferenceIn(*small, *shrunk, face),
            0.3 * meanDifferenceIn(*small, *original, face));
}

}  // namespace
}  // namespace vorn
