// Tone effects on a 24 MP frame, each timed against a parallel copy of the frame in the same
// iterations, with a warm and a cold pool.
#include <benchmark/benchmark.h>

#include <cmath>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bench_data.h"
#include "bench_floor.h"
#include "core/parallel.h"
#include "effects/kernels/tone_curve.h"
#include "effects/tone/tone_shapes.h"
#include "vorn/core/image_data.h"
#include "vorn/effects/effect_factory.h"

namespace vorn::bench {
namespace {

void BM_ExposureCurveFill(benchmark::State& state) {
  const detail::ToneTables& tables = detail::toneTables();
  for (auto _ : state) {
    auto lookup = detail::makeToneCurve(
        [&](float x) { return detail::exposureCurve(x, 1.28f, tables); }, 0.85f);
    benchmark::DoNotOptimize(lookup.get());
  }
}

// Warm: the steady state of an editor re-rendering, the pool already holding the working
// planes. Cold: a first render, every buffer fresh.
void runEffect(benchmark::State& state, Pool pool, const std::string& id,
               const std::vector<float>& values) {
  auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
  for (std::size_t i = 0; i < values.size(); ++i) effect->parameters()[i].setValue(values[i]);
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

const bool kRegistered = [] {
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
  };
  // An identifier listed twice (two radii of a blur) is told apart by its values.
  std::map<std::string, int> listed;
  for (const auto& entry : settings) ++listed[entry.first];
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
  return true;
}();

}  // namespace
}  // namespace vorn::bench
