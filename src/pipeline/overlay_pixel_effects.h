#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"
#include "vorn/effects/effect_ids.h"

// The clipping overlays of the image processor's post-processing. The factory refuses their
// identifiers on purpose: only the processor makes them.
namespace vorn {

/// Marks clipped pixels: any channel at or above 1 becomes pure red (1, 0, 0) when "Hot" is
/// set, all channels at or below 0 become pure blue (0, 0, 1) when "Cold" is set.
class HotAndColdPixelsEffect final
    : public detail::DeclaredEffect<HotAndColdPixelsEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = effect_ids::kHotAndColdPixels;
  static constexpr detail::DeclaredParameter kParameters[] = {{"Hot", 0, 1, 0}, {"Cold", 0, 1, 0}};

 protected:
  Kernel prepare(const Setup& setup) const override;
};

/// Shows only where the picture clips: all channels at or above 1 white, all at or below 0
/// black, every other pixel mid grey (0.5).
class BlackAndWhiteOverlayPixelsEffect final
    : public detail::DeclaredEffect<BlackAndWhiteOverlayPixelsEffect, PointEffect> {
 public:
  static constexpr std::string_view kId = effect_ids::kBlackAndWhiteOverlayPixels;
  static constexpr detail::DeclaredParameter kParameters[] = {{"Grey", 0, 1, 0.5f}};

 protected:
  Kernel prepare(const Setup& setup) const override;
};

}  // namespace vorn
