// Raw loading through the loader child against the same load in this process, on a real
// 4128 x 2176 DNG (quarter and full frame) and on a 0.5 MP file, where the child's per-file
// overhead (request, identity, frame copies) dominates. Six pairs each: three left the ratio at
// the mercy of one slow iteration on a shared machine.
#include <benchmark/benchmark.h>

#include <string>

#include "bench_data.h"
#include "bench_floor.h"
#include "raw_frame_wait.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/image_source_raw.h"

namespace {

using vorn::bench::Pool;
using vorn::bench::registerPoolPair;
using vorn::bench::timeAgainstFloor;

/// Opens `path` in process or through the child and waits for the quarter or the full frame.
bool load(const std::string& path, bool throughChild, bool quarterOnly, vorn::ImageResult& result) {
  vorn::ImageReader& reader = vorn::ImageReader::instance();
  result = throughChild ? reader.open_ipc_async(path, vorn::ImageReader::kNoResizeSize,
                                                vorn::kOpenDefault, {}, -1)
                        : vorn::ImageReader::readRaw(path, vorn::kOpenInProcess, nullptr, "");
  return vorn::bench::waitForRawFrame(result, quarterOnly);
}

void childVsInProcess(benchmark::State& state, Pool pool, const std::string& sample,
                      bool quarterOnly) {
  const std::string path = vorn::bench::sharedSample("raw", sample);
  if (path.empty()) return state.SkipWithError(("sample " + sample + " is absent").c_str());
  vorn::ImageResult local, child;
  timeAgainstFloor(
      state, pool, "in process",
      [&] {
        // Dropping the source cancels a full decode still running: that teardown is timed here
        // and not on the child's side, which makes the ratio pessimistic for the child.
        const bool ok = load(path, false, quarterOnly, local);
        local = {};
        return ok;
      },
      [&] { return load(path, true, quarterOnly, child); }, [&] { child = {}; });
}

const bool kRegistered = [] {
  registerPoolPair(
      "BM_RawIpcQuarterVsInProcess",
      [](benchmark::State& s, Pool p) { childVsInProcess(s, p, "bmpcc4k_imageio.dng", true); },
      benchmark::kMillisecond, 6);
  registerPoolPair(
      "BM_RawIpcFullVsInProcess",
      [](benchmark::State& s, Pool p) { childVsInProcess(s, p, "bmpcc4k_imageio.dng", false); },
      benchmark::kMillisecond, 6);
  registerPoolPair(
      "BM_RawIpcSmallFileOverhead",
      [](benchmark::State& s, Pool p) {
        childVsInProcess(s, p, "nikon_coolscan4_imageio.nef", false);
      },
      benchmark::kMillisecond, 10);
  return true;
}();

}  // namespace
