#pragma once

#include "vorn/core/geometry.h"

namespace vorn {

/// 2-D affine map (x, y) -> (a*x + b*y + tx, c*x + d*y + ty). scale/translate/rotate prepend,
/// so in a chain of calls the last one acts first on a point.
struct AffineTransform {
  float a = 1.0f, b = 0.0f, c = 0.0f, d = 1.0f, tx = 0.0f, ty = 0.0f;

  constexpr AffineTransform() = default;
  constexpr AffineTransform(float pa, float pb, float pc, float pd, float ptx, float pty)
      : a(pa), b(pb), c(pc), d(pd), tx(ptx), ty(pty) {}

  void makeIdentity();
  /// Replaces the transform by its inverse; a singular one is left as is and false returned.
  bool invert();
  void scale(float sx, float sy);
  void translate(float dx, float dy);
  /// Angle in radians.
  void rotate(float angle);
  _Point<float> transformPoint(const _Point<float>& p) const;
  /// This becomes `o` after this: the receiver acts on a point first.
  void append(const AffineTransform& o);
  /// This becomes this after `o`: `o` acts on a point first.
  void prepend(const AffineTransform& o);

  bool operator==(const AffineTransform& o) const;
  bool operator!=(const AffineTransform& o) const { return !(*this == o); }
};

}  // namespace vorn
