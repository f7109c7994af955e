#include <gtest/gtest.h>

#include <fstream>
#include <numbers>

#include "pipeline/processor_test_support.h"
#include "presets/base64.h"
#include "support/temp_dir.h"
#include "vorn/io/image_compressor.h"
#include "vorn/pipeline/brush/brush_controller.h"
#include "vorn/presets/preset.h"

namespace vorn {
namespace {

const _Size<int> kCanvas(48, 32);

/// A photo alone: the preset brings every adjustment layer.
struct Photo {
  Photo() : layer(std::make_shared<ImageLayer>(test::makePlainImage(kCanvas))) {
    processor.addLayer(layer, 0);
  }
  std::shared_ptr<const ImageDataRGBf> render() {
    processor.startProcessing(ImageProcessorSettings{});
    return processor.getLastResult();
  }
  std::shared_ptr<ImageLayer> layer;
  ImageProcessor processor;
};

Preset twoLayers() {
  Preset preset;
  preset.name = "test";
  PresetLayer tone;
  tone.effects = {{"VORNExposureEffect", {{"Exposure", 40.0f}}, {}},
                  {"VORNContrastEffect", {{"Contrast", 30.0f}}, {}}};
  PresetLayer top;
  top.opacity = 0.6f;
  top.blend = "Multiply";
  top.effects = {{"VORNSaturationEffect", {{"Saturation", 50.0f}}, {}}};
  PresetMaskStep ramp;
  ramp.kind = PresetMaskStep::Kind::LinearGradient;
  ramp.angle = 90.0f;
  ramp.width = 0.5f;
  top.mask.steps = {ramp};
  preset.layers = {tone, top};
  return preset;
}

TEST(PresetLayers, APresetRendersLikeTheSameStackBuiltByHand) {
  Photo fromPreset;
  const auto made = addPresetLayers(fromPreset.processor, twoLayers(), ".");
  ASSERT_EQ(made.size(), 2u);
  EXPECT_EQ(fromPreset.processor.getLayersCount(), 3u);

  Photo byHand;
  auto tone = std::make_shared<AdjustmentLayer>(0);
  tone->pushBackEffect(test::makeEffect("VORNExposureEffect", 40.0f));
  tone->pushBackEffect(test::makeEffect("VORNContrastEffect", 30.0f));
  auto top = std::make_shared<AdjustmentLayer>(0);
  top->pushBackEffect(test::makeEffect("VORNSaturationEffect", 50.0f));
  top->setOpacity(0.6f);
  top->setBlendMode(kBlendMultiply);
  byHand.processor.addLayer(tone, 1);
  byHand.processor.addLayer(top, 2);
  {
    BrushController brush(top, kCanvas, true);
    brush.clear();
    brush.appendGradient(std::numbers::pi_v<float> / 2, {0.5f, 0.5f}, 0.5f, false, true);
    brush.waitMask();
  }
  byHand.processor.validateLayers();

  const auto expected = byHand.render();
  const auto actual = fromPreset.render();
  ASSERT_TRUE(expected && actual);
  EXPECT_TRUE(test::sameRGB(*expected, *actual));
  // The mask made a difference: the ramp leaves one side of the frame untouched by the top layer.
  ASSERT_TRUE(made[1]->hasMask());
  EXPECT_NE(made[1]->mask()->at(0, 0), made[1]->mask()->at(0, kCanvas.height - 1));
}

TEST(PresetLayers, MaskBlobsComeFromFilesOrInlineAndBadOnesChangeNothing) {
  MaskImage painted(kCanvas, 0.0f);
  for (int y = 0; y < kCanvas.height; ++y)
    for (int x = 0; x < kCanvas.width / 2; ++x) painted.at(x, y) = 1.0f;
  std::vector<std::uint8_t> blob;
  ImageCompressorProxy::compressMask(painted, blob);
  test::TempDir dir;
  std::ofstream(dir.path() / "sky.mask", std::ios::binary)
      .write(reinterpret_cast<const char*>(blob.data()), static_cast<std::streamsize>(blob.size()));

  Preset preset = twoLayers();
  preset.layers[1].mask = {};
  preset.layers[1].mask.blobFile = "sky.mask";
  Photo fromFile;
  const auto fileLayers = addPresetLayers(fromFile.processor, preset, dir.str());
  preset.layers[1].mask.blobFile.clear();
  preset.layers[1].mask.blobBase64 = detail::encodeBase64(blob);
  Photo inlined;
  const auto inlineLayers = addPresetLayers(inlined.processor, preset, dir.str());
  for (const auto* layers : {&fileLayers, &inlineLayers}) {
    ASSERT_TRUE((*layers)[1]->hasMask());
    const auto mask = (*layers)[1]->mask();
    EXPECT_NEAR(mask->at(0, 5), 1.0f, 1.0f / 255);  // stored as bytes
    EXPECT_EQ(mask->at(kCanvas.width - 1, 5), 0.0f);
  }

  std::ofstream(dir.path() / "broken.mask") << "not a mask";
  for (const auto& [file, inline_] : {std::pair<std::string, std::string>{"broken.mask", ""},
                                      {"missing.mask", ""},
                                      {"", "@@@@"},
                                      {"", detail::encodeBase64({1, 2, 3, 4, 5})}}) {
    Preset bad = twoLayers();
    bad.layers[1].mask.blobFile = file;
    bad.layers[1].mask.blobBase64 = inline_;
    Photo photo;
    EXPECT_THROW(addPresetLayers(photo.processor, bad, dir.str()), PresetError) << file << inline_;
    EXPECT_EQ(photo.processor.getLayersCount(), 1u);
  }
  ImageProcessor empty;
  EXPECT_THROW(addPresetLayers(empty, twoLayers(), "."), PresetError);
}

TEST(PresetLayers, Base64RoundTripsAndRefusesMalformedText) {
  for (std::size_t n = 0; n < 8; ++n) {
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < n; ++i) bytes.push_back(static_cast<std::uint8_t>(250 - 37 * i));
    const auto back = detail::decodeBase64(detail::encodeBase64(bytes));
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, bytes) << n;
  }
  EXPECT_EQ(detail::encodeBase64({'M', 'a'}), "TWE=");
  EXPECT_EQ(*detail::decodeBase64("TW\nE="), (std::vector<std::uint8_t>{'M', 'a'}));
  for (const char* bad : {"TWE", "T=WE", "TWE*", "TWE===", "=TWE"})
    EXPECT_FALSE(detail::decodeBase64(bad)) << bad;
}

}  // namespace
}  // namespace vorn
