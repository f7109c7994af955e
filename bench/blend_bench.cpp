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
  };
  for (const auto& [name, body] : variants)
    benchmark::RegisterBenchmark(name, body)->Unit(benchmark::kMillisecond)->UseManualTime();
  return true;
}();

}  // namespace
}  // namespace vorn::bench
