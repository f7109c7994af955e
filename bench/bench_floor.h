#pragma once

#include <benchmark/benchmark.h>

#include <string>

namespace vorn::bench {

/// Marks a benchmark as a floor that others are compared with.
inline void markFloor(benchmark::State& state, const std::string& floor) {
  state.SetLabel("floor:" + floor);
}
/// Marks a benchmark as an operation to report as a ratio to the named floor.
inline void compareTo(benchmark::State& state, const std::string& floor) {
  state.SetLabel("vs:" + floor);
}

}  // namespace vorn::bench
