#include <gtest/gtest.h>

#include "pipeline/processor_test_support.h"
#include "support/data_store_guard.h"
#include "support/log_capture.h"
#include "vorn/core/data_store.h"
#include "vorn/pipeline/layer_conversion.h"

namespace vorn {
namespace {

/// A layer of a kind the processor does not know.
class StrangeLayer final : public BaseLayer {
 public:
  LayerType type() const override { return static_cast<LayerType>(3); }
  std::shared_ptr<BaseLayer> copy() const override { return std::make_shared<StrangeLayer>(*this); }
};

TEST(ImageProcessorStack, AddRemoveMoveAndLookUp) {
  test::LogCapture log;
  test::Document doc(_Size<int>(40, 30));
  ImageProcessor& p = doc.processor;
  EXPECT_EQ(p.canvasSize(), _Size<int>(40, 30));
  EXPECT_EQ(p.getLayersCount(), 2u);
  EXPECT_EQ(doc.adjustment->getBaseImageLayer(), doc.imageLayer) << "linked by validateLayers";

  p.addLayer(nullptr, 0);
  EXPECT_EQ(log.countEndingWith(" Layer is null!"), 1u);
  const auto top = std::make_shared<AdjustmentLayer>(0);
  p.addLayer(top, 99);
  EXPECT_EQ(p.layerIndex(top), 2) << "past the end appends";
  p.moveLayer(top, 1);
  EXPECT_EQ(p.layerIndex(top), 1);
  EXPECT_EQ(p.layerAtIndex(2), doc.adjustment);

  const auto stranger = std::make_shared<AdjustmentLayer>(0);
  EXPECT_EQ(p.layerIndex(stranger), -1);
  p.removeLayer(stranger);
  p.moveLayer(stranger, 0);
  EXPECT_FALSE(p.layerAtIndex(3));
  EXPECT_EQ(log.countEndingWith(
                " Can't remove layer! There is no such layer in ImageProcessor's layers pool"),
            1u);
  EXPECT_EQ(log.countEndingWith(
                " Can't move layer! There is no such layer in ImageProcessor's layers pool"),
            1u);
  EXPECT_EQ(log.countEndingWith(" Index is out of bounds!"), 1u);
  p.removeLayer(top);
  EXPECT_EQ(p.getLayersCount(), 2u);
  // Every failure line starts with the failing function's signature.
  EXPECT_EQ(log.countContaining("void vorn::ImageProcessor::addLayer("), 1u);
}

TEST(ImageProcessorStack, Conversions) {
  test::LogCapture log;
  test::Document doc(_Size<int>(20, 10));
  ImageProcessor& p = doc.processor;
  EXPECT_EQ(p.convertLayerAtIndexToImageLayer(0, nullptr), doc.imageLayer);
  EXPECT_EQ(log.countEndingWith(" Layer is already Image"), 1u);
  EXPECT_EQ(p.convertLayerAtIndexToAdjustmentLayer(1), doc.adjustment);
  EXPECT_EQ(log.countEndingWith(" Layer is already Adjustment"), 1u);
  EXPECT_FALSE(p.convertLayerAtIndexToImageLayer(2, nullptr));
  EXPECT_FALSE(p.convertLayerAtIndexToAdjustmentLayer(5));
  EXPECT_EQ(log.countEndingWith(" Index is out of bounds!"), 2u);

  doc.adjustment->setOpacity(0.25f);
  const auto asImage = p.convertLayerAtIndexToImageLayer(1, nullptr);
  ASSERT_TRUE(asImage);
  EXPECT_EQ(asImage->type(), kImageLayer);
  EXPECT_EQ(p.layerAtIndex(1), asImage) << "replaced in place";
  EXPECT_EQ(std::static_pointer_cast<ImageLayer>(asImage)->getSourceImage(), doc.image)
      << "the base image layer's image when none is given";
  EXPECT_EQ(asImage->opacity(), 0.25f);
  const auto back = p.convertLayerAtIndexToAdjustmentLayer(1);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->type(), kAdjustmentLayer);

  p.addLayer(std::make_shared<StrangeLayer>(), 2);
  EXPECT_FALSE(p.convertLayerAtIndexToImageLayer(2, nullptr));
  EXPECT_EQ(log.countEndingWith(" Undefined layer type"), 1u);
  EXPECT_EQ(log.countEndingWith(" Very bad vorn using#3!"), 1u);
  EXPECT_FALSE(p.convertLayerAtIndexToAdjustmentLayer(2));
  EXPECT_EQ(log.countEndingWith(" Undefined layer type"), 2u);

