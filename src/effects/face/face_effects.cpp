#include "vorn/effects/face_effects.h"

#include <cmath>

namespace vorn {

namespace {

/// A 0 ... 100 slider as a strength in [0, 1].
float strength(const Effect& effect, std::size_t index) {
  return effect.mappedValue(index, 0.0f, 0.5f, 1.0f);
}

}  // namespace

bool FaceEffect::isIdentity() const {
  const Retouch r = retouch();
  return r.light == 0.0f && r.smoothing == 0.0f && r.eyes == 0.0f;
}

FaceEffect::Retouch FaceEffect::retouch() const {
  return {strength(*this, 1), strength(*this, 0), strength(*this, 2),
          static_cast<int>(std::lround(parameters()[3].value()))};
}

bool FaceSkinSoftenerEffect::isIdentity() const {
  return retouch().smoothing == 0.0f;
}

FaceSkinSoftenerEffect::Retouch FaceSkinSoftenerEffect::retouch() const {
  return {strength(*this, 0), 0.0f, 0.0f, -1};
}

}  // namespace vorn
