#include "effects/kernels/sampled_curve.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace vorn::detail {
namespace {

TEST(SampledCurve, FollowsASmoothCurveHoldsItsEndsAndReadsNaNAsTheLowEnd) {
  const auto f = [](float x) { return std::exp2(-2.5f * x); };
  const SampledCurve curve(0.0f, 1.0f, 256, f);
  float worst = 0.0f;
  for (int k = 0; k <= 10000; ++k) {
    const float x = static_cast<float>(k) / 10000.0f;
    worst = std::fmax(worst, std::fabs(curve.at(x) - f(x)));
  }
  // Linear interpolation of exp2 over steps of 1/256 is good to about 1e-5.
  EXPECT_LT(worst, 2e-5f);
  EXPECT_EQ(curve.at(0.0f), 1.0f);
  EXPECT_EQ(curve.at(-3.0f), 1.0f);
  EXPECT_EQ(curve.at(1.0f), f(1.0f));
  EXPECT_EQ(curve.at(7.0f), f(1.0f));
  EXPECT_EQ(curve.at(std::numeric_limits<float>::infinity()), f(1.0f));
  EXPECT_EQ(curve.at(std::numeric_limits<float>::quiet_NaN()), 1.0f);
}

}  // namespace
}  // namespace vorn::detail
