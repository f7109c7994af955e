#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "cli_test_support.h"
#include "io/raster_test_support.h"
#include "support/temp_dir.h"
#include "vorn/core/mask_image.h"
#include "vorn/io/image_compressor.h"
#include "vorn/io/image_reader.h"

namespace vorn::cli {
namespace {

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

constexpr const char* kToneLayer = R"({"format": "vorn preset", "version": 1, "name": "tone",
  "layers": [{"effects": [{"id": "VORNExposureEffect", "values": {"Exposure": 30}},
                          {"id": "VORNContrastEffect", "values": {"Contrast": 70}}]}]})";

TEST(CliPresets, AOneLayerPresetWritesWhatTheSameEffectsWrite) {
  test::TempDir folder("vorn_cli_preset");
  const std::string input = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  const auto preset = folder.path() / "tone.json";
  writeFile(preset, kToneLayer);
  const std::string layered = (folder.path() / "layered.tif").string();
  const std::string direct = (folder.path() / "direct.tif").string();
  const CommandRun viaPreset =
      run({"apply", input, layered, "--preset", preset.string(), "--depth", "16"});
  ASSERT_EQ(viaPreset.code, kExitOk) << viaPreset.err;
  ASSERT_EQ(run({"apply", input, direct, "--depth", "16", "--profile", "working", "--effect",
                 "VORNExposureEffect:Exposure=30", "--effect", "VORNContrastEffect:Contrast=70"})
                .code,
            kExitOk);
  // A Normal layer at full opacity is its effects' output exactly.
  EXPECT_EQ(test::raster::readBytes(layered), test::raster::readBytes(direct));
}

TEST(CliPresets, RenderAppliesTheDocumentsCropAndRefusesBadFilesFirst) {
  test::TempDir folder("vorn_cli_render");
  const std::string input = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  writeFile(folder.path() / "tone.json", kToneLayer);
  writeFile(folder.path() / "edit.json",
            R"({"format": "vorn document", "version": 1, "source": ")" + input +
                R"(", "presetFile": "tone.json",
               "crop": {"x": 100, "y": 50, "width": 640, "height": 400}})");
  const std::string output = (folder.path() / "out.jpg").string();
  const CommandRun rendered = run({"render", (folder.path() / "edit.json").string(), output});
  ASSERT_EQ(rendered.code, kExitOk) << rendered.err;
  EXPECT_EQ(ImageReader::getImageSize(classifyImageFile(output)), _Size<int>(640, 400));

  // Mask blobs sit beside the document, wherever the photo is.
  std::vector<std::uint8_t> blob;
  ImageCompressorProxy::compressMask(MaskImage(_Size<int>(64, 40), 0.5f), blob);
  std::ofstream(folder.path() / "half.mask", std::ios::binary)
      .write(reinterpret_cast<const char*>(blob.data()), static_cast<std::streamsize>(blob.size()));
  writeFile(folder.path() / "masked.json",
            R"({"format": "vorn document", "version": 1, "source": ")" + input +
                R"(", "preset": {"layers": [{"effects": [{"id": "VORNExposureEffect",
               "values": {"Exposure": 30}}], "mask": {"blob": "half.mask"}}]}})");
  const CommandRun masked = run({"render", (folder.path() / "masked.json").string(),
                                 (folder.path() / "masked.jpg").string()});
  EXPECT_EQ(masked.code, kExitOk) << masked.err;

  writeFile(folder.path() / "bad.json", R"({"format": "vorn preset", "version": 1,
    "layers": [{"effects": [{"id": "VORNExposureEffect", "values": {"Exposur": 3}}]}]})");
  const std::string untouched = (folder.path() / "never.jpg").string();
  const CommandRun bad =
      run({"apply", input, untouched, "--preset", (folder.path() / "bad.json").string()});
  EXPECT_EQ(bad.code, kExitUsage);
  EXPECT_NE(bad.err.find("bad.json:2: layers[0].effects[0].values.Exposur"), std::string::npos)
      << bad.err;
  EXPECT_EQ(run({"render", (folder.path() / "missing.json").string(), untouched}).code,
            kExitFailed);
  EXPECT_FALSE(std::filesystem::exists(untouched));
}

}  // namespace
}  // namespace vorn::cli
