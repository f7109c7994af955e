// A brush dab on a 24 MP layer mask: the write plus the refresh of its thumbnail, preview and
// turned render, timed against a copy of the same rectangle and against rebuilding the caches.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

#include "bench_floor.h"
#include "vorn/pipeline/adjustment_layer.h"

namespace vorn::bench {
namespace {

constexpr _Size<int> kMask(6000, 4000);
constexpr _Rect<int> kDab(2811, 1733, 300, 300);

/// A layer with a 6000 x 4000 ramp mask with its thumbnail and preview, and with `turned` also
/// its render for a turned 1500 x 1000 output.
struct MaskedLayer {
  bool turned;
  AdjustmentLayer layer{0};
  ImageTransformSettings render = ImageTransformSettings::forCanvas(kMask);
  std::shared_ptr<MaskImage> dab = std::make_shared<MaskImage>(kDab.size(), 0.0f);

  explicit MaskedLayer(bool withRender) : turned(withRender) {
    layer.createMaskWithSize(kMask, 0.0f);
    const auto mask = layer.mask();
    for (int y = 0; y < mask->height; ++y)
      for (int x = 0; x < mask->width; ++x)
        mask->at(x, y) = static_cast<float>((x + y) % 1000) / 1000.0f;
    render.layerToCanvas.rotate(0.02f);
    render.outputSize = _Size<int>(1500, 1000);
    buildCaches();
  }
  bool buildCaches() {
    return layer.maskThumbnail() && layer.maskPreview() &&
           (!turned || layer.maskPreviewForTransform(render));
  }
  /// A different value each call, so no refresh can be skipped as a no-op.
  bool writeDab() {
    dab->setFillWith(dab->at(0, 0) > 0.5f ? 0.25f : 0.75f);
    return LayerMaskWriter::write(&layer, dab, kDab);
  }
};

template <bool Turned>
void dabAgainstCopy(benchmark::State& state) {
  MaskedLayer masked(Turned);
  auto target = std::make_shared<MaskImage>(kMask, 0.0f);
  timeAgainstFloor(
      state, Pool::Warm, "copy 300x300",
      [&] {
        for (int r = 0; r < kDab.height; ++r)
          std::memcpy(target->row(kDab.y + r) + kDab.x, masked.dab->row(r),
                      static_cast<std::size_t>(kDab.width) * sizeof(float));
        benchmark::ClobberMemory();
        return true;
      },
      [&] { return masked.writeDab(); });
}

void dabAgainstRebuild(benchmark::State& state) {
  MaskedLayer masked(true);
  timeAgainstFloor(
      state, Pool::Warm, "rebuild caches",
      [&] {
        masked.layer.resetMaskCache();
        return masked.buildCaches();
      },
      [&] { return masked.writeDab(); });
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("BM_MaskDab300On6000x4000", dabAgainstCopy<true>)
      ->Unit(benchmark::kMicrosecond)
      ->UseManualTime();
  // Without the turned render: the two area-average reductions alone.
  benchmark::RegisterBenchmark("BM_MaskDab300On6000x4000Reductions", dabAgainstCopy<false>)
      ->Unit(benchmark::kMicrosecond)
      ->UseManualTime();
  benchmark::RegisterBenchmark("BM_MaskDab300On6000x4000VsRebuild", dabAgainstRebuild)
      ->Unit(benchmark::kMicrosecond)
      ->UseManualTime();
  return true;
}();

}  // namespace
}  // namespace vorn::bench
