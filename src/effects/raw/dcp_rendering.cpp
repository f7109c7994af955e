#include "effects/raw/dcp_rendering.h"

#include <algorithm>
#include <cmath>

#include "effects/raw/working_space.h"

namespace vorn::detail {

namespace {

/// The weight of the second calibration for a white of whiteKelvin: linear in inverse
/// temperature between the two calibration lights, held at the ends.
float secondWeight(const DcpProfile& p, double whiteKelvin) {
  const double t1 = illuminantKelvin(p.illuminant1);
  const double t2 = illuminantKelvin(p.illuminant2);
  if (t1 <= 0.0 || t2 <= 0.0 || t1 == t2) return 0.0f;
  const double w = (1.0 / whiteKelvin - 1.0 / t1) / (1.0 / t2 - 1.0 / t1);
  return static_cast<float>(std::clamp(w, 0.0, 1.0));
}

Matrix3 mixed(const std::optional<DcpMatrix>& a, const std::optional<DcpMatrix>& b, float w) {
  Matrix3 m;
  for (std::size_t i = 0; i < 9; ++i) {
    const double second = b ? (*b)[i] : (*a)[i];
    m.m[i] = static_cast<float>((1.0 - w) * (*a)[i] + w * second);
  }
  return m;
}

std::array<float, 3> times(const Matrix3& m, std::array<float, 3> v) {
  m.apply(v[0], v[1], v[2]);
  return v;
}

}  // namespace

HueSatLookup::HueSatLookup(const DcpHueSatMap& a, const DcpHueSatMap& b, float weightB)
    : hues_(a.hues),
      saturations_(a.saturations),
      values_(a.values),
      srgbValues_(a.srgbValues),
      data_(a.data) {
  if (b.data.size() != a.data.size()) return;
  for (std::size_t i = 0; i < data_.size(); ++i) data_[i] += weightB * (b.data[i] - data_[i]);
}

// Hue/saturation map: HSV of linear light, the table read trilinearly (hue wraps round) and its
// hue shift (degrees), saturation and value scales applied.
void HueSatLookup::apply(float& r, float& g, float& b) const {
  const float high = std::max({r, g, b});
  const float low = std::min({r, g, b});
  // Infinite or NaN light has no hue to look up.
  if (!(high > 0.0f) || !std::isfinite(r + g + b)) return;
  const float chroma = high - low;
  float hue = 0.0f;  // in sixths of the circle
  if (chroma > 0.0f) {
    if (high == r)
      hue = (g - b) / chroma;
    else if (high == g)
      hue = 2.0f + (b - r) / chroma;
    else
      hue = 4.0f + (r - g) / chroma;
    if (hue < 0.0f) hue += 6.0f;
  }
  const float saturation = chroma / high;
  const float value = srgbValues_ ? linearToSrgbExact(std::min(high, 1.0f)) : std::min(high, 1.0f);

  const float hp = hue * static_cast<float>(hues_) / 6.0f;
  const auto h0 = static_cast<std::size_t>(hp) % hues_;
  const std::size_t h1 = (h0 + 1) % hues_;
  const float hf = hp - std::floor(hp);
  // Negative channels (outside the gamut) read the table's saturated edge.
  const float sp = std::min(saturation, 1.0f) * static_cast<float>(saturations_ - 1);
  const std::size_t s0 = std::min(static_cast<std::size_t>(sp), saturations_ - 2);
  const float sf = sp - static_cast<float>(s0);
  const float vp = values_ > 1 ? value * static_cast<float>(values_ - 1) : 0.0f;
  const std::size_t v0 = values_ > 1 ? std::min(static_cast<std::size_t>(vp), values_ - 2) : 0;
  const std::size_t v1 = values_ > 1 ? v0 + 1 : 0;
  const float vf = values_ > 1 ? vp - static_cast<float>(v0) : 0.0f;

  std::array<float, 3> mix{};
  for (std::size_t k = 0; k < 3; ++k) {
    const auto plane = [&](std::size_t v) {
      const float a = entry(v, h0, s0)[k] + (entry(v, h0, s0 + 1)[k] - entry(v, h0, s0)[k]) * sf;
      const float c = entry(v, h1, s0)[k] + (entry(v, h1, s0 + 1)[k] - entry(v, h1, s0)[k]) * sf;
      return a + (c - a) * hf;
    };
    const float p0 = plane(v0);
    mix[k] = p0 + (plane(v1) - p0) * vf;
  }
  float newHue = hue + mix[0] / 60.0f;
  newHue -= 6.0f * std::floor(newHue / 6.0f);
  const float newSaturation = std::clamp(saturation * mix[1], 0.0f, 1.0f);
  const float newValue = high * std::max(mix[2], 0.0f);
  // HSV back to RGB.
  const float sector = std::floor(newHue);
  const float f = newHue - sector;
  const float p = newValue * (1.0f - newSaturation);
  const float q = newValue * (1.0f - newSaturation * f);
  const float t = newValue * (1.0f - newSaturation * (1.0f - f));
  switch (static_cast<int>(sector) % 6) {
    case 0:
      r = newValue, g = t, b = p;
      break;
    case 1:
      r = q, g = newValue, b = p;
      break;
    case 2:
      r = p, g = newValue, b = t;
      break;
    case 3:
      r = p, g = q, b = newValue;
      break;
    case 4:
      r = t, g = p, b = newValue;
      break;
    default:
      r = newValue, g = p, b = q;
      break;
  }
}

DcpRendering::DcpRendering(const DcpProfile& profile, double whiteKelvin) {
  const float w = secondWeight(profile, whiteKelvin);
  const Matrix3& toXyz = linearProPhotoToXyz();
  const std::array<float, 3> white = times(toXyz, {1.0f, 1.0f, 1.0f});
  const Matrix3 colorMatrix = mixed(profile.colorMatrix1, profile.colorMatrix2, w);
  if (profile.forwardMatrix1) {
    // The camera's neutral for the frame's white; the forward matrix, scaled so that neutral
    // camera values land on the D50 white, then maps white-balanced camera values to XYZ.
    const std::array<float, 3> neutral = times(colorMatrix, white);
    Matrix3 forward = mixed(profile.forwardMatrix1, profile.forwardMatrix2, w);
    bool usable = true;
    for (std::size_t row = 0; row < 3; ++row) {
      const float sum = forward.m[3 * row] + forward.m[3 * row + 1] + forward.m[3 * row + 2];
      usable = usable && std::fabs(sum) > 1e-6f && std::fabs(neutral[row]) > 1e-6f;
      if (!usable) break;
      for (std::size_t c = 0; c < 3; ++c) forward.m[3 * row + c] *= white[row] / sum;
    }
    // A degenerate profile keeps the frame's own matrix rendering.
    if (usable) {
      const Matrix3 balance =
          Matrix3::diagonal(1.0f / neutral[0], 1.0f / neutral[1], 1.0f / neutral[2]);
      matrix = inverse(toXyz) * forward * balance * colorMatrix * toXyz;
    }
  }
  // Without a forward matrix the colour matrix's inverse takes camera values back to the same
  // XYZ: the matrix step is the identity.
  if (!profile.hueSatMap1.empty()) hueSat.emplace(profile.hueSatMap1, profile.hueSatMap2, w);
  if (!profile.lookTable.empty()) look.emplace(profile.lookTable, DcpHueSatMap{}, 0.0f);
  if (!profile.toneCurve.empty()) {
    // Straight lines between the points: profiles list hundreds, so a spline adds little.
    const std::vector<std::array<float, 2>>& points = profile.toneCurve;
    curve.emplace([&points](float x) {
      const auto after =
          std::upper_bound(points.begin(), points.end(), x,
                           [](float v, const std::array<float, 2>& p) { return v < p[0]; });
      if (after == points.begin()) return points.front()[1];
      if (after == points.end()) return points.back()[1];
      const auto& a = *(after - 1);
      const auto& b = *after;
      return a[1] + (b[1] - a[1]) * (x - a[0]) / (b[0] - a[0]);
    });
  }
}

bool DcpRendering::isIdentity() const {
  for (std::size_t i = 0; i < 9; ++i) {
    if (std::fabs(matrix.m[i] - Matrix3{}.m[i]) > 1e-5f) return false;
  }
  return !hueSat && !look && !curve;
}

}  // namespace vorn::detail
