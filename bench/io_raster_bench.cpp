// Raster decoding on a real 22 MP JPEG against libvips' decode-only pass of the same file, and a
// 256-pixel thumbnail by DCT scaling against libvips' shrink-on-load thumbnailer.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench_data.h"
#include "bench_floor.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/thumbnails.h"

namespace {

namespace fs = std::filesystem;
using vorn::bench::compareTo;
using vorn::bench::markFloor;

std::string samplePath() {
  return vorn::bench::sharedSample("photo", "canon_5d3_22mp_issue266.jpg");
}

// The sample without its APP1 segments (EXIF with its 160-pixel preview, XMP), so a thumbnail
// has to come from the image data itself.
std::string samplePathWithoutPreview() {
  static const std::string stripped = [] {
    const std::string source = samplePath();
    if (source.empty()) return std::string();
    std::ifstream in(source, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    std::vector<char> out(bytes.begin(), bytes.begin() + 2);
    std::size_t pos = 2;
    while (pos + 4 <= bytes.size() && static_cast<std::uint8_t>(bytes[pos]) == 0xFF) {
      const auto marker = static_cast<std::uint8_t>(bytes[pos + 1]);
      if (marker == 0xDA) break;
      const std::size_t length =
          static_cast<std::size_t>(static_cast<std::uint8_t>(bytes[pos + 2]) << 8 |
                                   static_cast<std::uint8_t>(bytes[pos + 3]));
      if (marker != 0xE1)
        out.insert(out.end(), bytes.begin() + pos, bytes.begin() + pos + 2 + length);
      pos += 2 + length;
    }
    out.insert(out.end(), bytes.begin() + pos, bytes.end());
    const fs::path path =
        fs::temp_directory_path() / ("vorn_bench_" + std::to_string(::getpid()) + ".jpg");
    std::ofstream(path, std::ios::binary)
        .write(out.data(), static_cast<std::streamsize>(out.size()));
    return path.string();
  }();
  return stripped;
}

// Times a shell command per iteration; the floor of the comparison.
void timeCommand(benchmark::State& state, const std::string& command, const char* floor) {
  markFloor(state, floor);
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    const int status = std::system(command.c_str());
    const auto end = std::chrono::steady_clock::now();
    if (status != 0) {
      state.SkipWithError(("command failed: " + command).c_str());
      return;
    }
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
}

void BM_VipsDecode(benchmark::State& state) {
  const std::string path = samplePath();
  if (path.empty()) return state.SkipWithError("sample canon_5d3_22mp_issue266.jpg is absent");
  timeCommand(state, "vips avg '" + path + "' > /dev/null", "vips_decode");
}

void BM_OpenJpeg22MP(benchmark::State& state) {
  const std::string path = samplePath();
  if (path.empty()) return state.SkipWithError("sample canon_5d3_22mp_issue266.jpg is absent");
  compareTo(state, "vips_decode");
  for (auto _ : state) {
    vorn::ImageMagickReader reader;
    if (reader.openImage(path, {-1, -1}) != vorn::kImageReaderOk)
      return state.SkipWithError("the sample did not open");
    benchmark::DoNotOptimize(reader.getOpenedImage());
    state.PauseTiming();  // the frame's release is not part of opening
    reader = vorn::ImageMagickReader();
    state.ResumeTiming();
  }
}

void BM_VipsThumbnail256(benchmark::State& state) {
  const std::string path = samplePathWithoutPreview();
  if (path.empty()) return state.SkipWithError("sample canon_5d3_22mp_issue266.jpg is absent");
  const std::string out = (fs::temp_directory_path() / "vorn_bench_thumb.v").string();
  timeCommand(state, "vipsthumbnail '" + path + "' -s 256 -o '" + out + "'", "vips_thumbnail");
  std::error_code ec;
  fs::remove(out, ec);
}

void BM_Thumbnail256Dct(benchmark::State& state) {
  const std::string path = samplePathWithoutPreview();
  if (path.empty()) return state.SkipWithError("sample canon_5d3_22mp_issue266.jpg is absent");
  compareTo(state, "vips_thumbnail");
  for (auto _ : state) {
    auto thumb = vorn::getThumbnailBySide(path, 256, true);
    if (!thumb || thumb->width != 256) return state.SkipWithError("no 256-pixel thumbnail");
    benchmark::DoNotOptimize(thumb);
  }
}

}  // namespace

BENCHMARK(BM_VipsDecode)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(5);
BENCHMARK(BM_OpenJpeg22MP)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_VipsThumbnail256)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(10);
BENCHMARK(BM_Thumbnail256Dct)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);
