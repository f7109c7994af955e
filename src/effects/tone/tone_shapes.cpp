#include "effects/tone/tone_shapes.h"

namespace vorn::detail {

MonotoneCurve::MonotoneCurve(std::vector<float> xs, std::vector<float> ys)
    : xs_(std::move(xs)), ys_(std::move(ys)), tangents_(xs_.size(), 0.0f) {
  const std::size_t count = xs_.size();
  std::vector<float> secants(count - 1);
  for (std::size_t k = 0; k + 1 < count; ++k) {
    secants[k] = (ys_[k + 1] - ys_[k]) / (xs_[k + 1] - xs_[k]);
  }
  tangents_[0] = secants[0];
  tangents_[count - 1] = secants[count - 2];
  for (std::size_t k = 1; k + 1 < count; ++k) {
    const float before = secants[k - 1];
    const float after = secants[k];
    tangents_[k] = before * after > 0.0f ? 0.5f * (before + after) : 0.0f;
  }
  for (std::size_t k = 0; k + 1 < count; ++k) {
    if (secants[k] == 0.0f) {
      tangents_[k] = 0.0f;
      tangents_[k + 1] = 0.0f;
      continue;
    }
    const float alpha = tangents_[k] / secants[k];
    const float beta = tangents_[k + 1] / secants[k];
    const float length = alpha * alpha + beta * beta;
    if (length > 9.0f) {
      const float tau = 3.0f / std::sqrt(length);
      tangents_[k] = tau * alpha * secants[k];
      tangents_[k + 1] = tau * beta * secants[k];
    }
  }
}

float MonotoneCurve::operator()(float x) const {
  const std::size_t count = xs_.size();
  if (x <= xs_.front()) return ys_.front() + tangents_.front() * (x - xs_.front());
  if (x >= xs_.back()) return ys_.back() + tangents_.back() * (x - xs_.back());
  const auto upper = std::upper_bound(xs_.begin(), xs_.end(), x);
  const auto k = std::min(static_cast<std::size_t>(upper - xs_.begin()) - 1, count - 2);
  const float h = xs_[k + 1] - xs_[k];
  const float t = (x - xs_[k]) / h;
  const float t2 = t * t;
  const float t3 = t2 * t;
  return (2.0f * t3 - 3.0f * t2 + 1.0f) * ys_[k] + (t3 - 2.0f * t2 + t) * h * tangents_[k] +
         (-2.0f * t3 + 3.0f * t2) * ys_[k + 1] + (t3 - t2) * h * tangents_[k + 1];
}

}  // namespace vorn::detail
