#include "vorn/effects/stencil_effect.h"

#include <new>

#include "core/image_data_internal.h"
#include "effects/render.h"

namespace vorn {

_Rect<int> StencilEffect::getInRectForOutRect(_Rect<int> outRect) {
  const int margin = reach(spatialScale());
  return outRect.inset(-margin, -margin);
}

_Rect<int> StencilEffect::getOutRectForInRect(_Rect<int> inRect) {
  const int margin = reach(spatialScale());
  return inRect.inset(-margin, -margin);
}

bool StencilEffect::processImage(EffectCallContext& call) {
  const auto region = detail::renderRegion(call);
  if (!region || !detail::prepareDestination(call)) return false;
  // Reading and writing one buffer would feed rendered pixels back into their neighbours.
  if (call.source->data == call.destination->data) return false;
  const float scale = spatialScale();
  const int margin = reach(scale);
  const auto input =
      detail::clipToImage(region->inset(-margin, -margin), call.source->size()).value();
  const detail::RenderSetup setup = detail::makeRenderSetup(call, input, scale, context_.get());
  setup.control.checkpoint();
  if (isIdentity()) {
    detail::copyRegion(*call.source, *call.destination, *region);
    return true;
  }
  const detail::StencilWindow window(setup, *call.source, *call.destination, input, *region);
  try {
    render(window);
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (window.finiteRows) return true;
  const auto width = static_cast<std::size_t>(region->width);
  detail::parallelRows(region->height, [&](int first, int end) {
    for (int y = region->y + first; y < region->y + end; ++y)
      detail::makeFinite(&(call.destination->row(y) + region->x)->r, 3 * width);
  });
  return true;
}

}  // namespace vorn
