#include "io/raster/profile_match.h"

#include <lcms2.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/color_engine.h"

namespace vorn::detail {

TransformHandle floatTransform(const ColorProfile& a, const ColorProfile& b) {
  const ProfileHandle in = openProfile(a.iccProfile());
  const ProfileHandle out = openProfile(b.iccProfile());
  if (!in || !out) return nullptr;
  TransformHandle transform(cmsCreateTransformTHR(colorEngineContext(), in.get(), TYPE_RGB_FLT,
                                                  out.get(), TYPE_RGB_FLT, INTENT_PERCEPTUAL,
                                                  cmsFLAGS_NOCACHE));
  if (!transform) takeColorEngineError();
  return transform;
}

bool profilesConvert(const ColorProfile& a, const ColorProfile& b) {
  return floatTransform(a, b) != nullptr;
}

bool profilesMatch(const ColorProfile& a, const ColorProfile& b, float tolerance) {
  const TransformHandle transform = floatTransform(a, b);
  if (!transform) return false;
  constexpr int kSteps = 9;
  std::vector<float> grid;
  grid.reserve(kSteps * kSteps * kSteps * 3);
  for (int red = 0; red < kSteps; ++red)
    for (int green = 0; green < kSteps; ++green)
      for (int blue = 0; blue < kSteps; ++blue)
        for (int v : {red, green, blue}) grid.push_back(static_cast<float>(v) / (kSteps - 1));
  std::vector<float> converted(grid.size());
  runColorTransform(transform.get(), grid.data(), converted.data(), grid.size() / 3,
                    3 * sizeof(float));
  for (std::size_t i = 0; i < grid.size(); ++i)
    if (!(std::fabs(converted[i] - grid[i]) <= tolerance)) return false;
  return true;
}

}  // namespace vorn::detail
