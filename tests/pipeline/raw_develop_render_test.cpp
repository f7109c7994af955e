#include <gtest/gtest.h>

#include <cmath>

#include "io/raw_test_support.h"
#include "pipeline/processor_test_support.h"
#include "vorn/io/image_reader.h"
#include "vorn/pipeline/adjustment_layer.h"

namespace vorn {
namespace {

/// Renders a raw sample at a small size under an adjustment layer holding `effects`.
std::shared_ptr<const ImageDataRGBf> renderRaw(
    const std::string& path, const std::vector<std::shared_ptr<Effect>>& effects) {
  const ImageResult result = ImageReader::readRaw(path, kOpenDefault, nullptr, "");
  if (result.errorCode != kImageReaderOk || !result.image) return nullptr;
  result.image->waitForFullRaw();
  ImageProcessor processor;
  processor.addLayer(std::make_shared<ImageLayer>(result.image), 0);
  auto adjustment = std::make_shared<AdjustmentLayer>(0);
  for (const auto& effect : effects) adjustment->pushBackEffect(effect);
  processor.addLayer(adjustment, 1);
  ImageProcessorSettings settings;
  settings.processingSize = _Size<int>(320, 169);
  processor.startProcessing(settings);
  return processor.getLastResult();
}

TEST(RawDevelopRender, DevelopGroupsRenderARawSample) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  const auto plain = renderRaw(dng, {});
  ASSERT_TRUE(plain);
  auto develop = EffectFactory::instance().makeEffectWithID("VORNRawDevelopCommonEffectID");
  auto hdr = EffectFactory::instance().makeEffectWithID("VORNHDRBasicCommonEffectRawID");
  ASSERT_TRUE(develop && hdr);
  develop->parameters().at(0).setValue(100.0f);  // highlight recovery
  develop->parameters().at(1).setValue(60.0f);   // black level
  hdr->parameters().at(0).setValue(50.0f);       // raw white balance temperature
  const auto developed = renderRaw(dng, {develop, hdr});
  ASSERT_TRUE(developed);
  ASSERT_EQ(developed->size(), plain->size());
  double redOverBlue[2] = {0.0, 0.0};
  for (int y = 0; y < plain->height; y += 4) {
    for (int x = 0; x < plain->width; x += 4) {
      const PixelRGB<float>& p = developed->at(x, y);
      ASSERT_TRUE(std::isfinite(p.r) && std::isfinite(p.g) && std::isfinite(p.b));
      redOverBlue[0] += plain->at(x, y).r - plain->at(x, y).b;
      redOverBlue[1] += p.r - p.b;
    }
  }
  EXPECT_GT(redOverBlue[1], redOverBlue[0]) << "a warm raw white balance warms the render";
}

}  // namespace
}  // namespace vorn
