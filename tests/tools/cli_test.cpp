#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "apply_options.h"
#include "cli.h"
#include "cli_test_support.h"
#include "effect_chain.h"
#include "effects/effect_test_support.h"
#include "error_echo.h"
#include "io/input_limits.h"
#include "io/raster_test_support.h"
#include "support/log_capture.h"
#include "support/scoped_setting.h"
#include "support/temp_dir.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/image_reader.h"

namespace vorn::cli {
namespace {

std::shared_ptr<Effect> make(const std::string& text, std::string& error,
                             std::vector<std::string>* warnings = nullptr) {
  EffectRequest request;
  std::vector<std::string> ignored;
  if (!parseEffectRequest(text, request, error)) return nullptr;
  return makeRequestedEffect(request, error, warnings ? *warnings : ignored);
}

TEST(CliEffectRequest, ParsesIdentifierAndValuesAndRejectsBadSyntax) {
  EffectRequest request;
  std::string error;
  ASSERT_TRUE(parseEffectRequest("VORNDynBrightnessEffect: Smart Tone = 40 ,X=1", request, error));
  EXPECT_EQ(request.id, "VORNDynBrightnessEffect");
  ASSERT_EQ(request.values.size(), 2u);
  EXPECT_EQ(request.values[0].first, "Smart Tone");
  EXPECT_EQ(request.values[0].second, "40");
  EXPECT_EQ(request.values[1].first, "X");

  ASSERT_TRUE(parseEffectRequest("VORNFadeEffect", request, error));
  EXPECT_TRUE(request.values.empty());

  EXPECT_FALSE(parseEffectRequest(":Exposure=3", request, error));
  EXPECT_NE(error.find("no identifier"), std::string::npos);
  EXPECT_FALSE(parseEffectRequest("VORNExposureEffect:Exposure", request, error));
  EXPECT_NE(error.find("Name=value"), std::string::npos);
  EXPECT_FALSE(parseEffectRequest("VORNExposureEffect:=4", request, error));
}

TEST(CliEffectRequest, UnknownIdentifiersNamesAndValuesAreClearErrors) {
  std::string error;
  EXPECT_EQ(make("VORNNoSuchEffect", error), nullptr);
  EXPECT_NE(error.find("unknown effect \"VORNNoSuchEffect\""), std::string::npos);
  EXPECT_EQ(make("vornexposureeffect", error), nullptr);
  EXPECT_NE(error.find("did you mean \"VORNExposureEffect\""), std::string::npos);

  EXPECT_EQ(make("VORNExposureEffect:Brightness=3", error), nullptr);
  EXPECT_NE(error.find("no parameter \"Brightness\""), std::string::npos);
  EXPECT_NE(error.find("\"Exposure\""), std::string::npos) << "lists the real names";

  for (const char* bad : {"nan", "inf", "-inf", "abc", "", "3x"}) {
    EXPECT_EQ(make(std::string("VORNExposureEffect:Exposure=") + bad, error), nullptr) << bad;
    EXPECT_NE(error.find("finite number"), std::string::npos) << bad;
  }
}

TEST(CliEffectRequest, NamesIgnoreCaseAndOutOfRangeValuesAreClampedWithAWarning) {
  std::string error;
  std::vector<std::string> warnings;
  auto effect = make("VORNExposureEffect:exposure=250", error, &warnings);
  ASSERT_NE(effect, nullptr) << error;
  EXPECT_FLOAT_EQ(effect->parameters()[0].value(), 100.0f);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("clamped to 100"), std::string::npos);

