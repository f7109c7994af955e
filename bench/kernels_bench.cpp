// Shared filter kernels on the 24 MP frame, each timed against a parallel copy of the frame in
// the same iterations; two radii show whether the cost grows with the radius.
#include <benchmark/benchmark.h>

#include <string>

#include "bench_data.h"
#include "bench_floor.h"
#include "effects/kernels/atrous.h"
#include "effects/kernels/gaussian.h"
#include "effects/kernels/luminance.h"

namespace vorn::bench {
namespace {

void runGaussian(benchmark::State& state, float sigma) {
  RGBf destination(kFrame);
  timeAgainstFloor(
      state, Pool::Warm, "copy", [] { return copyFloor(Pool::Warm); },
      [&] {
        detail::gaussianBlur(*benchFrame(), benchFrame()->rect(), sigma, destination);
        benchmark::ClobberMemory();
        return true;
      });
}

// The a trous transform of the frame's luminance: each level costs the same, so the cost is
// linear in pixels and grows with the log of the coarsest scale.
void runAtrous(benchmark::State& state, int levels) {
  const detail::Plane luma =
      detail::planeOf(*benchFrame(), benchFrame()->rect(),
                      [](const PixelRGB<float>& p) { return detail::luminance(p); });
  timeAgainstFloor(
      state, Pool::Warm, "copy", [] { return copyFloor(Pool::Warm); },
      [&] {
        const detail::Plane rebuilt = detail::atrousReshape(luma, levels, {});
        benchmark::DoNotOptimize(rebuilt.data());
        return true;
      });
}

const bool kRegistered = [] {
  for (const float sigma : {3.0f, 8.0f, 80.0f}) {
    benchmark::RegisterBenchmark(
        ("BM_GaussianBlur/sigma" + std::to_string(static_cast<int>(sigma))).c_str(),
        [sigma](benchmark::State& state) { runGaussian(state, sigma); })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
  }
  for (const int levels : {3, 6}) {
    benchmark::RegisterBenchmark(("BM_AtrousReshape/levels" + std::to_string(levels)).c_str(),
                                 [levels](benchmark::State& state) { runAtrous(state, levels); })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
  }
  return true;
}();

}  // namespace
}  // namespace vorn::bench
