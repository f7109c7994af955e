#include "vorn/pipeline/brush/brush_setting.h"

#include <algorithm>
#include <cmath>

#include "core/log_failure.h"

namespace vorn {

bool sanitizeBrushSetting(BrushSetting& setting) {
  if (!std::isfinite(setting.radius) || !std::isfinite(setting.hardness) ||
      !std::isfinite(setting.spacing) || !std::isfinite(setting.flow) ||
      !std::isfinite(setting.opacity)) {
    VORN_LOG_FAILURE("The brush setting has a field that is not finite");
    return false;
  }
  if (setting.radius <= 0.0f) {
    VORN_LOG_FAILURE("The brush radius must be positive");
    return false;
  }
  // A dab wider than the canvas paints nothing more than one of its size.
  setting.radius = std::min(setting.radius, 1.0f);
  setting.hardness = std::clamp(setting.hardness, 0.0f, 1.0f);
  setting.spacing = std::max(setting.spacing, 0.0f);
  setting.flow = std::clamp(setting.flow, 0.0f, 1.0f);
  setting.opacity = std::clamp(setting.opacity, 0.0f, 1.0f);
  return true;
}

bool canSetBrushMode(BrushMode mode, bool strokeInProgress) {
  if (strokeInProgress) {
    VORN_LOG_FAILURE("Can't change brush mode while stoke is beeing processed!");
    return false;
  }
  if (mode != kBrushModePaint && mode != kBrushModeErase) {
    VORN_LOG_FAILURE("Unknown brush mode");
    return false;
  }
  return true;
}

bool sanitizeMaskSetting(MaskSetting& setting) {
  if (!std::isfinite(setting.feather) || !std::isfinite(setting.density)) {
    VORN_LOG_FAILURE("The mask setting has a field that is not finite");
    return false;
  }
  setting.feather = std::clamp(setting.feather, 0.0f, 1.0f);
  setting.density = std::clamp(setting.density, 0.0f, 1.0f);
  return true;
}

}  // namespace vorn
