// Mask blobs at the size of a 24 MP photograph: writing, reading, and the inflate step alone
// with each engine on the same stream.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "bench_floor.h"
#include "core/parallel.h"
#include "io/zlib_stream.h"
#include "vorn/io/image_compressor.h"

namespace vorn::bench {
namespace {

constexpr _Size<int> kMaskSize(6000, 4000);

struct Ellipse {
  float cx, cy, rx, ry, feather;
};

// A painted selection: filled ellipses and a polygon with feathered edges, zero elsewhere.
const MaskImage& mask() {
  static const MaskImage image = [] {
    MaskImage m(kMaskSize);
    const Ellipse ellipses[] = {{1800, 1500, 1100, 700, 300},
                                {4200, 2600, 900, 1200, 500},
                                {3000, 800, 400, 300, 60},
                                {5200, 700, 500, 350, 150}};
    // Triangle (x, y) pairs; feathered by distance to its edges.
    const float tri[3][2] = {{600, 3700}, {2600, 2300}, {3400, 3900}};
    detail::parallelRows(kMaskSize.height, [&](int first, int end) {
      for (int y = first; y < end; ++y) {
        float* row = m.row(y);
        for (int x = 0; x < kMaskSize.width; ++x) {
          const float px = static_cast<float>(x), py = static_cast<float>(y);
          float v = 0.0f;
          for (const Ellipse& e : ellipses) {
            const float dx = (px - e.cx) / e.rx, dy = (py - e.cy) / e.ry;
            const float inside = (1.0f - std::sqrt(dx * dx + dy * dy)) * std::min(e.rx, e.ry);
            v = std::max(v, std::clamp(inside / e.feather, 0.0f, 1.0f));
          }
          // Signed distances to the edges are negative inside; the largest is the nearest edge.
          float edge = -1e9f;
          for (int i = 0; i < 3; ++i) {
            const float* a = tri[i];
            const float* b = tri[(i + 1) % 3];
            const float nx = b[1] - a[1], ny = a[0] - b[0];
            edge = std::max(edge, ((px - a[0]) * nx + (py - a[1]) * ny) / std::hypot(nx, ny));
          }
          v = std::max(v, std::clamp(-edge / 180.0f, 0.0f, 1.0f));
          row[x] = v;
        }
      }
    });
    return m;
  }();
  return image;
}

const std::vector<std::uint8_t>& blob() {
  static const std::vector<std::uint8_t> bytes = [] {
    std::vector<std::uint8_t> out;
    ImageCompressorProxy::compressMask(mask(), out);
    return out;
  }();
  return bytes;
}

void report(benchmark::State& state, std::uint64_t bytes) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
  state.counters["blob_bytes"] = static_cast<double>(blob().size());
}

// Floor: writing the mask's float samples once, the least any reader must do.
void BM_FloorMaskCopy(benchmark::State& state) {
  const MaskImage& src = mask();  // built outside the timing
  MaskImage dst(kMaskSize, 0.0f);
  for (auto _ : state) {
    detail::parallelCopy(dst.data, src.data, src.sizeInBytes());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * mask().sizeInBytes()));
  markFloor(state, "maskcopy");
}

void BM_CompressMask(benchmark::State& state) {
  const MaskImage& src = mask();
  std::vector<std::uint8_t> out;
  for (auto _ : state) {
    ImageCompressorProxy::compressMask(src, out);
    benchmark::DoNotOptimize(out.data());
  }
  report(state, mask().sizeInBytes());
  compareTo(state, "maskcopy");
}

void uncompressWith(benchmark::State& state, detail::InflateEngine engine) {
  const std::vector<std::uint8_t>& bytes = blob();
  const detail::InflateEngine saved = detail::defaultInflateEngine();
  detail::setDefaultInflateEngine(engine);
  for (auto _ : state) {
    std::shared_ptr<MaskImage> read;
    ImageCompressorProxy::uncompressMask(bytes, read);
    if (!read) state.SkipWithError("the mask did not read back");
    benchmark::DoNotOptimize(read.get());
  }
  detail::setDefaultInflateEngine(saved);
  report(state, mask().sizeInBytes());
  compareTo(state, "maskcopy");
}

void BM_UncompressMaskLibdeflate(benchmark::State& state) {
  uncompressWith(state, detail::InflateEngine::Libdeflate);
}
void BM_UncompressMaskZlib(benchmark::State& state) {
  uncompressWith(state, detail::InflateEngine::Zlib);
}

// The inflate step alone, into the same warm buffer, so the two engines meet on equal terms.
void inflateWith(benchmark::State& state, detail::InflateEngine engine) {
  constexpr std::size_t kHeader = ImageCompressorLosslessZlib::kTrackedHeaderSize;
  std::vector<std::uint8_t> out(mask().area(), 0);
  for (auto _ : state) {
    const auto result =
        detail::inflateInto(blob().data() + kHeader, blob().size() - kHeader, out.data(),
                            out.size(), detail::InflateTail::Any, engine);
    if (result.written != out.size()) state.SkipWithError("the stream did not fill the mask");
    benchmark::ClobberMemory();
  }
  report(state, out.size());
  compareTo(state, "maskcopy");
}

void BM_InflateZlib(benchmark::State& state) {
  inflateWith(state, detail::InflateEngine::Zlib);
}
void BM_InflateLibdeflate(benchmark::State& state) {
  inflateWith(state, detail::InflateEngine::Libdeflate);
}

BENCHMARK(BM_FloorMaskCopy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CompressMask)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_UncompressMaskLibdeflate)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_UncompressMaskZlib)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_InflateLibdeflate)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_InflateZlib)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace vorn::bench
