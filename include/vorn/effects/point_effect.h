#pragma once

#include <cstddef>
#include <memory>

#include "vorn/effects/effect.h"

namespace vorn {

namespace detail {

struct RenderSetup;

/// The per-call kernel of a point effect: one virtual call per row span, the pixel loop inside.
class RowKernel {
 public:
  virtual ~RowKernel() = default;
  /// out[i] from in[i] for count pixels; in may equal out.
  virtual void run(const PixelRGB<float>* in, PixelRGB<float>* out, std::size_t count) const = 0;
  /// True when run() never writes NaN or Inf, whatever it reads; the base then skips its own
  /// finite tail (the conformance suite holds every effect to finite output).
  virtual bool finiteOutput() const { return false; }
};

}  // namespace detail

/// Base of effects whose output pixel depends only on the input pixel at the same place (and on
/// whole-picture statistics). The base owns the loop: it renders only the call's region, row by
/// row in parallel, polls the cancel flag between rows and makes every output value finite.
/// Point effects may render in place (source and destination the same buffer).
class PointEffect : public Effect {
 public:
  bool processImage(EffectCallContext& call) final;
  /// True when prepare() measures the picture (a histogram, say): such an effect sees the
  /// whole picture or a reference of it, never a band of rows on its own.
  virtual bool measuresPicture() const { return false; }

 protected:
  using Kernel = std::unique_ptr<detail::RowKernel>;
  using Setup = detail::RenderSetup;

  /// The kernel of one call, with its tables built once; null when the current values leave
  /// the picture unchanged (the region is then copied).
  virtual Kernel prepare(const Setup& setup) const = 0;
};

}  // namespace vorn
