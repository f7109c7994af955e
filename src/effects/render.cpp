#include "effects/render.h"

#include <cfloat>
#include <cstring>

#include "core/dispatch.h"
#include "core/image_data_internal.h"

namespace vorn::detail {

std::optional<_Rect<int>> renderRegion(const EffectCallContext& call) {
  if (!call.source) return std::nullopt;
  return clipToImage(call.roi.isZero() ? call.source->rect() : call.roi, call.source->size());
}

// The caller normally supplies the destination; an empty one is made here rather than
// failing, a wrong-sized one is refused.
bool prepareDestination(EffectCallContext& call) {
  if (!call.source || call.source->empty()) return false;
  if (!call.destination) {
    call.destination = std::make_shared<ImageRGBf>(call.source->size(), call.source->colorProfile);
  }
  return !call.destination->empty() && call.destination->size() == call.source->size();
}

void copyRegion(const ImageRGBf& source, ImageRGBf& destination, _Rect<int> region) {
  if (source.data == destination.data) return;
  if (region.x == 0 && region.width == source.width) {
    parallelCopy(destination.row(region.y), source.row(region.y),
                 static_cast<std::size_t>(region.height) * source.width * sizeof(PixelRGB<float>));
    return;
  }
  const std::size_t rowBytes = static_cast<std::size_t>(region.width) * sizeof(PixelRGB<float>);
  parallelRows(region.height, [&](int first, int end) {
    for (int y = region.y + first; y < region.y + end; ++y)
      std::memcpy(destination.row(y) + region.x, source.row(y) + region.x, rowBytes);
  });
}

bool copySourceToDestination(EffectCallContext& call) {
  const auto region = renderRegion(call);
  if (!region || !prepareDestination(call)) return false;
  copyRegion(*call.source, *call.destination, *region);
  return true;
}

VORN_DISPATCH void makeFinite(float* values, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    float v = values[i];
    v = v == v ? v : 0.0f;
    v = v < FLT_MAX ? v : FLT_MAX;
    v = v > -FLT_MAX ? v : -FLT_MAX;
    values[i] = v;
  }
}

RenderSetup makeRenderSetup(const EffectCallContext& call, _Rect<int> readable,
                            float spatialScale) {
  const bool hasReference = call.reference && !call.reference->empty();
  // Without a reference a region render measures only what it may read, never pixels that a
  // chain has not rendered yet.
  const ImageRGBf& statistics = hasReference ? *call.reference : *call.source;
  return RenderSetup{statistics, hasReference ? call.reference->rect() : readable, spatialScale,
                     RenderControl(call.cancel)};
}

}  // namespace vorn::detail
