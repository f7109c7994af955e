// Shared filter kernels on the 24 MP frame, each timed against a parallel copy of the frame in
// the same iterations; two radii show whether the cost grows with the radius.
#include <benchmark/benchmark.h>

#include <string>

#include "bench_data.h"
#include "bench_floor.h"
#include "effects/kernels/gaussian.h"

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

const bool kRegistered = [] {
  for (const float sigma : {3.0f, 8.0f, 80.0f}) {
    benchmark::RegisterBenchmark(
        ("BM_GaussianBlur/sigma" + std::to_string(static_cast<int>(sigma))).c_str(),
        [sigma](benchmark::State& state) { runGaussian(state, sigma); })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
  }
  return true;
}();

}  // namespace
}  // namespace vorn::bench