  warnings.clear();
  effect = make("VORNExposureEffect:Exposure=-12.5", error, &warnings);
  ASSERT_NE(effect, nullptr);
  EXPECT_FLOAT_EQ(effect->parameters()[0].value(), -12.5f);
  EXPECT_TRUE(warnings.empty());
}

TEST(CliEffectRequest, DataSuffixSetsAParametersOptionalText) {
  std::string error;
  auto effect = make("VORNLUTMappingEffect:amount.data=looks/warm film.cube,Amount=40", error);
  ASSERT_NE(effect, nullptr) << error;
  const ParameterOptionalData data = effect->parameters()[0].optionalData();
  const auto* text = boost::get<std::string>(&data);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(*text, "looks/warm film.cube");
  EXPECT_FLOAT_EQ(effect->parameters()[0].value(), 40.0f);
  EXPECT_EQ(make("VORNLUTMappingEffect:File.data=a.cube", error), nullptr);
  EXPECT_NE(error.find("no parameter \"File\""), std::string::npos);
}

TEST(CliEffectChain, AppliesNonDefaultEffectsInPlaceOverTheWholeFrame) {
  const auto source = test::makeTestImage(64, 48);
  std::string error;
  const auto idle = make("VORNExposureEffect", error);
  auto frame = std::make_shared<ImageFrame>(*source);
  const PixelRGB<float>* pixels = frame->data;
  ASSERT_TRUE(applyEffects(frame, {idle}, error)) << error;
  EXPECT_EQ(test::maxDifference(*frame, *source), 0.0f) << "an effect at its defaults is not run";

  const auto brighter = make("VORNExposureEffect:Exposure=40", error);
  const auto local = make("VORNShadowsEffect:Shadows=60", error);
  ASSERT_TRUE(brighter && local) << error;
  ASSERT_TRUE(applyEffects(frame, {idle, brighter, local}, error)) << error;
  EXPECT_EQ(frame->data, pixels) << "the result is written into the frame itself";
  const auto brightened = test::render(*brighter, source);
  ASSERT_NE(brightened, nullptr);
  const auto expected = test::render(*local, brightened);
  ASSERT_NE(expected, nullptr);
  EXPECT_EQ(test::maxDifference(*frame, *expected), 0.0f);
  EXPECT_FALSE(applyEffects(nullptr, {brighter}, error));
  EXPECT_FALSE(error.empty());
}

TEST(CliCommands, EffectsListsEveryIdentifierWithItsParameters) {
  const CommandRun all = run({"effects"});
  ASSERT_EQ(all.code, kExitOk);
  for (const std::string& id : EffectFactory::instance().supportedEffects()) {
    EXPECT_NE(all.out.find(id + "\n"), std::string::npos) << id;
  }
  const CommandRun one = run({"effects", "VORNExposureEffect"});
  EXPECT_EQ(one.out, "VORNExposureEffect\n  Exposure = 0  [-100, 100]\n");
  EXPECT_EQ(run({"effects", "VORNNope"}).code, kExitUsage);
  EXPECT_EQ(run({"frobnicate"}).code, kExitUsage);
  EXPECT_EQ(run({}).code, kExitUsage);
}

TEST(CliCommands, HelpAfterACommandIsAnAnswerNotAUsageError) {
  for (const char* command : {"apply", "batch", "render", "thumbnail", "info"}) {
    const CommandRun help = run({command, "in.jpg", "--help"});
    EXPECT_EQ(help.code, kExitOk) << command;
    EXPECT_NE(help.out.find("vorn batch INPUT"), std::string::npos) << command;
    EXPECT_TRUE(help.err.empty()) << command << ": " << help.err;
  }
}

TEST(CliCommands, ApplyWritesTheProcessedPhotoAndRefusesBadRequestsFirst) {
  test::TempDir folder("vorn_cli");
  const std::string input = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  const std::string output = (folder.path() / "out.jpg").string();

  const CommandRun applied =
      run({"apply", input, output, "--effect", "VORNExposureEffect:Exposure=30", "--effect",
           "VORNContrastEffect", "--long-side", "640"});
  ASSERT_EQ(applied.code, kExitOk) << applied.err;
  const _Size<int> written = ImageReader::getImageSize(output);
  EXPECT_EQ(written.width, 640);
  EXPECT_EQ(written.height, 400);
  EXPECT_NE(applied.out.find(": 640 x 400, 2 effects"), std::string::npos) << applied.out;
  const auto metadata = ImageReader::readMetadata(output);
  ASSERT_NE(metadata, nullptr);
  EXPECT_EQ(metadata->cameraModel, "Canon EOS 70D") << "EXIF travels with the photo";

  const std::string tiff = (folder.path() / "out.tif").string();
  ASSERT_EQ(run({"apply", input, tiff, "--depth", "16"}).code, kExitOk);
  EXPECT_EQ(ImageReader::getPreciseColorDepth(tiff), 16);

  const std::string untouched = (folder.path() / "never.jpg").string();
  for (const std::vector<std::string>& bad :
       {std::vector<std::string>{"apply", input, untouched, "--effect", "VORNNoSuch"},
        {"apply", input, untouched, "--effect", "VORNExposureEffect:Gain=2"},
        {"apply", input, (folder.path() / "out.png").string()},
        {"apply", input, untouched, "--depth", "16"},
        {"apply", input, untouched, "--quality", "0"},
        {"apply", input, untouched, "--bogus", "1"},
        {"apply", input},
        {"apply", output, output}}) {
    EXPECT_EQ(run(bad).code, kExitUsage) << bad.back();
  }
  EXPECT_FALSE(std::filesystem::exists(untouched));

  const std::string broken = (folder.path() / "broken.jpg").string();
  std::ofstream(broken, std::ios::binary) << std::string("\xFF\xD8\xFF\xE0", 4) << "truncated";
  EXPECT_EQ(run({"apply", broken, untouched}).code, kExitFailed);
  const std::string png = (folder.path() / "photo.png").string();
  std::ofstream(png, std::ios::binary) << "\x89PNG";
  EXPECT_EQ(run({"apply", png, untouched}).code, kExitFailed);
  EXPECT_EQ(run({"apply", (folder.path() / "missing.jpg").string(), untouched}).code, kExitFailed);
  std::set<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
    left.insert(entry.path().filename().string());
  EXPECT_EQ(left, (std::set<std::string>{"out.jpg", "out.tif", "broken.jpg", "photo.png"}))
      << "no output and no temporary file is left by a failed run";
}

TEST(CliCommands, PerPixelChainsStreamToTheSameBytesAsTheWholeFrame) {
  std::string error;
  const auto exposure = make("VORNExposureEffect:Exposure=30", error);
  const auto automatic = make("VORNContrastAutoEffect:Amount=50", error);
  const auto idleAutomatic = make("VORNContrastAutoEffect:Amount=0", error);
  const auto dehaze = make("VORNDehazeEffect:Amount=40", error);
  ASSERT_TRUE(exposure && automatic && idleAutomatic && dehaze) << error;
  EXPECT_TRUE(effectsRunBandByBand({exposure, idleAutomatic}));
  EXPECT_FALSE(effectsRunBandByBand({exposure, automatic})) << "it measures the picture";
  EXPECT_FALSE(effectsRunBandByBand({dehaze})) << "it reads a neighbourhood";

  // The source is sRGB, so "--profile working" writes the same pixels by the whole-frame path.
  test::TempDir folder("vorn_cli");
  const std::string input = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  for (const char* name : {"out.jpg", "out.tif"}) {
    SCOPED_TRACE(name);
    const std::string streamed = (folder.path() / (std::string("s_") + name)).string();
    const std::string whole = (folder.path() / (std::string("w_") + name)).string();
    const std::vector<std::string> effects = {"--effect", "VORNExposureEffect:Exposure=30",
                                              "--effect", "VORNContrastEffect:Contrast=70"};
    std::vector<std::string> a = {"apply", input, streamed};
    std::vector<std::string> b = {"apply", input, whole, "--profile", "working"};
    a.insert(a.end(), effects.begin(), effects.end());
    b.insert(b.end(), effects.begin(), effects.end());
    ASSERT_EQ(run(a).code, kExitOk);
    ASSERT_EQ(run(b).code, kExitOk);
    EXPECT_EQ(test::raster::readBytes(streamed), test::raster::readBytes(whole));
  }
}

TEST(CliCommands, LensCorrectionUsesTheInputsLensUnlessTold) {
  test::TempDir folder("vorn_cli");
  const std::string input = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  const auto bytes = [](const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const auto apply = [&](const std::string& name, const std::string& effect) {
    const std::string output = (folder.path() / name).string();
    std::vector<std::string> args = {"apply", input, output, "--long-side", "320"};
    if (!effect.empty()) args.insert(args.end(), {"--effect", effect});
    const CommandRun ran = run(args);
    EXPECT_EQ(ran.code, kExitOk) << ran.err;
    return bytes(output);
  };
  const std::string plain = apply("plain.jpg", "");
  ASSERT_FALSE(plain.empty());
  // The photo's EF50mm f/1.8 II on an EOS 70D is in the lens database.
  EXPECT_NE(apply("own.jpg", "VORNLensCorrectionEffect:Distortion=100"), plain);
  EXPECT_EQ(
      apply("unknown.jpg",
            "VORNLensCorrectionEffect:Distortion=100,Distortion.data=lens model=No Such Lens"),
      plain)
      << "a shot given on the command line wins, and an unknown lens changes nothing";
}

TEST(CliApplyOptions, ExportOptionsParseAndImpossibleCombinationsAreUsageErrors) {
  ApplyOptions options;
  std::string error;
  ASSERT_TRUE(parseApplyOptions({"in.dng", "out.jpg", "--profile", "adobe", "--subsampling", "420",
                                 "--progressive", "--optimize-huffman", "--quality", "80"},
                                options, error))
      << error;
  EXPECT_EQ(options.profile, ProfileChoice::Adobe);
  EXPECT_EQ(options.subsampling, JpegSubsampling::S420);
  EXPECT_TRUE(options.progressive);
  EXPECT_TRUE(options.optimizeHuffman);
  EXPECT_EQ(options.quality, 80);
  ASSERT_TRUE(parseApplyOptions(
      {"--depth", "32", "in.jpg", "--long-side", "500", "out.tiff", "--profile", "working"},
      options, error));
  EXPECT_EQ(options.output, "out.tiff");
  EXPECT_EQ(options.depth, 32);
  EXPECT_EQ(options.longestSide, 500);
  EXPECT_EQ(options.profile, ProfileChoice::Working);
  EXPECT_FALSE(options.progressive);
  EXPECT_EQ(options.failOn, FailOn::Error) << "damaged input is refused unless asked otherwise";
  ASSERT_TRUE(parseApplyOptions({"in.jpg", "out.jpg", "--fail-on", "none"}, options, error));
  EXPECT_EQ(options.failOn, FailOn::None);

  for (const std::vector<std::string>& bad :
       {std::vector<std::string>{"in.jpg", "out.jpg", "--profile", "cmyk"},
        {"in.jpg", "out.jpg", "--subsampling", "411"},
        {"in.jpg", "out.tif", "--progressive"},
        {"in.jpg", "out.tif", "--subsampling", "444"},
        {"in.jpg", "out.jpg", "--depth", "16"},
        {"in.jpg", "out.png"},
        {"in.jpg", "out.jpg", "--long-side"},
        {"in.jpg", "out.jpg", "--fail-on", "warning"},
        {"in.jpg", "out.jpg", "--quality", "101"}}) {
    EXPECT_FALSE(parseApplyOptions(bad, options, error)) << bad.back();
    EXPECT_FALSE(error.empty());
  }
}

TEST(CliCommands, ApplyChecksTheOutputFirstAndKeepsMetadataAtEveryDepth) {
  test::TempDir folder("vorn_cli");
  const std::string input = test::raster::dataFile("fallenleaf_canon_eos70d.jpg");
  const std::string broken = (folder.path() / "broken.jpg").string();
  std::ofstream(broken, std::ios::binary) << std::string("\xFF\xD8\xFF\xE0", 4) << "truncated";
  // The folder is refused before the (broken) input is decoded.
  const CommandRun nowhere = run({"apply", broken, (folder.path() / "no" / "out.jpg").string()});
  EXPECT_EQ(nowhere.code, kExitFailed);
  EXPECT_NE(nowhere.err.find("does not exist"), std::string::npos) << nowhere.err;
  EXPECT_EQ(nowhere.err.find("decoded"), std::string::npos) << nowhere.err;

  const std::string hdr = (folder.path() / "hdr.tif").string();
  ASSERT_EQ(run({"apply", input, hdr, "--depth", "32", "--long-side", "640"}).code, kExitOk);
  EXPECT_EQ(ImageReader::getImageSize(hdr), _Size<int>(640, 400));
  EXPECT_EQ(ImageReader::getPreciseColorDepth(hdr), 32);
  const auto metadata = ImageReader::readMetadata(hdr);
  ASSERT_NE(metadata, nullptr);
  EXPECT_EQ(metadata->cameraModel, "Canon EOS 70D");

  const std::string wide = (folder.path() / "wide.tif").string();
  ASSERT_EQ(run({"apply", input, wide, "--depth", "16", "--profile", "prophoto"}).code, kExitOk);
  ImageMagickReader reader;
  ASSERT_EQ(reader.openImage(wide, {-1, -1}), kImageReaderOk);
  EXPECT_EQ(reader.getOpenedImage()->workingImage()->colorProfile->name(),
            ColorProfileType::proPhotoRGB()->name());

  const test::ScopedSetting cap(detail::kMaxPixelsSetting, "1000");
  const CommandRun capped = run({"apply", input, (folder.path() / "capped.jpg").string()});
  EXPECT_EQ(capped.code, kExitFailed);
  EXPECT_NE(capped.err.find("pixel cap of 1000"), std::string::npos) << capped.err;
}

// Valid photos wider or taller than ImageMagick's 16000-pixel policy allows, and a damaged
// header that claims 33280 pixels: the first two are written, none ends the process.
TEST(CliCommands, ExtremeSidesAreWrittenAndNoneEndsTheProcess) {
  test::TempDir folder("vorn_cli");
  struct Case {
    const char* name;
    _Size<int> size;
  };
  for (const Case c : {Case{"wide_16001x8.jpg", {16001, 8}}, {"tall_8x16500.jpg", {8, 16500}}}) {
    const std::string input = test::sharedSample("hostile", c.name);
    if (input.empty()) GTEST_SKIP() << "sample " << c.name << " is absent";
    const std::string output = (folder.path() / c.name).string();
    const CommandRun applied =
        run({"apply", input, output, "--effect", "VORNExposureEffect:Exposure=10"});
    ASSERT_EQ(applied.code, kExitOk) << c.name << ": " << applied.err;
    EXPECT_EQ(ImageReader::getImageSize(output), c.size) << c.name;
  }
  const std::string damaged = test::sharedSample("hostile", "sof_33280x341.jpg");
  if (damaged.empty()) GTEST_SKIP() << "sample sof_33280x341.jpg is absent";
  const std::string output = (folder.path() / "sof.tif").string();
  const CommandRun applied = run({"apply", damaged, output, "--depth", "16"});
  if (applied.code == kExitOk) {
    EXPECT_EQ(ImageReader::getImageSize(output), _Size<int>(33280, 341));
  } else {
    EXPECT_EQ(applied.code, kExitFailed);
    EXPECT_FALSE(applied.err.empty());
  }
}

// Every file of the hostile samples gets the outcome its notes ask for, and none ends the
// process: damaged raw files are errors, damaged JPEGs are refused unless --fail-on none.
TEST(CliCommands, EveryHostileSampleGetsItsOutcome) {
  test::TempDir folder("vorn_cli");
  struct Case {
    const char* name;
    int exit;
    int exitWhenNone;  ///< with --fail-on none; -1 when not tried
  };
  const Case cases[] = {
      {"libraw_segv_64b.dng", kExitFailed, kExitFailed},
      {"libraw_segv_cfa_tiled.dng", kExitFailed, -1},
      {"dng_bad_tile_black_frame.dng", kExitFailed, -1},
      {"dng_mutant_black_frame.dng", kExitFailed, -1},
      {"dng_4kb_declares_12mp.dng", kExitFailed, -1},
      {"garbage_mid.jpg", kExitFailed, kExitOk},
      {"bad_huffman.jpg", kExitFailed, kExitOk},
  };
  for (const Case& c : cases) {
    const std::string input = test::sharedSample("hostile", c.name);
    if (input.empty()) GTEST_SKIP() << "sample " << c.name << " is absent";
    const std::string output = (folder.path() / (std::string(c.name) + ".jpg")).string();
    const std::vector<std::string> args = {"apply", input, output, "--effect",
                                           "VORNExposureEffect:Exposure=10"};
    const CommandRun refused = run(args);
    EXPECT_EQ(refused.code, c.exit) << c.name << ": " << refused.err;
    EXPECT_NE(refused.err.find(input), std::string::npos) << refused.err;
    EXPECT_FALSE(std::filesystem::exists(output)) << c.name;
    if (c.exitWhenNone < 0) continue;
    std::vector<std::string> lenient = args;
    lenient.insert(lenient.end(), {"--fail-on", "none"});
    EXPECT_EQ(run(lenient).code, c.exitWhenNone) << c.name;
  }
}

TEST(CliCommands, LibraryErrorsAreEchoedWithTheFileButWarningsAreNot) {
  std::ostringstream echoed;  // outlives the log, which flushes its streams when it shuts down
  test::LogCapture log;
  echoLibraryErrors(echoed);
  test::TempDir folder("vorn_cli");
  const std::string broken = (folder.path() / "broken.tif").string();
  std::ofstream(broken, std::ios::binary) << std::string("II*\0\x08\0\0\0", 8) << "junk";
  LogWarning("%s", "a warning the person does not need");
  EXPECT_EQ(run({"apply", broken, (folder.path() / "out.jpg").string()}).code, kExitFailed);
  Logger::LogInstance().Flush();
  EXPECT_NE(echoed.str().find("vorn: "), std::string::npos);
  EXPECT_NE(echoed.str().find(broken), std::string::npos) << echoed.str();
  EXPECT_EQ(echoed.str().find("::"), std::string::npos) << "signatures are not for people";
  EXPECT_EQ(echoed.str().find("a warning"), std::string::npos);

  // While a progress line owns the terminal, echoes go to it and come back when it ends.
  std::vector<std::string> above;
  {
    const EchoRedirect redirect([&](const std::string& line) { above.push_back(line); });
    LogError("%s", "first failure");
    Logger::LogInstance().Flush();
  }
  LogError("%s", "second failure");
  Logger::LogInstance().Flush();
  ASSERT_EQ(above.size(), 1u);
  EXPECT_NE(above[0].find("vorn: "), std::string::npos);
  EXPECT_NE(above[0].find("first failure"), std::string::npos);
  EXPECT_EQ(echoed.str().find("first failure"), std::string::npos);
  EXPECT_NE(echoed.str().find("second failure"), std::string::npos);
}

}  // namespace
}  // namespace vorn::cli
