#include "vorn/pipeline/brush/brush_utils.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "brush_stamp.h"
#include "core/log_failure.h"
#include "core/parallel.h"
#include "mask_blocks.h"
#include "vorn/core/float_compare.h"
#include "vorn/pipeline/brush/brush_context.h"

namespace vorn::BrushUtils {
namespace {

// A stroke segment that would need more dabs than this is cut short: its far end lies so far
// off the canvas that no dab could reach the mask anyway.
constexpr double kMaxDabsPerPoint = 1e6;
// Dabs with a footprint below this many pixels are laid on the calling thread.
constexpr std::int64_t kParallelFootprint = 1 << 16;

/// The cached padded stamp for `setting`, rebuilt when the setting, mask or crop changed.
const MaskImage* stampFor(const BrushSetting& setting, BaseBrushContext& context) {
  BaseBrushContext::Stamp& cache = context.stampCache();
  const MaskImage& mask = *context.mask();
  const bool fresh = cache.padded && cache.maskSize == mask.size() &&
                     cache.crop == context.crop() && cache.setting.radius == setting.radius &&
                     cache.setting.hardness == setting.hardness;
  if (fresh) return cache.padded.get();
  cache.padded.reset();
  const std::shared_ptr<MaskImage> stamp =
      detail::makeStamp(setting, context.canvasSize(), mask.size(), context.crop());
  if (!stamp) return nullptr;
  cache.padded = detail::padStamp(*stamp);
  cache.setting = setting;
  cache.maskSize = mask.size();
  cache.crop = context.crop();
  return cache.padded.get();
}

/// Per-dab values the pixel loop needs, computed once per dab.
struct Dab {
  const MaskImage* padded;
  int originX, originY;  // footprint's top-left pixel (may lie outside the mask)
  float fx, fy;          // sub-pixel offset of the stamp's corner
  float flow, cap;
  bool erase;
};

/// Lays the bilinear-split stamp over rows [first, end) of the clipped footprint `rect`. The
/// stroke's coverage c grows by (1 - c) a flow up to its opacity; paint gives m0 + (1 - m0) c
/// and erase m0 (1 - c), m0 the mask when the stroke began, so a stroke never builds on itself.
void layRows(const Dab& dab, BaseBrushContext& context, const _Rect<int>& rect, int first,
             int end) {
  MaskImage& mask = *context.mask();
  const MaskImage& snapshot = *context.snapshotBuffer();
  MaskImage& coverage = *context.coverageBuffer();
  const float w00 = (1.0f - dab.fx) * (1.0f - dab.fy), w10 = dab.fx * (1.0f - dab.fy);
  const float w01 = (1.0f - dab.fx) * dab.fy, w11 = dab.fx * dab.fy;
  for (int y = rect.y + first; y < rect.y + end; ++y) {
    const int v = y - dab.originY;
    const float* below = dab.padded->row(v + 1);  // stamp row v
    const float* above = dab.padded->row(v);      // stamp row v - 1
    float* m = mask.row(y);
    const float* m0 = snapshot.row(y);
    float* c = coverage.row(y);
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
      const int u = x - dab.originX;
      const float a = w00 * below[u + 1] + w10 * below[u] + w01 * above[u + 1] + w11 * above[u];
      const float grown = std::min(dab.cap, c[x] + (1.0f - c[x]) * a * dab.flow);
      const float cover = std::max(c[x], grown);
      c[x] = cover;
      m[x] = dab.erase ? m0[x] * (1.0f - cover) : m0[x] + (1.0f - m0[x]) * cover;
    }
  }
}

/// One dab at pixel centre (px, py); the clipped footprint, all-zero when off the mask.
_Rect<int> layDab(double px, double py, const MaskImage& padded, const BrushSetting& setting,
                  BaseBrushContext& context) {
  const int w = padded.width - 2, h = padded.height - 2;
  const double cornerX = px - 0.5 * w + 1.0, cornerY = py - 0.5 * h + 1.0;
  const MaskImage& mask = *context.mask();
  if (cornerX >= mask.width || cornerY >= mask.height || cornerX + w + 1 <= 0 ||
      cornerY + h + 1 <= 0)
    return {};
  const double floorX = std::floor(cornerX), floorY = std::floor(cornerY);
  Dab dab{&padded,
          static_cast<int>(floorX),
          static_cast<int>(floorY),
          static_cast<float>(cornerX - floorX),
          static_cast<float>(cornerY - floorY),
          setting.flow,
          setting.opacity,
          context.brushMode() == kBrushModeErase};
  const _Rect<int> rect =
      detail::clipRect(_Rect<int>(dab.originX, dab.originY, w + 1, h + 1), mask.size());
  if (rect.isZero()) return {};
  context.touchBlocks(rect);
  const auto rows = [&](int first, int end) { layRows(dab, context, rect, first, end); };
  if (static_cast<std::int64_t>(rect.width) * rect.height >= kParallelFootprint)
    detail::parallelRows(rect.height, rows);
  else
    rows(0, rect.height);
  return rect;
}

}  // namespace

