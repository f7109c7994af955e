// Buffer operations on a 24 MP frame, each timed against a parallel copy or read of the same
// bytes in the same iterations, with fresh (cold) and reused (warm) pool blocks.
#include <benchmark/benchmark.h>

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

// A destination that lives across iterations when warm and is made anew each time when cold.
class Destination {
 public:
  Destination(Pool pool, _Size<int> size) : pool_(pool), size_(size) {}
  std::shared_ptr<RGBf>& get() {
    if (pool_ == Pool::Cold || !buffer_) buffer_ = std::make_shared<RGBf>(size_);
    return buffer_;
  }
  void done() {
    if (pool_ == Pool::Cold) buffer_.reset();
  }

 private:
  Pool pool_;
  _Size<int> size_;
  std::shared_ptr<RGBf> buffer_;
};

// In place, so only the warm pool applies.
void BM_Clamp(benchmark::State& state) {
  auto img = benchFrame()->copy();
  timeAgainstFloor(
      state, Pool::Warm, "copy", [] { return copyFloor(Pool::Warm); },
      [&] {
        img->clamp();
        return true;
      });
}

void copyWhole(benchmark::State& state, Pool pool) {
  timeAgainstFloor(
      state, pool, "copy", [pool] { return copyFloor(pool); },
      [] { return benchFrame()->copy() != nullptr; });
}

void thumbnailDefault(benchmark::State& state, Pool pool) {
  timeAgainstFloor(state, pool, "read", readFloor,
                   [] { return benchFrame()->thumbnail() != nullptr; });
}

template <int Width, int Height>
void resizeTo(benchmark::State& state, Pool pool) {
  Destination dst(pool, {Width, Height});
  timeAgainstFloor(state, pool, "read", readFloor, [&] {
    const bool ok = benchFrame()->resizeTo(dst.get(), _Size<int>(Width, Height));
    dst.done();
    return ok;
  });
}

void affineRotate5Deg(benchmark::State& state, Pool pool) {
  Destination dst(pool, {1500, 1000});
  AffineTransform turn;
  turn.translate(750, 500);
  turn.rotate(5.0f * std::numbers::pi_v<float> / 180.0f);
  turn.translate(-750, -500);
  const _Rect<float> whole(0, 0, static_cast<float>(kFrame.width),
                           static_cast<float>(kFrame.height));
  timeAgainstFloor(state, pool, "read", readFloor, [&] {
    benchFrame()->copyAffineTransformedTo(dst.get(), whole, turn);
    dst.done();
    return true;
  });
}

void colorTransformToProPhoto(benchmark::State& state, Pool pool) {
  Destination dst(pool, kFrame);
  const auto target = ColorProfileType::proPhotoRGB();
  timeAgainstFloor(
      state, pool, "copy", [pool] { return copyFloor(pool); },
      [&] {
        const bool ok = benchFrame()->colorTransform(dst.get(), target);
        dst.done();
        return ok;
      });
}

// A fresh block from plain malloc against a fresh pool block (huge pages), both filled by copy.
void BM_FreshMallocPlusCopy(benchmark::State& state) {
  const auto& src = benchFrame();
  timeAgainstFloor(
      state, Pool::Cold, "copy", [] { return copyFloor(Pool::Cold); },
      [&] {
        void* block = std::malloc(src->sizeInBytes());
        if (!block) return false;
        detail::parallelCopy(block, src->data, src->sizeInBytes());
        benchmark::DoNotOptimize(block);
        std::free(block);
        return true;
      });
}

void BM_PoolRecycled288MB(benchmark::State& state) {
  PoolScope warm(Pool::Warm);
  auto& pool = MemoryManager::instance();
  const std::size_t bytes = benchFrame()->sizeInBytes();
  pool.free(pool.allocate(bytes, false));
  for (auto _ : state) {
    std::uint8_t* block = pool.allocate(bytes, false);
    benchmark::DoNotOptimize(block);
    pool.free(block);
  }
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("BM_Clamp", BM_Clamp)
      ->Unit(benchmark::kMillisecond)
      ->UseManualTime();
  registerPoolPair("BM_Copy", copyWhole, benchmark::kMillisecond);
  registerPoolPair("BM_ThumbnailDefault", thumbnailDefault, benchmark::kMillisecond);
  registerPoolPair("BM_Resize1500x1000", resizeTo<1500, 1000>, benchmark::kMillisecond);
  // Non-integer factors: a large one (the default-style 160-wide thumbnail) and a small one.
  registerPoolPair("BM_Resize160x107", resizeTo<160, 107>, benchmark::kMillisecond);
  registerPoolPair("BM_Resize4000x2667", resizeTo<4000, 2667>, benchmark::kMillisecond);
  registerPoolPair("BM_AffineRotate5DegTo1500x1000", affineRotate5Deg, benchmark::kMillisecond);
  registerPoolPair("BM_ColorTransformSRGBToProPhoto", colorTransformToProPhoto,
                   benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_FreshMallocPlusCopy", BM_FreshMallocPlusCopy)
      ->Unit(benchmark::kMillisecond)
      ->UseManualTime();
  benchmark::RegisterBenchmark("BM_PoolRecycled288MB", BM_PoolRecycled288MB)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  return true;
}();

}  // namespace
}  // namespace vorn::bench
