#pragma once

#include "effects/kernels/plane.h"

namespace vorn::detail {

class RenderControl;

/// Mean over the (2 radius + 1)^2 box around each value, mirrored at the borders; output must
/// not be input. The control, when given, is polled between bands of rows.
void boxMean(const Plane& input, int radius, Plane& output, const RenderControl* control = nullptr);

/// Minimum over the (2 radius + 1)^2 box around each value, edges repeated; output must not be
/// input. The control, when given, is polled between bands of rows.
void boxMinimum(const Plane& input, int radius, Plane& output,
                const RenderControl* control = nullptr);

/// The guided filter: output follows `input` smoothed within radius, keeping the edges of
/// `guide` whose local variance is well above eps. guide and input must be the same size; the
/// control, when given, is polled between passes.
void guidedFilter(const Plane& guide, const Plane& input, int radius, float eps, Plane& output,
                  const RenderControl* control = nullptr);

}  // namespace vorn::detail
