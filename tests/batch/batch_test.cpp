#include "vorn/batch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "io/raster_test_support.h"
#include "io/raw_test_support.h"
#include "support/temp_dir.h"
#include "tools/cli_test_support.h"
#include "vorn/core/memory_manager.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_reader.h"

namespace vorn {
namespace {

constexpr const char* kTonePreset = R"({"format": "vorn preset", "version": 1, "name": "tone",
  "layers": [{"effects": [{"id": "VORNExposureEffect", "values": {"Exposure": 30}},
                          {"id": "VORNContrastEffect", "values": {"Contrast": 70}}]}]})";

struct Progress {
  std::vector<double> fractions;
  std::vector<std::string> stages;
  std::string cancelAt;  ///< the stage at which the flag is set
  volatile int* cancel = nullptr;
};

void recordProgress(double fraction, const char* stage, void* user) {
  auto* progress = static_cast<Progress*>(user);
  progress->fractions.push_back(fraction);
  progress->stages.emplace_back(stage);
  if (progress->cancel && progress->cancelAt == stage)
    __atomic_store_n(progress->cancel, 1, __ATOMIC_RELAXED);
}

// What a failed call may leave behind: the fixtures it was given and nothing else.
std::vector<std::string> filesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

class BatchFunctions : public ::testing::Test {
 protected:
  void SetUp() override {
    std::ofstream(preset) << kTonePreset;
    vornBatchDefaultOptions(&options);
  }
  // An export render turns the process-wide pool caching off; later tests expect it as it was.
  void TearDown() override { MemoryManager::instance().setCachingEnabled(cachingBefore); }

  const bool cachingBefore = MemoryManager::instance().isCachingEnabled();
  int apply(const std::string& from, const std::string& presetPath, const std::string& to,
            Progress* progress = nullptr, volatile int* cancel = nullptr) {
    return applyPreset(from.c_str(), presetPath.c_str(), to.c_str(), &options,
                       progress ? recordProgress : nullptr, progress, cancel, &code, message,
                       sizeof message);
  }

  test::TempDir folder{"vorn_batch"};
  const std::string input = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  const std::string preset = (folder.path() / "tone.json").string();
  const std::string output = (folder.path() / "out.tif").string();
  VornBatchOptions options{};
  int code = -1;
  char message[512] = "unset";
};

TEST_F(BatchFunctions, ApplyPresetWritesWhatTheCommandWritesAndReportsEachStage) {
  options.depth = 16;
  Progress progress;
  ASSERT_EQ(apply(input, preset, output, &progress), VORN_BATCH_OK) << message;
  EXPECT_EQ(code, VORN_BATCH_OK);
  EXPECT_STREQ(message, "");
  ASSERT_FALSE(progress.fractions.empty());
  EXPECT_TRUE(std::is_sorted(progress.fractions.begin(), progress.fractions.end()));
  EXPECT_EQ(progress.fractions.back(), 1.0);

  const std::string viaCommand = (folder.path() / "command.tif").string();
  const cli::CommandRun run =
      cli::run({"apply", input, viaCommand, "--preset", preset, "--depth", "16"});
  ASSERT_EQ(run.code, cli::kExitOk) << run.err;
  EXPECT_EQ(test::raster::readBytes(output), test::raster::readBytes(viaCommand));
  EXPECT_EQ(filesIn(folder.path()),
            (std::vector<std::string>{"command.tif", "out.tif", "tone.json"}));
}

TEST_F(BatchFunctions, ThumbnailAndDocumentRenderHonourSizeAndCrop) {
  options.longSide = 160;
  const std::string thumbnail = (folder.path() / "thumb.jpg").string();
  ASSERT_EQ(generateThumbnail(input.c_str(), thumbnail.c_str(), &options, nullptr, nullptr, nullptr,
                              &code, message, sizeof message),
            VORN_BATCH_OK)
      << message;
  const _Size<int> small = ImageReader::getImageSize(classifyImageFile(thumbnail));
  EXPECT_EQ(std::max(small.width, small.height), 160);

  std::ofstream(folder.path() / "edit.json")
      << R"({"format": "vorn document", "version": 1, "source": ")" + input +
             R"(", "presetFile": "tone.json",
             "crop": {"x": 100, "y": 50, "width": 640, "height": 400}})";
  options.longSide = 0;
  const std::string document = (folder.path() / "edit.json").string();
  const std::string rendered = (folder.path() / "doc.jpg").string();
  ASSERT_EQ(doPictoramix(nullptr, document.c_str(), rendered.c_str(), &options, nullptr, nullptr,
                         nullptr, &code, message, sizeof message),
            VORN_BATCH_OK)
      << message;
  EXPECT_EQ(ImageReader::getImageSize(classifyImageFile(rendered)), _Size<int>(640, 400));
  // A preset instead of a document renders the given source uncropped.
  options.longSide = 300;
  ASSERT_EQ(doPictoramix(input.c_str(), preset.c_str(), rendered.c_str(), &options, nullptr,
                         nullptr, nullptr, &code, message, sizeof message),
            VORN_BATCH_OK)
      << message;
  const _Size<int> whole = ImageReader::getImageSize(classifyImageFile(rendered));
  EXPECT_EQ(std::max(whole.width, whole.height), 300);
}

