// Face effects inside a document: the faces come from the photo under the layer, so a region
// of the canvas, and a preview, retouch the same face as the whole render.
#include <gtest/gtest.h>

#include <cmath>

#include "effects/effect_test_support.h"
#include "vorn/io/image_reader.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/image_layer.h"
#include "vorn/pipeline/image_processor.h"

namespace vorn {
namespace {

/// The portrait's face (brows to chin, ear to ear) and a part of it far from the face.
constexpr _Rect<int> kFaceArea(108, 40, 66, 78);
constexpr _Rect<int> kFarAway(0, 200, 60, 120);

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
  EXPECT_GT(test::maxDifference(*full, *photo, kFaceArea), 0.02f);
  EXPECT_EQ(test::maxDifference(*full, *photo, kFarAway), 0.0f);

  ImageProcessorSettings region;
  const _Rect<int> cut(130, 60, 80, 70);
  region.processingROI = _Rect<float>(130, 60, 80, 70);
  region.processingSize = cut.size();
  processor.startProcessing(region);
  const auto part = processor.getLastResult();
  ASSERT_TRUE(part);
  ASSERT_EQ(part->size(), cut.size());
  EXPECT_LE(test::maxDifference(*full, *part, cut, 0, 0), 1e-5f);

  ImageProcessorSettings preview;
  preview.processingSize = _Size<int>(160, 160);
  processor.startProcessing(preview);
  const auto small = processor.getLastResult();
  const auto shrunk = full->resize(_Size<int>(160, 160));
  const auto original = photo->resize(_Size<int>(160, 160));
  ASSERT_TRUE(small && shrunk && original);
  const _Rect<int> face(kFaceArea.x / 2, kFaceArea.y / 2, kFaceArea.width / 2,
                        kFaceArea.height / 2);
  EXPECT_LT(test::meanDifference(*small, *shrunk, face),
            0.3f * test::meanDifference(*small, *original, face));
}

}  // namespace
}  // namespace vorn
