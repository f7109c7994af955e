// Tone effects on a 24 MP frame, each reported as a ratio to the parallel copy floor.
#include <benchmark/benchmark.h>

#include <cmath>
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

void runEffect(benchmark::State& state, const std::string& id, const std::vector<float>& values) {
  auto effect = EffectFactory::instance().makeEffectWithID(id, nullptr);
  for (std::size_t i = 0; i < values.size(); ++i) effect->parameters()[i].setValue(values[i]);
  auto destination = std::make_shared<RGBf>(kFrame, PixelRGB<float>(0.0f));
  EffectCallContext call(benchFrame(), destination, nullptr, {}, nullptr, nullptr);
  // Steady state of an editor re-rendering: the pool already holds the working planes.
  effect->processImage(call);
  for (auto _ : state) {
    if (!effect->processImage(call)) state.SkipWithError("processing failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(
      static_cast<std::int64_t>(state.iterations() * benchFrame()->sizeInBytes()));
  compareTo(state, "copy");
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
  };
  for (const auto& [id, values] : settings) {
    benchmark::RegisterBenchmark(
        ("BM_Effect/" + id).c_str(),
        [id = id, values = values](benchmark::State& state) { runEffect(state, id, values); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  return true;
}();

}  // namespace
}  // namespace vorn::bench
