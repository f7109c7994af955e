#pragma once

#include "vorn/effects/effect.h"

namespace vorn {

namespace detail {
struct StencilWindow;
}  // namespace detail

/// Base of effects that read a neighbourhood around each pixel. The base renders only the
/// call's region, reading the margin the effect declares around it (clipped to the image), so a
/// region render equals the same region of a whole render; it polls the cancel flag and makes
/// every output value finite. Source and destination must be different buffers.
class StencilEffect : public Effect {
 public:
  bool processImage(EffectCallContext& call) final;
  _Rect<int> getInRectForOutRect(_Rect<int> outRect) override;
  _Rect<int> getOutRectForInRect(_Rect<int> inRect) override;

 protected:
  using Window = detail::StencilWindow;

  /// How many pixels around an output pixel the effect reads, at the given spatial scale.
  virtual int reach(float spatialScale) const = 0;
  /// True when the current values leave the picture unchanged (the region is then copied).
  virtual bool isIdentity() const = 0;
  /// Writes window.output from window.input; may throw std::bad_alloc (the call then fails)
  /// and ImageProcessingStatus::cancelException.
  virtual void render(const Window& window) const = 0;
};

}  // namespace vorn
