#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "effects/kernels/guided_filter.h"

namespace vorn::detail {
namespace {

Plane noise(int width, int height, unsigned seed) {
  Plane plane(width, height);
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> value(0.0f, 1.0f);
  for (std::size_t i = 0; i < plane.size(); ++i) plane.data()[i] = value(random);
  return plane;
}

// Brute-force reference with the borders the filters promise: mirrored for the mean, the
// window clipped to the plane for the minimum.
float referenceAt(const Plane& p, int x, int y, int radius, bool minimum) {
  const auto mirror = [](int i, int n) { return i < 0 ? -i - 1 : (i >= n ? 2 * n - i - 1 : i); };
  double sum = 0.0;
  float least = 1e30f;
  for (int dy = -radius; dy <= radius; ++dy)
    for (int dx = -radius; dx <= radius; ++dx) {
      if (minimum) {
        const int sx = std::clamp(x + dx, 0, p.width() - 1);
        const int sy = std::clamp(y + dy, 0, p.height() - 1);
        least = std::min(least, p.row(sy)[sx]);
      } else {
        sum += p.row(mirror(y + dy, p.height()))[mirror(x + dx, p.width())];
      }
    }
  return minimum ? least : static_cast<float>(sum / ((2 * radius + 1) * (2 * radius + 1)));
}

// The filters work in bands of rows; a seam between bands would show as a mismatch on the
// rows next to a band edge, so the plane spans several bands and the radius crosses them.
TEST(BoxFilters, BandedResultsMatchAWholeFrameReference) {
  const Plane input = noise(37, 200, 7);
  for (const int radius : {1, 5, 30}) {
    Plane mean, least;
    boxMean(input, radius, mean);
    boxMinimum(input, radius, least);
    ASSERT_EQ(least.width(), input.width());
    ASSERT_EQ(least.height(), input.height());
    for (int y = 0; y < input.height(); ++y)
      for (int x = 0; x < input.width(); ++x) {
        ASSERT_NEAR(mean.row(y)[x], referenceAt(input, x, y, radius, false), 1e-4f)
            << x << "," << y << " r " << radius;
        ASSERT_EQ(least.row(y)[x], referenceAt(input, x, y, radius, true))
            << x << "," << y << " r " << radius;
      }
  }
}

}  // namespace
}  // namespace vorn::detail