std::vector<_Point<float>> generateStrokeBrushes(_Point<float> point, BrushSetting setting,
                                                 BaseBrushContext* context) {
  std::vector<_Point<float>> dabs;
  if (!context || !context->isStrokeInProgress()) {
    VORN_LOG_FAILURE("Can't stroke! Stroke isn't beeing in progress!");
    return dabs;
  }
  if (!std::isfinite(point.x) || !std::isfinite(point.y) || !sanitizeBrushSetting(setting))
    return dabs;
  if (context->hasNoLastPosition()) {
    context->setLastPosition(point);
    dabs.push_back(point);
    return dabs;
  }
  const _Point<float> last = context->lastPosition();
  const double width = context->canvasWidth(), height = context->canvasHeight();
  const double dx = static_cast<double>(last.x) - point.x,
               dy = static_cast<double>(last.y) - point.y;
  const double d = std::sqrt((width * dx) * (width * dx) + (height * dy) * (height * dy)) /
                   std::min(width, height);
  const double s = 0.4 * setting.radius * (1.0 + setting.spacing);
  if (!(d >= s) || !(s > 0.0)) return dabs;
  const double n = std::min(std::floor(d / s), kMaxDabsPerPoint);
  if (n >= kMaxDabsPerPoint) LogWarning("A stroke segment was cut at %.0f dabs", n);
  const double stepX = -dx * s / d, stepY = -dy * s / d;
  double x = last.x, y = last.y;
  dabs.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < static_cast<int>(n); ++i) {
    x += stepX;
    y += stepY;
    dabs.emplace_back(static_cast<float>(x), static_cast<float>(y));
  }
  context->setLastPosition(dabs.back());
  return dabs;
}

bool processStroke(_Point<float> point, BrushSetting setting, BaseBrushContext* context,
                   _Rect<int>& changed) {
  changed = {};
  if (!context || !context->mask() || context->mask()->empty()) {
    VORN_LOG_FAILURE("The brush context has no mask");
    if (context) context->setChanged(false);
    return false;
  }
  if (!context->isStrokeInProgress()) {
    VORN_LOG_FAILURE("Can't stroke! Stroke isn't beeing in progress!");
    context->setChanged(false);
    return false;
  }
  if (!sanitizeBrushSetting(setting)) {
    context->setChanged(false);
    return false;
  }
  const MaskImage& mask = *context->mask();
  const MaskImage* snapshot = context->snapshotBuffer();
  const MaskImage* coverage = context->coverageBuffer();
  if (!snapshot || !coverage || snapshot->size() != mask.size() ||
      coverage->size() != mask.size()) {
    VORN_LOG_FAILURE("Incosistence in fbuffers sizes.");
    context->setChanged(false);
    return false;
  }
  // Checked before the dabs are placed, so a refused point does not move the stroke on.
  const MaskImage* padded = stampFor(setting, *context);
  if (!padded) {
    context->setChanged(false);
    return false;
  }
  const std::vector<_Point<float>> centres = generateStrokeBrushes(point, setting, context);
  for (const _Point<float>& centre : centres) {
    const _Rect<int> rect =
        layDab(static_cast<double>(centre.x) * mask.width,
               static_cast<double>(centre.y) * mask.height, *padded, setting, *context);
    changed = detail::uniteRects(changed, rect);
  }
  context->setChanged(!changed.isZero(), changed);
  return true;
}

bool processCancelStroke(BaseBrushContext* context, _Rect<int>& changed) {
  changed = {};
  if (!context || !context->mask()) {
    VORN_LOG_FAILURE("The brush context has no mask");
    return false;
  }
  const bool restored = context->restoreTouchedBlocks(changed);
  context->setChanged(!changed.isZero(), changed);
  return restored;
}

}  // namespace vorn::BrushUtils
