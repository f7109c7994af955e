// Blending of two 24 MP frames through a mask into a preallocated result, each mode timed
// against a parallel copy of one frame in the same iterations.
#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "bench_data.h"
#include "bench_floor.h"
#include "core/parallel.h"
#include "vorn/pipeline/blend.h"

namespace vorn::bench {
namespace {

const char* const kModeNames[] = {"Normal",    "Multiply",   "ColorBurn", "Screen",  "Overlay",
                                  "SoftLight", "Darken",     "HardLight", "Lighten", "Difference",
                                  "Subtract",  "Luminosity", "Hue",       "Color"};

// The layer beneath: the bench frame's channels rotated and dimmed, so that every mode meets
// pixel pairs that differ.
const std::shared_ptr<RGBf>& bottomFrame() {
  static const std::shared_ptr<RGBf> image = [] {
    const auto& top = benchFrame();
    auto img = std::make_shared<RGBf>(kFrame, top->colorProfile);
    detail::parallelRows(kFrame.height, [&](int first, int end) {
      for (int y = first; y < end; ++y)
        for (int x = 0; x < kFrame.width; ++x) {
          const PixelRGB<float> p = top->at(kFrame.width - 1 - x, y);
          img->at(x, y) = PixelRGB<float>(0.8f * p.b, 0.9f * p.r, p.g);
        }
    });
    return img;
  }();
  return image;
}

const std::shared_ptr<_ImageData<float>>& maskFrame() {
  static const std::shared_ptr<_ImageData<float>> mask = [] {
    auto img = std::make_shared<_ImageData<float>>(kFrame);
    detail::parallelRows(kFrame.height, [&](int first, int end) {
      for (int y = first; y < end; ++y)
        for (int x = 0; x < kFrame.width; ++x)
          img->at(x, y) = static_cast<float>((x + y) % 1000) / 999.0f;
    });
    return img;
  }();
  return mask;
}

// rect zero is the whole frame; the inset rect shows the path that writes through the cache.
void runBlend(benchmark::State& state, BlendModeType mode, _Rect<int> rect, bool masked = true) {
  auto result = std::make_shared<RGBf>(kFrame, benchFrame()->colorProfile);
  result->fillRect(PixelRGB<float>(0.0f));
  const std::shared_ptr<const RGBf> top = benchFrame();
  const std::shared_ptr<const RGBf> bottom = bottomFrame();
  const std::shared_ptr<const _ImageData<float>> mask = masked ? maskFrame() : nullptr;
  timeAgainstFloor(
      state, Pool::Warm, "copy", [] { return copyFloor(Pool::Warm); },
      [&] {
        blendImages(top, bottom, result, mask, 0.7f, mode, rect);
        benchmark::ClobberMemory();
        return true;
      });
  state.SetBytesProcessed(
      static_cast<std::int64_t>(state.iterations() * benchFrame()->sizeInBytes()));
}

// The memory traffic of a masked blend and nothing else: three frames read, one written, as the
// floor a bandwidth-bound mode cannot beat. Timed against the copy like the modes.
void runReadThreeWriteOne(benchmark::State& state) {
  const auto& top = *benchFrame();
  const auto& bottom = *bottomFrame();
  const auto& mask = *maskFrame();
  auto result = std::make_shared<RGBf>(kFrame, top.colorProfile);
  result->fillRect(PixelRGB<float>(0.0f));
  timeAgainstFloor(
      state, Pool::Warm, "copy", [] { return copyFloor(Pool::Warm); },
      [&] {
        detail::parallelRows(kFrame.height, [&](int first, int end) {
          for (int y = first; y < end; ++y) {
            const float* __restrict t = &top.row(y)->r;
            const float* __restrict b = &bottom.row(y)->r;
            const float* __restrict m = mask.row(y);
            float* __restrict out = &result->row(y)->r;
            // The mask is summed on its own so that no shuffle stands between the streams.
            float lanes[8] = {};
            int x = 0;
            for (; x + 8 <= kFrame.width; x += 8)
              for (int k = 0; k < 8; ++k) lanes[k] += m[x + k];
            for (; x < kFrame.width; ++x) lanes[0] += m[x];
            for (int i = 0; i < 3 * kFrame.width; ++i) out[i] = t[i] + b[i];
            for (float lane : lanes) out[0] += lane;
          }
        });
        benchmark::ClobberMemory();
        return true;
      });
}

const bool kRegistered = [] {
  for (int mode = kBlendNormal; mode <= kBlendColor; ++mode) {
    benchmark::RegisterBenchmark(
        (std::string("BM_Blend/") + kModeNames[mode]).c_str(),
        [mode](benchmark::State& state) { runBlend(state, BlendModeType(mode), {}); })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
  }
  const _Rect<int> inset(1, 1, kFrame.width - 2, kFrame.height - 2);
  // Without a mask the pass reads two frames instead of three: the memory traffic alone.
  const std::pair<const char*, std::function<void(benchmark::State&)>> variants[] = {
      {"BM_Blend/Normal/inset", [inset](auto& state) { runBlend(state, kBlendNormal, inset); }},
      {"BM_Blend/Normal/unmasked", [](auto& state) { runBlend(state, kBlendNormal, {}, false); }},
      {"BM_Blend/floor/read3write1", runReadThreeWriteOne},
  };
  for (const auto& [name, body] : variants)
    benchmark::RegisterBenchmark(name, body)->Unit(benchmark::kMillisecond)->UseManualTime();
  return true;
}();

}  // namespace
}  // namespace vorn::bench
