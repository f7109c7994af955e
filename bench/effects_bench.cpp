// Tone effects on a 24 MP frame, each timed against a parallel copy of the frame in the same
// iterations, with a warm and a cold pool.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bench_data.h"
#include "bench_floor.h"
#include "core/parallel.h"
#include "effects/face/face_detection.h"
#include "effects/kernels/tone_curve.h"
#include "effects/tone/tone_shapes.h"
#include "vorn/core/image_data.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/effects/face_effects.h"
#include "vorn/effects/lens_effects.h"

namespace vorn::bench {
namespace {

/// A portrait's face on the bench frame, which has none of its own: the face effects are timed
/// retouching it, as detection (BM_FaceDetection) is remembered per picture after one render.
constexpr _Rect<int> kBenchFace(2400, 1200, 1200, 1300);

// One scan of the frame by the cascades, nothing remembered between iterations.
void BM_FaceDetection(benchmark::State& state) {
  benchmark::DoNotOptimize(benchFrame().get());  // made before the clock starts
  for (auto _ : state) {
    detail::clearDetectedFaces();
    const auto faces =
        detail::detectFaces(*benchFrame(), benchFrame()->rect(), detail::RenderControl(nullptr));
    benchmark::DoNotOptimize(faces.data());
  }
}

void BM_ExposureCurveFill(benchmark::State& state) {
  const detail::ToneTables& tables = detail::toneTables();
  for (auto _ : state) {
    auto lookup = detail::makeToneCurve(
        [&](float x) { return detail::exposureCurve(x, 1.28f, tables); }, 0.85f);
    benchmark::DoNotOptimize(lookup.get());
  }
}

/// A 33^3 .cube table (a gamma per channel and a little crosstalk) in the temporary folder,
/// written once: the LUT effect's work does not depend on the entries.
const std::string& benchCubeFile() {
  static const std::string path = [] {
    const auto file = std::filesystem::temp_directory_path() / "vorn_bench_33.cube";
    std::ofstream out(file);
    constexpr int kSide = 33;
    out << "LUT_3D_SIZE " << kSide << "\n";
    for (int b = 0; b < kSide; ++b)
      for (int g = 0; g < kSide; ++g)
        for (int r = 0; r < kSide; ++r) {
          const double x = r / 32.0, y = g / 32.0, z = b / 32.0;
          out << std::pow(x, 0.8) << ' ' << 0.9 * y + 0.1 * x << ' ' << z * z << "\n";
        }
    return file.string();
  }();
  return path;
}

/// A shot whose lens the database profiles with every model (distortion, TCA, vignetting).
LensShot benchShot() {
  LensShot shot;
  shot.cameraMaker = "Canon";
  shot.cameraModel = "Canon EOS 5D Mark II";
  shot.lensMaker = "Canon";
  shot.lensModel = "Canon EF 24-105mm f/4L IS USM";
  shot.focalLength = 24.0f;
  shot.aperture = 4.0f;
  return shot;
}

// Warm: the steady state of an editor re-rendering, the pool already holding the working
// planes. Cold: a first render, every buffer fresh.
void runEffect(benchmark::State& state, Pool pool, const std::string& id,
               const std::vector<float>& values) {
  auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
  for (std::size_t i = 0; i < values.size(); ++i) effect->parameters()[i].setValue(values[i]);
  if (id == "VORNLUTMappingEffect") effect->parameters()[0].setOptionalData(benchCubeFile());
  if (auto* face = dynamic_cast<detail::FaceRetouchEffect*>(effect.get()))
    face->setKnownFaces({{kBenchFace, {}}});
  if (auto* lens = dynamic_cast<LensCorrectionEffect*>(effect.get())) lens->setShot(benchShot());
  std::shared_ptr<RGBf> warmDestination;
  timeAgainstFloor(
      state, pool, "copy", [pool] { return copyFloor(pool); },
      [&] {
        if (pool == Pool::Cold || !warmDestination)
          warmDestination = std::make_shared<RGBf>(kFrame, ColorProfileType::sRGB());
        EffectCallContext call(benchFrame(), warmDestination, nullptr, {}, nullptr, nullptr);
        const bool ok = effect->processImage(call);
        if (pool == Pool::Cold) warmDestination.reset();
        benchmark::ClobberMemory();
        return ok;
      });
  state.SetBytesProcessed(
      static_cast<std::int64_t>(state.iterations() * benchFrame()->sizeInBytes()));
}

/// The bench frame shrunk four times in each direction by point sampling: a preview's source.
const std::shared_ptr<RGBf>& previewFrame() {
  static const std::shared_ptr<RGBf> image = [] {
    constexpr int kShrink = 4;
    const _Size<int> size(kFrame.width / kShrink, kFrame.height / kShrink);
    auto img = std::make_shared<RGBf>(size, ColorProfileType::sRGB());
    detail::parallelRows(size.height, [&](int first, int end) {
      for (int y = first; y < end; ++y) {
        const PixelRGB<float>* source = benchFrame()->row(y * kShrink);
        PixelRGB<float>* row = img->row(y);
        for (int x = 0; x < size.width; ++x) row[x] = source[x * kShrink];
      }
    });
    return img;
  }();
  return image;
}

// A preview: the quarter-size frame rendered at a spatial scale of 0.25, timed against the full
// render of the same effect in the same iterations (the ratio should stay under a tenth).
void runPreview(benchmark::State& state, Pool pool, const std::string& id,
                const std::vector<float>& values) {
  const auto made = [&](std::shared_ptr<EffectContext> context) {
    auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
    for (std::size_t i = 0; i < values.size(); ++i) effect->parameters()[i].setValue(values[i]);
    if (context) effect->setContext(std::move(context));
    return effect;
  };
  auto full = made(nullptr);
  auto preview = made(std::make_shared<EffectContext>(
      EffectContext{0.25f, previewFrame()->size(), true, _Point<int>(0, 0)}));
  const auto render = [pool](Effect& effect, const std::shared_ptr<RGBf>& source) {
    auto destination = std::make_shared<RGBf>(source->size(), ColorProfileType::sRGB());
    EffectCallContext call(source, destination, nullptr, {}, nullptr, nullptr);
    const bool ok = effect.processImage(call);
    benchmark::ClobberMemory();
    return ok;
  };
  timeAgainstFloor(
      state, pool, "full render", [&] { return render(*full, benchFrame()); },
      [&] { return render(*preview, previewFrame()); });
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("BM_FaceDetection", BM_FaceDetection)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("BM_ExposureCurveFill", BM_ExposureCurveFill)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  const std::vector<std::pair<std::string, std::vector<float>>> settings = {
      {"VORNExposureEffect", {50}},
      {"VORNExposureEffectHDR", {50}},
      {"VORNBlackWhiteEffect", {40, -30}},
      {"VORNPhotoshopBrightnessEffect", {40}},
      {"VORNContrastEffect", {40}},
      {"VORNContrastLumaEffect", {40}},
      {"VORNContrastEffectHDR", {40}},
      {"VORNContrastAutoEffect", {60}},
      {"VORNSmartContrastEffect", {40, 10, 30, -10}},
      {"VORNCurveEffect", {65}},
      {"VORNFadeEffect", {40}},
      {"VORNDynBrightnessEffect", {40}},
      {"VORNDynBrightnessEffectHDR", {40}},
      {"VORNHighlightsEffect", {-40, 30}},
      {"VORNHighlightsEffectHDR", {-40, 30}},
      {"VORNShadowsEffect", {40}},
      {"VORNDynamicContrastEffect", {60}},
      {"VORNDehazeEffect", {60}},
      {"VORNSimpleBlurEffect", {10}},
      {"VORNSimpleBlurEffect", {80}},
      {"VORNSmartBlurEffect", {60, 100, 30}},
      {"VORNSmartBlurEffect", {60, 200, 30}},
      {"VORNGlowEffect", {60, 10}},
      {"VORNGlowEffect", {60, 90}},
      {"VORNSoftFocusFilterEffect", {60, 10}},
      {"VORNSoftFocusFilterEffect", {60, 90}},
      {"VORNOrtonFilterEffect", {60, 10}},
      {"VORNOrtonFilterEffect", {60, 90}},
      {"VORNDepthEffect", {30, 50}},
      {"VORNDepthEffect", {90, 50}},
      {"VORNFogFilterEffect", {60, 50}},
      {"VORNHighKeyEffect", {60}},
      {"VORNVignetteEffect", {-60, 50, 0, 50}},
      {"VORNToolGraduatedNaturalDensityEffect", {-60, 20, 10, 50}},
      {"VORNAdjustableGraduatedEffect", {-40, 20, -30, 20, 20, -20, 10, 15}},
      {"VORNAdjustableGraduatedEffectHDR", {-40, 20, -30, 20, 20, -20, 10, 15}},
      {"VORNGrainNewEffect", {50, 30, 40}},
      {"VORNDodgeBurnEffect", {40, 40}},
      {"VORNFocusBlurDevEffect", {30, 40}},
      {"VORNFocusBlurDevEffect", {90, 40}},
      {"VORNSunLightRaysEffect", {70, 20}},
      {"VORNSunLightRaysEffect", {70, 90}},
      {"VORNTextureOverlayEffect", {60, 100, 20}},
      {"VORNSharpenEffect", {60, 30, 30}},
      {"VORNSharpenEffect", {60, 90, 30}},
      {"VORNApplyDetailsDEVELOPEffect", {60, 50, 35}},
      {"VORNHighPassFilterEffect", {5}},
      {"VORNHighPassFilterEffect", {30}},
      {"VORNDetailsEffect", {40, 30, 20}},
      {"VORNClarityEffect", {60}},
      {"VORNRamixDynamicContrastEffect", {60}},
      {"VORNSmoothAreaEffect", {60, 20}},
      {"VORNSmoothAreaEffect", {60, 90}},
      {"VORNStructureEffect", {60, 50}},
      {"VORNStructureHDREffect", {60, 50, 70}},
      {"VORNMicroStructureEffect", {70, 50}},
      {"VORNSuperStructureEffect", {70, 50}},
      {"VORNDenoiseEffect", {100}},
      {"VORNDenoiseCoarseEffect", {100}},
      {"VORNDenoiseStructureEffect", {100}},
      {"VORNDenoiseDetailsEffect", {100}},
      {"VORNDenoiseLaplacianEffect", {100, 50}},
      {"VORNDenoiseLaplacianNLBEffect", {100, 10, 50}},
      // Point-wise colour effects at strong settings.
      {"VORNSaturationEffect", {60}},
      {"VORNVibranceEffect", {60}},
      {"VORNRamixSaturationEffect", {60}},
      {"VORNRamixVibranceEffect", {60}},
      {"VORNPolarizeEffect", {70}},
      {"VORNWhiteBalanceEffect", {40, 20}},
      {"VORNRawWhiteBalanceEffect", {40, 20}},
      {"VORNRawDevelopEffect", {80, 40, 100}},
      {"VORNFoliageEnhanceEffect", {70}},
      {"VORNBWChannelsEffect", {100, 40, 20, -30, 0, -20, 10}},
      {"VORNSplitToningEffect", {45, 60, 220, 60, 10}},
      {"VORNColorContrastEffect", {60}},
      {"VORNChannelsEffect", {30, -20, 10}},
      {"VORNSplitWarmthEffect", {50, -50}},
      {"VORNPhotoFilterEffect", {60, 30, 1}},
      {"VORNContrastColorRangeEffect", {60, 210, 40}},
      {"VORNColorsTintEffect", {50, 30}},
      {"VORNRemoveColorCastEffect", {80}},
      {"VORNCrossProcessingEffect", {70}},
      {"VORNChannelMixerEffect", {80, 20, 0, 10, 90, 0, 0, 20, 80}},
      {"VORNColorBalanceEffect", {20, -10, 30, 10, 0, -20, 0, 10, 20}},
      {"VORNComplexBleachEffect", {70, -20}},
      {"VORNWarmSkylightEffect", {70, 20}},
      {"VORNBrillianceWarmthEffect", {50, 40}},
      {"VORNHueShiftEffect", {40}},
      {"VORNBiColorEffect", {60, 210, 30, 0, 50}},
      {"VORNLUTMappingEffect", {80}},
      {"VORNFaceEffect", {50, 70, 60}},
      {"VORNFaceSkinSoftenerEffect", {70}},
      {"VORNLensCorrectionEffect", {100, 100, 100}},
      {"VORNLensVignetteEffect", {-60, 20}},
      {"VORNFillColorEffect", {40, 200, 120, 60}},
      // Groups: their parameters are the inner effects' lists one after another.
      {"VORNDevelopCommonEffectID", {50, 40, -40, 30, 40, -30, 40}},
      {"VORNRawDevelopCommonEffectID", {80, 40, 100}},
      {"VORNHDRBasicCommonEffectID", {50, 40, 0, 30, 40, -30, 40, 60, 50, 50}},
      {"VORNHDRBasicCommonEffectRawID", {40, 20, 50, 0, 30}},
      {"VORNSkyEnhancerEffect", {70}},
  };
  // An identifier listed twice (two radii of a blur) is told apart by its values.
  std::map<std::string, int> listed;
  for (const auto& entry : settings) ++listed[entry.first];
  // A new identifier must get its line here; saying so beats a silently shorter table.
  for (const std::string& id : EffectFactory::instance().supportedEffects())
    if (listed.count(id) == 0) std::fprintf(stderr, "no benchmark line for %s\n", id.c_str());
  for (const auto& [id, values] : settings) {
    std::string name = std::string("BM_Effect/").append(id);
    if (listed[id] > 1) {
      for (const float value : values)
        name.append("/").append(std::to_string(static_cast<int>(value)));
    }
    registerPoolPair(
        name,
        [id = id, values = values](benchmark::State& state, Pool pool) {
          runEffect(state, pool, id, values);
        },
        benchmark::kMillisecond);
  }
  // One point-wise effect, one blur, one mix of a blur and focus blur.
  const std::vector<std::pair<std::string, std::vector<float>>> previews = {
      {"VORNVignetteEffect", {-60, 50, 0, 50}},
      {"VORNSimpleBlurEffect", {80}},
      {"VORNOrtonFilterEffect", {60, 90}},
      {"VORNFocusBlurDevEffect", {90, 40}},
  };
  for (const auto& [id, values] : previews) {
    registerPoolPair(
        std::string("BM_Preview/").append(id),
        [id = id, values = values](benchmark::State& state, Pool pool) {
          runPreview(state, pool, id, values);
        },
        benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace
}  // namespace vorn::bench
