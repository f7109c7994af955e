#include "vorn/effects/point_effect.h"

#include <algorithm>
#include <new>

#include "effects/render.h"

namespace vorn {

namespace {
constexpr std::size_t kPixelsPerPiece = 1024;
}  // namespace

bool PointEffect::processImage(EffectCallContext& call) {
  const auto region = detail::renderRegion(call);
  if (!region || !detail::prepareDestination(call)) return false;
  const detail::RenderSetup setup = detail::makeRenderSetup(call, *region, spatialScale());
  setup.control.checkpoint();
  std::unique_ptr<detail::RowKernel> kernel;
  try {
    kernel = prepare(setup);
  } catch (const std::bad_alloc&) {
    return false;
  }
  const detail::ImageRGBf& source = *call.source;
  detail::ImageRGBf& destination = *call.destination;
  if (!kernel) {
    detail::copyRegion(source, destination, *region);
    return true;
  }
  const bool finite = kernel->finiteOutput();
  // Whole-width regions are contiguous, so a band of rows is one span for the kernel.
  const bool wholeRows = region->x == 0 && region->width == source.width;
  const auto width = static_cast<std::size_t>(region->width);
  detail::parallelRowsCancellable(region->height, setup.control, [&](int first, int end) {
    const int spans = wholeRows ? 1 : end - first;
    const std::size_t count = wholeRows ? width * static_cast<std::size_t>(end - first) : width;
    for (int s = 0; s < spans; ++s) {
      const int y = region->y + first + s;
      const PixelRGB<float>* in = source.row(y) + region->x;
      PixelRGB<float>* out = destination.row(y) + region->x;
      if (finite) {
        kernel->run(in, out, count);
        continue;
      }
      // In pieces that stay in the first-level cache between the kernel and the tail.
      for (std::size_t done = 0; done < count; done += kPixelsPerPiece) {
        const std::size_t piece = std::min(kPixelsPerPiece, count - done);
        kernel->run(in + done, out + done, piece);
        detail::makeFinite(&out[done].r, 3 * piece);
      }
    }
  });
  return true;
}

}  // namespace vorn
