#include "effects/kernels/value_noise.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace vorn::detail {
namespace {

// The row form (lattice rows hashed in vector lanes, pixels gathered between them) is the
// point-wise noise interpolated in the other order: equal to rounding, at any place and seed.
TEST(ValueNoiseRows, AgreeWithThePointwiseNoiseAcrossCellsAndSeeds) {
  constexpr std::size_t kCount = 301;
  std::vector<float> lattice;
  for (const double cell : {0.7, 1.36, 3.4, 17.0}) {
    for (const std::uint32_t seed : {0u, 7u, 0x9e3779b9u}) {
      for (const double x0 : {0.5, 1234.5, 70000.5}) {
        SCOPED_TRACE(::testing::Message() << "cell " << cell << " seed " << seed << " x0 " << x0);
        const NoiseRows rows(cell, seed, x0, kCount);
        float worst = 0.0f;
        float spread = 0.0f;
        for (const double y : {0.5, 2.5, 4095.5, 90001.5}) {
          const NoiseRow row = rows.row(y, lattice);
          for (std::size_t i = 0; i < kCount; ++i) {
            const float expected = valueNoise((x0 + static_cast<double>(i)) / cell, y / cell, seed);
            worst = std::max(worst, std::fabs(row(i) - expected));
            spread = std::max(spread, std::fabs(expected));
          }
        }
        EXPECT_LE(worst, 2e-6f);
        // Not a flat answer that would agree trivially.
        EXPECT_GT(spread, 0.3f);
      }
    }
  }
}

TEST(ValueNoiseRows, LatticeValuesStayInRangeAndDependOnTheSeed) {
  int differing = 0;
  for (std::int64_t i = -50; i < 50; ++i) {
    const float a = latticeValue(i, 3 * i + 1, 11u);
    EXPECT_GE(a, -1.0f);
    EXPECT_LE(a, 1.0f);
    // Coordinates are taken modulo 2^32, whichever width they come in.
    EXPECT_EQ(
        a, latticeValue(static_cast<std::uint32_t>(i), static_cast<std::uint32_t>(3 * i + 1), 11u));
    if (a != latticeValue(i, 3 * i + 1, 12u)) ++differing;
  }
  EXPECT_GT(differing, 90);
}

}  // namespace
}  // namespace vorn::detail
