#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

#include "vorn/core/memory_manager.h"

namespace vorn::bench {

/// The pool state a benchmark runs in. Warm: the pool already holds blocks of the sizes the
/// operation asks for, as in an editor re-rendering. Cold: every buffer is fresh memory, so its
/// first touch (page faults, which are dear on virtual machines) is part of the time.
enum class Pool { Warm, Cold };

inline const char* poolName(Pool pool) {
  return pool == Pool::Warm ? "warm" : "cold";
}

/// Puts the pool in the state for the benchmark's lifetime; the cold state drops idle blocks
/// and keeps none, the previous policy returns afterwards.
class PoolScope {
 public:
  explicit PoolScope(Pool pool) : previous_(MemoryManager::instance().isCachingEnabled()) {
    MemoryManager::instance().setCachingEnabled(pool == Pool::Warm);
  }
  ~PoolScope() { MemoryManager::instance().setCachingEnabled(previous_); }
  PoolScope(const PoolScope&) = delete;
  PoolScope& operator=(const PoolScope&) = delete;

 private:
  bool previous_;
};

/// Seconds one call of `work` takes; false from `work` is passed on through `ok`.
template <typename Work>
double secondsOf(Work&& work, bool& ok) {
  const auto start = std::chrono::steady_clock::now();
  ok = work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Times `floor` and then `operation` in every iteration, so both meet the same machine state;
/// `after` runs untimed after each operation (teardown that is not part of it). The reported
/// time is the operation's (manual time); the counters give the floor's mean time and the ratio
/// of the summed times. Either returning false skips the benchmark with an error. With
/// Pool::Warm, one untimed call of each first fills the pool.
template <typename Floor, typename Operation, typename After>
void timeAgainstFloor(benchmark::State& state, Pool pool, const std::string& floorName,
                      Floor&& floor, Operation&& operation, After&& after) {
  state.SetLabel(floorName + ", " + poolName(pool));
  PoolScope scope(pool);
  if (pool == Pool::Warm && (!floor() || !operation())) {
    state.SkipWithError("the warm-up call failed");
    return;
  }
  after();
  double floorSeconds = 0.0, operationSeconds = 0.0;
  for (auto _ : state) {
    bool ok = true;
    floorSeconds += secondsOf(floor, ok);
    if (!ok) return state.SkipWithError(("floor " + floorName + " failed").c_str());
    const double seconds = secondsOf(operation, ok);
    if (!ok) return state.SkipWithError("the operation failed");
    operationSeconds += seconds;
    state.SetIterationTime(seconds);
    after();
  }
  if (floorSeconds <= 0.0) return;
  state.counters["floor_ms"] =
      benchmark::Counter(floorSeconds * 1e3, benchmark::Counter::kAvgIterations);
  state.counters["ratio"] = operationSeconds / floorSeconds;
}

template <typename Floor, typename Operation>
void timeAgainstFloor(benchmark::State& state, Pool pool, const std::string& floorName,
                      Floor&& floor, Operation&& operation) {
  timeAgainstFloor(state, pool, floorName, floor, operation, [] {});
}

/// Runs a shell command as a floor or an operation; false when it fails or is missing.
inline bool runCommand(const std::string& command) {
  return std::system((command + " > /dev/null 2>&1").c_str()) == 0;
}

/// Registers `body` once per pool state, as NAME/warm and NAME/cold.
template <typename Body>
void registerPoolPair(const std::string& name, Body body, benchmark::TimeUnit unit,
                      int iterations = 0) {
  for (Pool pool : {Pool::Warm, Pool::Cold}) {
    auto* registered =
        benchmark::RegisterBenchmark((name + "/" + poolName(pool)).c_str(),
                                     [body, pool](benchmark::State& state) { body(state, pool); });
    registered->Unit(unit)->UseManualTime();
    if (iterations > 0) registered->Iterations(iterations);
  }
}

}  // namespace vorn::bench