  EXPECT_TRUE(p.getLayerParameters(7).empty());
  EXPECT_EQ(log.countEndingWith(" Incorrect idx"), 1u);
  EXPECT_TRUE(p.getLayerParameters(0).empty());
  EXPECT_EQ(log.countEndingWith(" Itsn't a Adjustment layer"), 1u);
}

TEST(ImageProcessorStack, MasksFollowTheCanvasAndGeometry) {
  test::LogCapture log;
  test::Document doc(_Size<int>(64, 48));
  ImageProcessor& p = doc.processor;
  ASSERT_TRUE(doc.adjustment->createMaskWithSize(_Size<int>(16, 12), 0.5f));
  p.validateLayers();
  ASSERT_TRUE(doc.adjustment->mask());
  EXPECT_EQ(doc.adjustment->mask()->size(), _Size<int>(64, 48));
  EXPECT_FLOAT_EQ(doc.adjustment->mask()->at(10, 10), 0.5f);

  EXPECT_EQ(p.thumbSize(true), p.canvasSize()) << "default crop";
  p.setCropDescription(CropDescription(0.0f, _Rect<int>(4, 4, 20, 10)));
  EXPECT_EQ(p.thumbSize(true), _Size<int>(20, 10));
  EXPECT_EQ(p.thumbSize(false), p.canvasSize());
  p.applyScaleToCropDescription(_Point<float>(2.0f, 0.5f));
  EXPECT_EQ(p.getCropDescription().cropRect, _Rect<int>(8, 2, 40, 5));
  EXPECT_EQ(p.getImageOrientation(), 1);

  EXPECT_FALSE(p.applyScaleToImageLayerTransformSettings(_Point<float>(0.0f, 1.0f), doc.imageLayer,
                                                         true, AffineTransform()));
  EXPECT_FALSE(p.applyScaleToImageLayerTransformSettings(_Point<float>(1.0f, 1.0f), nullptr, true,
                                                         AffineTransform()));
  EXPECT_EQ(log.countEndingWith(" Could not scale transform"), 2u);
  EXPECT_TRUE(p.applyScaleToImageLayerTransformSettings(_Point<float>(0.5f, 0.5f), doc.imageLayer,
                                                        true, AffineTransform()));
  EXPECT_EQ(doc.imageLayer->transformSettings().layerToCanvas.a, 0.5f);
}

TEST(ImageProcessorStack, SettingsDumpAndLowResFactor) {
  ImageProcessorSettings settings;
  const std::string dump = settings.debugDescription(nullptr);
  std::size_t at = 0;
  for (const char* name :
       {"ProcessingROI ", "FinalRect ", "processingSize ", "applyCrop ", "previewQuality ",
        "useCache ", "exportMode ", "lensCorrectionPreview ", "stopProcessing ", "hasSky "}) {
    const std::size_t found = dump.find(name, at);
    ASSERT_NE(found, std::string::npos) << name;
    at = found;
  }
  LowResScaleFactor factor = lowResScaleFactor();
  EXPECT_FLOAT_EQ(factor.retina, 0.6f);
  EXPECT_FLOAT_EQ(factor.nonretina, 0.85f);
  EXPECT_EQ(factor.minimalSideLength, ~std::uint64_t{0});
  test::DataStoreGuard a("LowResScaleFactor.nonreting"), b("LowResScaleFactor.minimalSideLength");
  DataStore::instance().set("LowResScaleFactor.nonreting", 0.5f);
  DataStore::instance().set("LowResScaleFactor.minimalSideLength", "800");
  factor = lowResScaleFactor();
  EXPECT_FLOAT_EQ(factor.nonretina, 0.5f);
  EXPECT_EQ(factor.minimalSideLength, 800u);
}

TEST(ImageProcessorStack, UpdateRectAndSplitProcessors) {
  test::Document doc(_Size<int>(100, 80));
  ImageProcessor& p = doc.processor;
  const _Rect<int> rect = p.getResultImageUpdateRectForUpdateRectInLayer(
      doc.adjustment, _Rect<int>(10, 20, 30, 10), _Rect<float>(0, 0, 100, 80), _Size<int>(50, 40));
  EXPECT_EQ(rect, _Rect<int>(5, 10, 15, 5)) << "point effects do not spread a change";
  EXPECT_EQ(p.getResultImageUpdateRectForUpdateRectInLayer(
                doc.adjustment, _Rect<int>(90, 70, 30, 30), _Rect<float>(0, 0, 100, 80),
                _Size<int>(100, 80)),
            _Rect<int>(90, 70, 10, 10))
      << "clipped to the result";
  EXPECT_EQ(p.getResultImageUpdateRectForUpdateRectInLayer(
                doc.adjustment, _Rect<int>(0, 0, 2000000000, 2000000000),
                _Rect<float>(0, 0, 1e-3f, 1e-3f), _Size<int>(100, 80)),
            _Rect<int>(0, 0, 100, 80))
      << "huge scales are limited, not overflowed";

  const auto [preview, background] = p.getImageLayerPreviewAndBackgroundProcessors(doc.imageLayer);
  ASSERT_TRUE(preview && background);
  EXPECT_EQ(preview->getLayersCount(), 1u);
  EXPECT_NE(preview->layerAtIndex(0), doc.imageLayer) << "independent copies";
  EXPECT_EQ(background->getLayersCount(), 0u);
  const auto none = p.getImageLayerPreviewAndBackgroundProcessors(doc.adjustment);
  EXPECT_FALSE(none.first);
}

}  // namespace
}  // namespace vorn
