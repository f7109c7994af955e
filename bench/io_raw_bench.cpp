// Raw loading on a real 4128 x 2176 DNG: time to the quarter frame against time to the full
// frame, and the full decode against the decoder library's own command-line tool.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench_data.h"
#include "bench_floor.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/image_source_raw.h"

namespace {

namespace fs = std::filesystem;
using vorn::bench::compareTo;
using vorn::bench::markFloor;

std::string samplePath() {
  return vorn::bench::sharedSample("raw", "bmpcc4k_imageio.dng");
}

/// Opens the sample and waits for the quarter or the full frame; the source's teardown (which
/// cancels and joins a loader still running) is not timed.
void timeOpen(benchmark::State& state, bool quarterOnly) {
  const std::string path = samplePath();
  if (path.empty()) {
    state.SkipWithError("sample bmpcc4k_imageio.dng is absent");
    return;
  }
  for (auto _ : state) {
    vorn::ImageResult result = vorn::ImageReader::readRaw(path, vorn::kOpenDefault, nullptr, "");
    auto* source = result.image
                       ? dynamic_cast<vorn::ImageSourceRawBase*>(result.image->source().get())
                       : nullptr;
    if (!source) {
      state.SkipWithError("the sample did not open");
      return;
    }
    if (quarterOnly)
      source->waitForQuarterFrame();
    else
      source->waitForFullRaw();
    benchmark::DoNotOptimize(source->getImageData());
    state.PauseTiming();
    result.image.reset();
    state.ResumeTiming();
  }
}

void BM_RawFullFrame(benchmark::State& state) {
  markFloor(state, "raw_full");
  timeOpen(state, false);
}
BENCHMARK(BM_RawFullFrame)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_RawQuarterFrame(benchmark::State& state) {
  compareTo(state, "raw_full");
  timeOpen(state, true);
}
BENCHMARK(BM_RawQuarterFrame)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// The tool decodes the same way (linear 16 bit, ProPhoto, camera white balance, AHD) and also
// writes a 54 MB PPM; its process start and file write belong to the floor.
void BM_DcrawEmuFull(benchmark::State& state) {
  markFloor(state, "dcraw_emu");
  const std::string path = samplePath();
  if (path.empty()) {
    state.SkipWithError("sample bmpcc4k_imageio.dng is absent");
    return;
  }
  const std::string out = (fs::temp_directory_path() / "vorn_bench_dcraw_emu.ppm").string();
  const std::string command =
      "dcraw_emu -4 -o 4 -w -q 3 -Z '" + out + "' '" + path + "' > /dev/null 2>&1";
  for (auto _ : state) {
    if (std::system(command.c_str()) != 0) {
      state.SkipWithError("dcraw_emu is not installed or failed");
      break;
    }
  }
  std::error_code ignored;
  fs::remove(out, ignored);
}
BENCHMARK(BM_DcrawEmuFull)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_RawFullFrameVsDcrawEmu(benchmark::State& state) {
  compareTo(state, "dcraw_emu");
  timeOpen(state, false);
}
BENCHMARK(BM_RawFullFrameVsDcrawEmu)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace
