#include "mask_filter.h"

#include <algorithm>
#include <cmath>

#include "core/parallel.h"
#include "effects/kernels/gaussian.h"
#include "effects/kernels/plane.h"
#include "pipeline/rect_utils.h"

namespace vorn::detail {
namespace {

// Sigma of a feather of 1, as a share of the canvas's shorter side.
constexpr float kFeatherSigmaShare = 0.05f;

}  // namespace

float featherSigma(const MaskSetting& setting, int shortSide) {
  return setting.feather * kFeatherSigmaShare * static_cast<float>(shortSide);
}

int featherReach(float sigma) {
  if (!(sigma >= kNegligibleSigma)) return 0;
  // The exact kernel reaches ceil(3 sigma); three boxes at most 1.5 px beyond 3 sigma.
  return static_cast<int>(std::ceil(3.0f * sigma)) + 3;
}

void featherAndDensity(const MaskImage& source, MaskImage& target, const _Rect<int>& rect,
                       float sigma, float density) {
  const _Rect<int> out = clipRect(rect, source.size());
  if (out.isZero() || target.size() != source.size()) return;
  const int reach = featherReach(sigma);
  const _Rect<int> in = clipRect(out.inset(-reach, -reach), source.size());
  Plane plane(in.width, in.height);
  parallelRows(in.height, [&](int first, int end) {
    for (int y = first; y < end; ++y)
      std::copy_n(source.row(in.y + y) + in.x, in.width, plane.row(y));
  });
  // Inside the mask the region's own mirrored border errs only within `reach` of it, which is
  // where `out` begins; at the mask's edge the mirror is the filter's border rule.
  if (reach > 0) gaussianBlur(plane, sigma, plane);
  parallelRows(out.height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const float* from = plane.row(out.y - in.y + y) + (out.x - in.x);
      float* to = target.row(out.y + y) + out.x;
      for (int x = 0; x < out.width; ++x) to[x] = from[x] * density;
    }
  });
}

}  // namespace vorn::detail
