#include "vorn/core/affine_transform.h"

#include <cmath>
#include <iostream>

#include "vorn/core/float_compare.h"

namespace vorn {

void AffineTransform::makeIdentity() { *this = AffineTransform(); }

bool AffineTransform::invert() {
  const float det = a * d - b * c;
  // No tolerance on purpose: a tiny non-zero determinant is still inverted.
  if (det == 0.0f || std::isnan(det)) {
    std::cerr << __PRETTY_FUNCTION__ << " Could not invert transform" << std::endl;
    return false;
  }
  const float i = 1.0f / det;
  *this = AffineTransform(d * i, -b * i, -c * i, a * i, (b * ty - d * tx) * i,
                          (c * tx - a * ty) * i);
  return true;
}

void AffineTransform::scale(float sx, float sy) { prepend(AffineTransform(sx, 0, 0, sy, 0, 0)); }

void AffineTransform::translate(float dx, float dy) {
  prepend(AffineTransform(1, 0, 0, 1, dx, dy));
}

void AffineTransform::rotate(float angle) {
  const float cs = std::cos(angle);
  const float sn = std::sin(angle);
  prepend(AffineTransform(cs, sn, -sn, cs, 0, 0));
}

_Point<float> AffineTransform::transformPoint(const _Point<float>& p) const {
  return _Point<float>(a * p.x + b * p.y + tx, c * p.x + d * p.y + ty);
}

void AffineTransform::append(const AffineTransform& o) {
  *this = AffineTransform(o.a * a + o.b * c, o.a * b + o.b * d, o.c * a + o.d * c,
                          o.c * b + o.d * d, o.a * tx + o.b * ty + o.tx,
                          o.c * tx + o.d * ty + o.ty);
}

void AffineTransform::prepend(const AffineTransform& o) {
  *this = AffineTransform(a * o.a + b * o.c, a * o.b + b * o.d, c * o.a + d * o.c,
                          c * o.b + d * o.d, a * o.tx + b * o.ty + tx, c * o.tx + d * o.ty + ty);
}

bool AffineTransform::operator==(const AffineTransform& o) const {
  return isFloatEqual(a, o.a) && isFloatEqual(b, o.b) && isFloatEqual(c, o.c) &&
         isFloatEqual(d, o.d) && isFloatEqual(tx, o.tx) && isFloatEqual(ty, o.ty);
}

}  // namespace vorn
