#include <benchmark/benchmark.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_reduce.h>

#include <cmath>
#include <cstdlib>
#include <numbers>

#include "bench_data.h"
#include "bench_floor.h"
#include "core/parallel.h"
#include "vorn/core/color_profile.h"
#include "vorn/core/image_data.h"
#include "vorn/core/memory_manager.h"

namespace vorn::bench {
namespace {

std::shared_ptr<RGBf> prefaulted() {
  auto img = std::make_shared<RGBf>(kFrame);
  img->fillRect(PixelRGB<float>(0.0f));
  return img;
}

void setBytes(benchmark::State& state, std::uint64_t bytes) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

void BM_FloorParallelCopy(benchmark::State& state) {
  const auto& src = benchFrame();
  auto dst = prefaulted();
  for (auto _ : state) {
    detail::parallelCopy(dst->data, src->data, src->sizeInBytes());
    benchmark::ClobberMemory();
  }
  setBytes(state, src->sizeInBytes());
  markFloor(state, "copy");
}

void BM_FloorParallelRead(benchmark::State& state) {
  const auto& src = benchFrame();
  const float* values = &src->data->r;
  const std::size_t count = src->area() * 3;
  for (auto _ : state) {
    const float sum = tbb::parallel_reduce(
        tbb::blocked_range<std::size_t>(0, count / 16, 4096), 0.0f,
        [&](const tbb::blocked_range<std::size_t>& r, float total) {
          float lanes[16] = {};
          for (std::size_t i = r.begin(); i < r.end(); ++i)
            for (int k = 0; k < 16; ++k) lanes[k] += values[i * 16 + k];
          for (float lane : lanes) total += lane;
          return total;
        },
        [](float a, float b) { return a + b; });
    benchmark::DoNotOptimize(sum);
  }
  setBytes(state, src->sizeInBytes());
  markFloor(state, "read");
}

void BM_Clamp(benchmark::State& state) {
  auto img = prefaulted();
  benchFrame()->copyTo(img);
  for (auto _ : state) {
    img->clamp();
    benchmark::ClobberMemory();
  }
  setBytes(state, img->sizeInBytes());
  compareTo(state, "copy");
}

void BM_Copy(benchmark::State& state) {
  const auto& src = benchFrame();
  for (auto _ : state) benchmark::DoNotOptimize(src->copy());
  setBytes(state, src->sizeInBytes());
  compareTo(state, "copy");
}

void BM_ThumbnailDefault(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(benchFrame()->thumbnail());
  compareTo(state, "read");
}

void BM_Resize1500x1000(benchmark::State& state) {
  std::shared_ptr<RGBf> dst;
  for (auto _ : state) benchFrame()->resizeTo(dst, _Size<int>(1500, 1000));
  compareTo(state, "read");
}

// Non-integer factors: a large one (the default-style 160-wide thumbnail) and a small one.
void BM_Resize160x107(benchmark::State& state) {
  std::shared_ptr<RGBf> dst;
  for (auto _ : state) benchFrame()->resizeTo(dst, _Size<int>(160, 107));
  compareTo(state, "read");
}

void BM_Resize4000x2667(benchmark::State& state) {
  std::shared_ptr<RGBf> dst;
  for (auto _ : state) benchFrame()->resizeTo(dst, _Size<int>(4000, 2667));
  compareTo(state, "read");
}

void BM_AffineRotate5DegTo1500x1000(benchmark::State& state) {
  auto dst = std::make_shared<RGBf>(_Size<int>(1500, 1000));
  AffineTransform turn;
  turn.translate(750, 500);
  turn.rotate(5.0f * std::numbers::pi_v<float> / 180.0f);
  turn.translate(-750, -500);
  const _Rect<float> whole(0, 0, static_cast<float>(kFrame.width),
                           static_cast<float>(kFrame.height));
  for (auto _ : state) benchFrame()->copyAffineTransformedTo(dst, whole, turn);
  compareTo(state, "read");
}

void BM_ColorTransformSRGBToProPhoto(benchmark::State& state) {
  auto dst = prefaulted();
  const auto target = ColorProfileType::proPhotoRGB();
  for (auto _ : state) benchFrame()->colorTransform(dst, target);
  setBytes(state, dst->sizeInBytes());
  compareTo(state, "copy");
}

void BM_PoolRecycled288MB(benchmark::State& state) {
  auto& pool = MemoryManager::instance();
  const std::size_t bytes = benchFrame()->sizeInBytes();
  pool.free(pool.allocate(bytes, false));
  for (auto _ : state) {
    std::uint8_t* block = pool.allocate(bytes, false);
    benchmark::DoNotOptimize(block);
    pool.free(block);
  }
}

// First touch is the hidden cost of a fresh block: the pool's huge pages against plain malloc.
void BM_FreshPoolBlockPlusCopy(benchmark::State& state) {
  auto& pool = MemoryManager::instance();
  const auto& src = benchFrame();
  pool.setCachingEnabled(false);
  for (auto _ : state) {
    std::uint8_t* block = pool.allocate(src->sizeInBytes(), false);
    detail::parallelCopy(block, src->data, src->sizeInBytes());
    pool.free(block);
  }
  pool.setCachingEnabled(true);
  compareTo(state, "copy");
}

void BM_FreshMallocPlusCopy(benchmark::State& state) {
  const auto& src = benchFrame();
  for (auto _ : state) {
    void* block = std::malloc(src->sizeInBytes());
    detail::parallelCopy(block, src->data, src->sizeInBytes());
    benchmark::DoNotOptimize(block);
    std::free(block);
  }
  compareTo(state, "copy");
}

BENCHMARK(BM_FloorParallelCopy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FloorParallelRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Clamp)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Copy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ThumbnailDefault)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Resize1500x1000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Resize160x107)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Resize4000x2667)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AffineRotate5DegTo1500x1000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ColorTransformSRGBToProPhoto)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PoolRecycled288MB)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_FreshPoolBlockPlusCopy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FreshMallocPlusCopy)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace vorn::bench
