#pragma once

#include "vorn/effects/effects_array.h"

// Grouped effects: fixed chains of registered effects shown as one; each is as finished as
// the effects it chains.
namespace vorn {

/// The develop panel: exposure, smart tone, highlights and shadows, whites and blacks, contrast.
class DevelopCommonEffect final : public EffectsArray<5> {
 public:
  DevelopCommonEffect();
};

/// The raw develop step alone.
class DevelopCommonEffectRaw final : public EffectsArray<1> {
 public:
  DevelopCommonEffectRaw();
};

/// The HDR panel: scene-referred exposure, smart tone, highlights and shadows, whites and
/// blacks, contrast and structure.
class HDRBasicCommonEffect final : public EffectsArray<6> {
 public:
  HDRBasicCommonEffect();
};

/// The raw HDR step: white balance, exposure, highlights and shadows.
class HDRBasicCommonEffectRaw final : public EffectsArray<3> {
 public:
  HDRBasicCommonEffectRaw();
};

/// One "Amount" that clears haze, polarises, recovers highlights and adds vibrance. Without a
/// sky mask (it arrives with segmentation) the whole frame is treated.
class SkyEnhancerEffect final : public EffectsArray<4> {
 public:
  SkyEnhancerEffect();
};

}  // namespace vorn
