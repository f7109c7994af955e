// Renders of a 24 MP document (an image layer under exposure, contrast and saturation at
// opacity 0.8), each against a floor measured in the same run: the effects run directly on
// the frame plus one blend, or for the partial re-renders that full render itself.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "bench_data.h"
#include "bench_floor.h"
#include "vorn/core/processing_status.h"
#include "vorn/effects/effect_chain.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/io/image_metadata.h"
#include "vorn/pipeline/blend.h"
#include "vorn/pipeline/image_processor.h"

namespace vorn::bench {
namespace {

std::shared_ptr<Effect> effect(const char* id, float value) {
  std::shared_ptr<Effect> made = EffectFactory::instance().makeEffectWithID(id);
  if (made) made->parameters()[0].setValue(value);
  return made;
}

struct BenchDocument {
  BenchDocument() {
    auto image = std::make_shared<Image>(
        std::make_shared<ImageSource>(benchFrame(), std::make_shared<ImageMetadata>()));
    imageLayer = std::make_shared<ImageLayer>(image);
    adjustment = std::make_shared<AdjustmentLayer>(0);
    adjustment->pushBackEffect(effect("VORNExposureEffect", 40.0f));
    adjustment->pushBackEffect(effect("VORNContrastEffect", 30.0f));
    adjustment->pushBackEffect(effect("VORNSaturationEffect", 30.0f));
    adjustment->setOpacity(0.8f);
    processor.addLayer(imageLayer, 0);
    processor.addLayer(adjustment, 1);
  }
  bool render(_Size<int> size = {}) {
    ImageProcessorSettings settings;
    settings.processingSize = size;
    processor.startProcessing(settings);
    return processor.getLastResult() != nullptr;
  }
  bool fullRender() {
    processor.clearCache();
    return render();
  }
  /// The same effects run directly on the frame, then one blend.
  bool byHand(std::size_t firstEffect = 0) {
    const std::vector<std::shared_ptr<Effect>> effects(
        adjustment->effects().begin() + static_cast<long>(firstEffect),
        adjustment->effects().end());
    EffectCallContext call(benchFrame(), scratch, {}, {}, {}, nullptr);
    if (runEffectChain(effects, call).status != EffectChainStatus::Done) return false;
    scratch = call.destination;
    blendImages(scratch, benchFrame(), blended, {}, adjustment->opacity(), kBlendNormal, {});
    return blended != nullptr;
  }

