// Raw loading on a real 4128 x 2176 DNG: time to the quarter frame against time to the full
// frame, and the full decode against the decoder library's own command-line tool.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

#include "bench_data.h"
#include "bench_floor.h"
#include "raw_frame_wait.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/image_source_raw.h"

namespace {

namespace fs = std::filesystem;
using vorn::bench::Pool;
using vorn::bench::registerPoolPair;
using vorn::bench::runCommand;
using vorn::bench::timeAgainstFloor;

std::string samplePath() {
  return vorn::bench::sharedSample("raw", "bmpcc4k_imageio.dng");
}

/// Opens the sample and waits for the quarter or the full frame into `result`.
bool openRaw(const std::string& path, bool quarterOnly, vorn::ImageResult& result) {
  result = vorn::ImageReader::readRaw(path, vorn::kOpenDefault, nullptr, "");
  return vorn::bench::waitForRawFrame(result, quarterOnly);
}

// The quarter frame against the full one, both decoded in every iteration; the source's teardown
// (which cancels and joins a loader still running) is not timed.
void quarterVsFull(benchmark::State& state, Pool pool) {
  const std::string path = samplePath();
  if (path.empty()) return state.SkipWithError("sample bmpcc4k_imageio.dng is absent");
  vorn::ImageResult full, quarter;
  timeAgainstFloor(
      state, pool, "raw full frame",
      [&] {
        const bool ok = openRaw(path, false, full);
        full = {};
        return ok;
      },
      [&] { return openRaw(path, true, quarter); }, [&] { quarter = {}; });
}

// The tool decodes the same way (linear 16 bit, ProPhoto, camera white balance, AHD) and also
// writes a 54 MB PPM; its process start and file write belong to the floor.
void fullVsDcrawEmu(benchmark::State& state, Pool pool) {
  const std::string path = samplePath();
  if (path.empty()) return state.SkipWithError("sample bmpcc4k_imageio.dng is absent");
  const std::string out = (fs::temp_directory_path() / "vorn_bench_dcraw_emu.ppm").string();
  vorn::ImageResult full;
  timeAgainstFloor(
      state, pool, "dcraw_emu",
      [&] { return runCommand("dcraw_emu -4 -o 4 -w -q 3 -Z '" + out + "' '" + path + "'"); },
      [&] { return openRaw(path, false, full); }, [&] { full = {}; });
  std::error_code ignored;
  fs::remove(out, ignored);
}

const bool kRegistered = [] {
  registerPoolPair("BM_RawQuarterVsFullFrame", quarterVsFull, benchmark::kMillisecond, 3);
  registerPoolPair("BM_RawFullFrameVsDcrawEmu", fullVsDcrawEmu, benchmark::kMillisecond, 3);
  return true;
}();

}  // namespace
