#pragma once

#include <cstdint>

namespace vorn {

/// How a dab changes the mask.
enum BrushMode : std::int32_t {
  /// Raises the mask towards 1.
  kBrushModePaint = 0,
  /// Lowers the mask towards 0.
  kBrushModeErase = 1,
};

/// One brush as the user set it; lengths are in units of the canvas's shorter side.
struct BrushSetting {
  /// Dab radius; must be positive, values above 1 (the whole shorter side) are clamped to 1.
  float radius = 0.05f;
  /// Fraction of the radius painted at full strength before the falloff starts, in [0, 1].
  float hardness = 0.5f;
  /// Spacing factor k: dabs lie 0.4 * radius * (1 + k) apart; negative values act as 0.
  float spacing = 0.0f;
  /// Share of the remaining coverage one dab adds, in [0, 1].
  float flow = 1.0f;
  /// The most coverage one stroke reaches, in [0, 1]; painting over the same place in one
  /// stroke never builds up beyond it.
  float opacity = 1.0f;
};

/// The non-destructive filter over the painted mask.
struct MaskSetting {
  /// Gaussian sigma in units of 5% of the canvas's shorter side, in [0, 1]; 0 is no blur.
  float feather = 0.0f;
  /// The mask's maximum after the filter, in [0, 1]: the blurred mask is scaled by it.
  float density = 1.0f;

  bool isIdentity() const { return feather <= 0.0f && density >= 1.0f; }
  bool operator==(const MaskSetting&) const = default;
};

/// False with a log line for a non-finite field or a radius that is not positive; otherwise
/// the fields are clamped to their ranges.
bool sanitizeBrushSetting(BrushSetting& setting);
/// False with "Can't change brush mode while stoke is beeing processed!" during a stroke, or
/// with a log line for a value that is no BrushMode.
bool canSetBrushMode(BrushMode mode, bool strokeInProgress);
/// False with a log line for a non-finite field; otherwise clamped to [0, 1].
bool sanitizeMaskSetting(MaskSetting& setting);

}  // namespace vorn