TEST_F(BatchFunctions, BadInputsFailWithTheirCodeAndLeaveNothingBehind) {
  const std::vector<std::string> before = filesIn(folder.path());
  EXPECT_EQ(apply(input + ".missing.jpg", preset, output), VORN_BATCH_INPUT_MISSING);
  EXPECT_NE(std::string(message).find(".missing.jpg: no such file"), std::string::npos) << message;

  const std::string bad = (folder.path() / "bad.json").string();
  std::ofstream(bad) << R"({"format": "vorn preset", "version": 1,
    "layers": [{"effects": [{"id": "VORNExposureEffect", "values": {"Exposur": 3}}]}]})";
  EXPECT_EQ(apply(input, bad, output), VORN_BATCH_BAD_PRESET);
  EXPECT_NE(std::string(message).find("bad.json:2: layers[0].effects[0].values.Exposur"),
            std::string::npos)
      << message;
  std::filesystem::remove(bad);

  const std::string truncated = (folder.path() / "truncated.jpg").string();
  {
    const std::vector<unsigned char> bytes = test::raster::readBytes(input);
    std::ofstream(truncated, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), 2000);
  }
  EXPECT_EQ(apply(truncated, preset, output), VORN_BATCH_INPUT_FAILED) << message;
  std::filesystem::remove(truncated);

  EXPECT_EQ(apply(input, preset, (folder.path() / "no_folder" / "out.jpg").string()),
            VORN_BATCH_OUTPUT_FAILED)
      << message;
  EXPECT_EQ(apply(input, preset, (folder.path() / "out.png").string()), VORN_BATCH_BAD_ARGUMENT);
  options.quality = 0;
  EXPECT_EQ(apply(input, preset, output), VORN_BATCH_BAD_ARGUMENT);
  EXPECT_NE(std::string(message).find("quality"), std::string::npos) << message;
  EXPECT_EQ(applyPreset(nullptr, preset.c_str(), output.c_str(), nullptr, nullptr, nullptr, nullptr,
                        nullptr, nullptr, 0),
            VORN_BATCH_BAD_ARGUMENT);
  // A raw development of a JPEG is refused rather than guessed at.
  vornBatchDefaultOptions(&options);
  EXPECT_EQ(applyRawDevelop(input.c_str(), nullptr, output.c_str(), &options, nullptr, nullptr,
                            nullptr, &code, message, sizeof message),
            VORN_BATCH_INPUT_FAILED);
  EXPECT_EQ(filesIn(folder.path()), before);
}

TEST_F(BatchFunctions, HostileEditFilesAreRefusedAsBadPresets) {
  const std::string rendered = (folder.path() / "doc.jpg").string();
  const auto refuse = [&](const std::string& name, const std::string& text) {
    const std::string path = (folder.path() / name).string();
    std::ofstream(path, std::ios::binary) << text;
    EXPECT_EQ(doPictoramix(input.c_str(), path.c_str(), rendered.c_str(), &options, nullptr,
                           nullptr, nullptr, &code, message, sizeof message),
              VORN_BATCH_BAD_PRESET)
        << name;
    EXPECT_NE(std::string(message).find(name), std::string::npos) << message;
    std::filesystem::remove(path);
  };
  refuse("deep.json", R"({"source": "x.jpg", "a": )" + std::string(200000, '['));
  refuse("truncated.json", R"({"format": "vorn document", "version": 1, "sou)");
  refuse("wrong_type.json", R"({"format": "vorn document", "version": 1, "source": 7})");
  refuse("absent.json", "");
  EXPECT_FALSE(std::filesystem::exists(rendered));
}

TEST_F(BatchFunctions, CancelBeforeOrDuringARunWritesNothing) {
  volatile int cancel = 1;
  Progress progress;
  EXPECT_EQ(apply(input, preset, output, &progress, &cancel), VORN_BATCH_CANCELLED);
  EXPECT_TRUE(progress.fractions.empty());
  for (const char* stage : {"render", "write"}) {
    cancel = 0;
    Progress during;
    during.cancel = &cancel;
    during.cancelAt = stage;
    EXPECT_EQ(apply(input, preset, output, &during, &cancel), VORN_BATCH_CANCELLED) << stage;
    EXPECT_EQ(during.stages.back(), stage);
  }
  EXPECT_EQ(filesIn(folder.path()), std::vector<std::string>{"tone.json"});
}

TEST_F(BatchFunctions, RawDevelopRendersARawFileWithAPresetOnTop) {
  VORN_REQUIRE_SAMPLE(raw, "bmpcc4k_imageio.dng");
  options.longSide = 400;
  const std::string developed = (folder.path() / "raw.jpg").string();
  Progress progress;
  ASSERT_EQ(applyRawDevelop(raw.c_str(), preset.c_str(), developed.c_str(), &options,
                            recordProgress, &progress, nullptr, &code, message, sizeof message),
            VORN_BATCH_OK)
      << message;
  const _Size<int> size = ImageReader::getImageSize(classifyImageFile(developed));
  EXPECT_EQ(std::max(size.width, size.height), 400);
  EXPECT_EQ(progress.stages.back(), "done");
}

TEST_F(BatchFunctions, MessagesAreCutToTheCallersBuffer) {
  char tiny[8];
  EXPECT_EQ(applyPreset("/nonexistent/photo.jpg", preset.c_str(), output.c_str(), nullptr, nullptr,
                        nullptr, nullptr, nullptr, tiny, sizeof tiny),
            VORN_BATCH_INPUT_MISSING);
  EXPECT_STREQ(tiny, "/nonexi");
}

}  // namespace
}  // namespace vorn