  std::shared_ptr<ImageLayer> imageLayer;
  std::shared_ptr<AdjustmentLayer> adjustment;
  ImageProcessor processor;
  std::shared_ptr<RGBf> scratch;
  std::shared_ptr<RGBf> blended;
};

/// Rendered a few times first: the pool then holds a block for every step, as in an editor
/// that has shown the document for a while.
BenchDocument& document() {
  static BenchDocument* const doc = [] {
    auto* made = new BenchDocument;
    for (int i = 0; i < 3; ++i) made->fullRender();
    return made;
  }();
  return *doc;
}

void fullRender(benchmark::State& state) {
  BenchDocument& doc = document();
  timeAgainstFloor(
      state, Pool::Warm, "effects + one blend", [&] { return doc.byHand(); },
      [&] { return doc.fullRender(); });
  state.counters["peak_frames"] = static_cast<double>(doc.processor.renderPeakBytes()) /
                                  static_cast<double>(kFrame.area() * 12);
}

/// A re-render after `change`, against a full render.
template <typename Change>
void reRender(benchmark::State& state, Change change) {
  BenchDocument& doc = document();
  timeAgainstFloor(
      state, Pool::Warm, "full render", [&] { return doc.fullRender(); },
      [&] {
        change(doc);
        return doc.render();
      });
}

void afterOpacityChange(benchmark::State& state) {
  reRender(state, [](BenchDocument& doc) {
    doc.adjustment->setOpacity(doc.adjustment->opacity() == 0.8f ? 0.7f : 0.8f);
  });
}

void afterNoChange(benchmark::State& state) {
  reRender(state, [](BenchDocument&) {});
}

/// The image layer keeps a reduced copy of its frame across clearCache (made in the warm-up
/// call), so this is the preview of an editor that has shown the document before.
void preview(benchmark::State& state) {
  BenchDocument& doc = document();
  timeAgainstFloor(
      state, Pool::Warm, "full render", [&] { return doc.fullRender(); },
      [&] {
        doc.processor.clearCache();
        return doc.render(_Size<int>(1500, 1000));
      });
}

/// A preview of a straightened crop (0.05 rad, 90 % of the frame), against the uncropped
/// preview: what the extra resample of a turned crop costs.
void turnedCropPreview(benchmark::State& state) {
  BenchDocument& doc = document();
  const auto previewOf = [&](bool applyCrop) {
    doc.processor.clearCache();
    ImageProcessorSettings settings;
    settings.processingSize = _Size<int>(1500, 1000);
    settings.applyCrop = applyCrop;
    doc.processor.startProcessing(settings);
    return doc.processor.getLastResult() != nullptr;
  };
  doc.processor.setCropDescription(CropDescription(0.05f, _Rect<int>(300, 200, 5400, 3600)));
  timeAgainstFloor(
      state, Pool::Warm, "uncropped preview", [&] { return previewOf(false); },
      [&] { return previewOf(true); });
  doc.processor.setCropDescription({});
}

/// Changing the last effect, against that effect run alone plus one blend.
void afterLastEffectChange(benchmark::State& state) {
  BenchDocument& doc = document();
  timeAgainstFloor(
      state, Pool::Warm, "last effect + one blend", [&] { return doc.byHand(2); },
      [&] {
        Parameter& p = doc.adjustment->effectAtIndex(2)->parameters()[0];
        p.setValue(p.value() == 30.0f ? 20.0f : 30.0f);
        return doc.render();
      });
}

/// Time from the stop request to startProcessing's return, 20 tries with the request spread
/// over the length of a full render of the document with two spatial effects (dehaze and a
/// wide blur) in front of its chain: the long passes are where a stop can wait.
void cancellationLatency(benchmark::State& state) {
  BenchDocument& doc = document();
  const std::shared_ptr<Effect> spatial[] = {effect("VORNDehazeEffect", 60.0f),
                                             effect("VORNSimpleBlurEffect", 60.0f)};
  for (std::size_t i = 0; i < std::size(spatial); ++i)
    doc.adjustment->insertEffectAtIndex(spatial[i], i);
  // The fastest of three renders: the first after inserting the effects also pays for new
  // pool blocks, and stops spread over a too-long time would miss the end of later renders.
  bool ok = true;
  double renderSeconds = secondsOf([&] { return doc.fullRender(); }, ok);
  for (int i = 0; i < 2; ++i)
    renderSeconds = std::min(renderSeconds, secondsOf([&] { return doc.fullRender(); }, ok));
  std::vector<double> latencies;
  for (auto _ : state) {
    for (int attempt = 0; attempt < 20; ++attempt) {
      doc.processor.clearCache();
      ImageProcessorSettings settings;
      settings.stopProcessing = std::make_shared<bool>(false);
      const auto delay = std::chrono::duration<double>(renderSeconds * 0.9 * attempt / 20.0);
      std::chrono::steady_clock::time_point stopAt;
      std::thread stopper([&] {
        std::this_thread::sleep_for(delay);
        stopAt = std::chrono::steady_clock::now();
        requestCancel(settings.stopProcessing.get());
      });
      doc.processor.startProcessing(settings);
      const auto returned = std::chrono::steady_clock::now();
      stopper.join();
      if (returned > stopAt)
        latencies.push_back(std::chrono::duration<double, std::milli>(returned - stopAt).count());
    }
    state.SetIterationTime(renderSeconds);
  }
  for (const auto& made : spatial) doc.adjustment->removeEffect(made);
  doc.fullRender();
  if (!ok || latencies.empty()) return state.SkipWithError("every render ended before its stop");
  std::sort(latencies.begin(), latencies.end());
  state.counters["render_ms"] = renderSeconds * 1000.0;
  state.counters["median_ms"] = latencies[latencies.size() / 2];
  state.counters["worst_ms"] = latencies.back();
  state.counters["stopped"] = static_cast<double>(latencies.size());
}

const bool kRegistered = [] {
  const auto add = [](const char* name, void (*body)(benchmark::State&)) {
    benchmark::RegisterBenchmark(name, body)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(5);
  };
  add("BM_ProcessorFullRender6000x4000", fullRender);
  add("BM_ProcessorOpacityChange6000x4000", afterOpacityChange);
  add("BM_ProcessorNoChange6000x4000", afterNoChange);
  add("BM_ProcessorLastEffectChange6000x4000", afterLastEffectChange);
  add("BM_ProcessorPreview1500x1000Of6000x4000", preview);
  add("BM_ProcessorTurnedCropPreview1500x1000Of6000x4000", turnedCropPreview);
  benchmark::RegisterBenchmark("BM_ProcessorCancelLatency6000x4000", cancellationLatency)
      ->Unit(benchmark::kMillisecond)
      ->UseManualTime()
      ->Iterations(1);
  return true;
}();

}  // namespace
}  // namespace vorn::bench
