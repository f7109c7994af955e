#pragma once

#include <vector>

#include "vorn/core/geometry.h"
#include "vorn/pipeline/brush/brush_setting.h"

namespace vorn {

class BaseBrushContext;

namespace BrushUtils {

/// The dab centres (normalised) one new stroke point adds, moving the context's last position.
std::vector<_Point<float>> generateStrokeBrushes(_Point<float> point, BrushSetting setting,
                                                 BaseBrushContext* context);
/// Lays the dabs for one stroke point into the context's mask; `changed` is their union.
bool processStroke(_Point<float> point, BrushSetting setting, BaseBrushContext* context,
                   _Rect<int>& changed);
/// Puts back what the current change replaced; `changed` is the restored region.
bool processCancelStroke(BaseBrushContext* context, _Rect<int>& changed);

}  // namespace BrushUtils
}  // namespace vorn
