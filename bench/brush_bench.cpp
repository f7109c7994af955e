// Brush dabs on a 24 MP mask: a dab must cost its own area, a stroke must keep up with a 120 Hz
// pointer, and refreshing the layer after a dab must cost the dab's region, not the mask's.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "bench_floor.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/brush/brush_context.h"
#include "vorn/pipeline/brush/brush_controller.h"
#include "vorn/pipeline/brush/brush_utils.h"

namespace vorn::bench {
namespace {

constexpr _Size<int> kMask(6000, 4000);
constexpr int kDabsPerRun = 8;
constexpr int kStrokePoints = 200;

BrushSetting brushOfRadius(float pixels) {
  BrushSetting setting;
  setting.radius = pixels / static_cast<float>(kMask.height);
  setting.hardness = 0.5f;
  setting.flow = 0.5f;
  return setting;
}

std::shared_ptr<BrushContext> strokingContext(std::weak_ptr<BaseLayer> layer = {}) {
  auto context =
      std::make_shared<BrushContext>(std::make_shared<MaskImage>(kMask, 0.0f), kMask, layer);
  context->prepareStroke();
  return context;
}

/// kDabsPerRun separate dabs, each opening its own stroke (so each snapshots its blocks).
void dabsAgainstPixelWrites(benchmark::State& state) {
  const float radius = static_cast<float>(state.range(0));
  const BrushSetting setting = brushOfRadius(radius);
  const auto context = strokingContext();
  std::vector<_Rect<int>> footprints;
  bool ok = true;
  const auto layDabs = [&] {
    footprints.clear();
    for (int i = 0; i < kDabsPerRun; ++i) {
      context->startStroke();
      const float x = 0.1f + 0.8f * static_cast<float>(i) / kDabsPerRun;
      _Rect<int> changed;
      ok = BrushUtils::processStroke({x, 0.5f}, setting, context.get(), changed) && ok;
      footprints.push_back(changed);
      context->finishStroke();
    }
    return ok && !footprints.front().isZero();
  };
  layDabs();
  const auto target = std::make_shared<MaskImage>(kMask, 0.0f);
  float value = 0.0f;
  timeAgainstFloor(
      state, Pool::Warm, "fill the same pixels",
      [&] {
        value = value > 0.5f ? 0.25f : 0.75f;
        for (const _Rect<int>& rect : footprints) target->fillRect(value, rect);
        benchmark::ClobberMemory();
        return true;
      },
      layDabs);
  std::int64_t pixels = 0;
  for (const _Rect<int>& rect : footprints)
    pixels += static_cast<std::int64_t>(rect.width) * rect.height;
  state.counters["dabs_per_s"] =
      benchmark::Counter(kDabsPerRun, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["px_per_dab"] = static_cast<double>(pixels) / kDabsPerRun;
}

/// A 200-point stroke at 50 px through a synchronous controller on a layer with its caches,
/// against the same stroke laid on a bare context (no layer to refresh).
void strokeAgainstBareDabs(benchmark::State& state) {
  auto layer = std::make_shared<AdjustmentLayer>(0);
  layer->createMaskWithSize(kMask, 0.0f);
  BrushController controller(layer, kMask, true);
  if (!layer->maskThumbnail() || !layer->maskPreview()) return state.SkipWithError("no caches");
  const BrushSetting setting = brushOfRadius(50.0f);
  const auto point = [](int i) {
    const float t = static_cast<float>(i) / kStrokePoints;
    return _Point<float>(0.1f + 0.8f * t, 0.3f + 0.4f * t * t);
  };
  const auto bare = strokingContext();
  double strokeSeconds = 0.0;
  int strokes = 0;
  timeAgainstFloor(
      state, Pool::Warm, "bare dabs",
      [&] {
        bare->startStroke();
        _Rect<int> changed;
        for (int i = 0; i < kStrokePoints; ++i)
          BrushUtils::processStroke(point(i), setting, bare.get(), changed);
        bare->finishStroke();
        return true;
      },
      [&] {
        const auto start = std::chrono::steady_clock::now();
        bool ok = controller.startStroke();
        for (int i = 0; i < kStrokePoints; ++i) ok = controller.stroke(point(i), setting) && ok;
        ok = controller.finishStroke() && ok;
        strokeSeconds +=
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        ++strokes;
        return ok;
      });
  if (strokes > 0) state.counters["ms_per_point"] = strokeSeconds * 1e3 / strokes / kStrokePoints;
}

/// The layer refresh after one 100 px dab (mask write, thumbnail and preview over the dab)
/// against the same path over the whole mask.
void dabRefreshAgainstFull(benchmark::State& state) {
  auto layer = std::make_shared<AdjustmentLayer>(0);
  layer->createMaskWithSize(kMask, 0.0f);
  const auto context = strokingContext(layer);
  if (!layer->maskThumbnail() || !layer->maskPreview()) return state.SkipWithError("no caches");
  context->startStroke();
  _Rect<int> dab;
  BrushUtils::processStroke({0.5f, 0.5f}, brushOfRadius(100.0f), context.get(), dab);
  timeAgainstFloor(
      state, Pool::Warm, "full refresh",
      [&] { return context->publish(_Rect<int>(0, 0, kMask.width, kMask.height)); },
      [&] { return context->publish(dab); });
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("BM_BrushDabsOn6000x4000", dabsAgainstPixelWrites)
      ->Arg(10)
      ->Arg(100)
      ->Arg(500)
      ->Unit(benchmark::kMicrosecond)
      ->UseManualTime();
  benchmark::RegisterBenchmark("BM_BrushStroke200PointsR50", strokeAgainstBareDabs)
      ->Unit(benchmark::kMillisecond)
      ->UseManualTime();
  benchmark::RegisterBenchmark("BM_BrushLayerRefreshAfterDab", dabRefreshAgainstFull)
      ->Unit(benchmark::kMicrosecond)
      ->UseManualTime();
  return true;
}();

}  // namespace
}  // namespace vorn::bench
