// Mask blobs at the size of a 24 MP photograph: writing, reading, and the inflate step alone
// with each engine on the same stream.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <utility>
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

// Floor: writing the mask's float samples once, the least any reader must do; a fresh mask
// when cold.
bool maskCopy(Pool pool) {
  const MaskImage& src = mask();
  static MaskImage warm(kMaskSize, 0.0f);
  if (pool == Pool::Warm) {
    detail::parallelCopy(warm.data, src.data, src.sizeInBytes());
  } else {
    MaskImage fresh(kMaskSize);
    detail::parallelCopy(fresh.data, src.data, src.sizeInBytes());
  }
  return true;
}

void compressMask(benchmark::State& state, Pool pool) {
  const MaskImage& src = mask();
  std::vector<std::uint8_t> out;
  timeAgainstFloor(
      state, pool, "maskcopy", [pool] { return maskCopy(pool); },
      [&] {
        ImageCompressorProxy::compressMask(src, out);
        return !out.empty();
      });
  report(state, mask().sizeInBytes());
}

void uncompressWith(benchmark::State& state, Pool pool, detail::InflateEngine engine) {
  const std::vector<std::uint8_t>& bytes = blob();
  const detail::InflateEngine saved = detail::defaultInflateEngine();
  detail::setDefaultInflateEngine(engine);
  timeAgainstFloor(
      state, pool, "maskcopy", [pool] { return maskCopy(pool); },
      [&] {
        std::shared_ptr<MaskImage> read;
        ImageCompressorProxy::uncompressMask(bytes, read);
        return read != nullptr;
      });
  detail::setDefaultInflateEngine(saved);
  report(state, mask().sizeInBytes());
}

// The inflate step alone, into the same warm buffer, so the two engines meet on equal terms.
void inflateWith(benchmark::State& state, detail::InflateEngine engine) {
  constexpr std::size_t kHeader = ImageCompressorLosslessZlib::kTrackedHeaderSize;
  std::vector<std::uint8_t> out(mask().area(), 0);
  timeAgainstFloor(
      state, Pool::Warm, "maskcopy", [] { return maskCopy(Pool::Warm); },
      [&] {
        const auto result =
            detail::inflateInto(blob().data() + kHeader, blob().size() - kHeader, out.data(),
                                out.size(), detail::InflateTail::Any, engine);
        return result.written == out.size();
      });
  report(state, out.size());
}

const bool kRegistered = [] {
  registerPoolPair("BM_CompressMask", compressMask, benchmark::kMillisecond);
  registerPoolPair(
      "BM_UncompressMaskLibdeflate",
      [](benchmark::State& state, Pool pool) {
        uncompressWith(state, pool, detail::InflateEngine::Libdeflate);
      },
      benchmark::kMillisecond);
  registerPoolPair(
      "BM_UncompressMaskZlib",
      [](benchmark::State& state, Pool pool) {
        uncompressWith(state, pool, detail::InflateEngine::Zlib);
      },
      benchmark::kMillisecond);
  for (const auto& [name, engine] :
       {std::pair{"BM_InflateLibdeflate", detail::InflateEngine::Libdeflate},
        std::pair{"BM_InflateZlib", detail::InflateEngine::Zlib}}) {
    benchmark::RegisterBenchmark(
        name, [engine = engine](benchmark::State& state) { inflateWith(state, engine); })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
  }
  return true;
}();

}  // namespace
}  // namespace vorn::bench
