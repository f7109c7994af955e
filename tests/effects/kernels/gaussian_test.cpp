#include "effects/kernels/gaussian.h"
#include "effects/kernels/plane_test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace vorn::detail {
namespace {

Plane impulse(int side) {
  Plane plane(side, side);
  std::fill(plane.data(), plane.data() + plane.size(), 0.0f);
  plane.row(side / 2)[side / 2] = 1.0f;
  return plane;
}

/// Sum and variance along x of a plane's mass around its centre column.
std::pair<double, double> massAndVariance(const Plane& plane) {
  double mass = 0.0, spread = 0.0;
  const double centre = plane.width() / 2;
  for (int y = 0; y < plane.height(); ++y)
    for (int x = 0; x < plane.width(); ++x) {
      mass += plane.row(y)[x];
      spread += plane.row(y)[x] * (x - centre) * (x - centre);
    }
  return {mass, spread / mass};
}

TEST(GaussianBlur, ImpulseResponseHasTheAskedVarianceAndKeepsItsMass) {
  for (const float sigma : {0.8f, 1.5f, 3.0f, 4.0f, 5.5f, 12.0f, 40.0f}) {
    const Plane in = impulse(401);
    Plane out;
    gaussianBlur(in, sigma, out);
    const auto [mass, variance] = massAndVariance(out);
    EXPECT_NEAR(mass, 1.0, 1e-4) << sigma;
    // Odd box widths cannot hit every variance; Kovesi's split keeps it within a few percent.
    EXPECT_NEAR(std::sqrt(variance), sigma, 0.05 * sigma + 0.02) << sigma;
    EXPECT_NEAR(out.row(200)[150], out.row(150)[200], 1e-7) << "not isotropic at " << sigma;
  }
}

TEST(GaussianBlur, FlatStaysFlatAndNegligibleSigmaCopies) {
  Plane flat(37, 23);
  std::fill(flat.data(), flat.data() + flat.size(), 0.625f);
  Plane out;
  gaussianBlur(flat, 500.0f, out);  // far wider than the plane: mirrored again and again
  for (std::size_t i = 0; i < out.size(); ++i) ASSERT_NEAR(out.data()[i], 0.625f, 1e-6f);

  const Plane in = test::noisePlane(19, 11, 3);
  for (const float sigma : {0.0f, -2.0f, std::numeric_limits<float>::quiet_NaN()}) {
    gaussianBlur(in, sigma, out);
    for (std::size_t i = 0; i < in.size(); ++i) ASSERT_EQ(out.data()[i], in.data()[i]) << sigma;
  }
}

TEST(GaussianBlur, InPlaceAndRgbRegionAgreeWithThePlanePath) {
  const int w = 90, h = 70;
  const Plane r = test::noisePlane(w, h, 1), g = test::noisePlane(w, h, 2),
              b = test::noisePlane(w, h, 3);
  ImageRGBf image(_Size<int>(w, h));
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) image.at(x, y) = {r.row(y)[x], g.row(y)[x], b.row(y)[x]};

  const _Rect<int> rect(10, 5, 60, 50);
  const float sigma = 6.5f;
  ImageRGBf out(_Size<int>(1, 1));
  gaussianBlur(image, rect, sigma, out);
  ASSERT_EQ(out.width, rect.width);
  ASSERT_EQ(out.height, rect.height);

  const Plane* planes[] = {&r, &g, &b};
  for (int c = 0; c < 3; ++c) {
    Plane channel(rect.width, rect.height), blurred;
    for (int y = 0; y < rect.height; ++y)
      for (int x = 0; x < rect.width; ++x)
        channel.row(y)[x] = planes[c]->row(rect.y + y)[rect.x + x];
    gaussianBlur(channel, sigma, blurred);
    Plane inPlace(rect.width, rect.height);
    std::copy(channel.data(), channel.data() + channel.size(), inPlace.data());
    gaussianBlur(inPlace, sigma, inPlace);
    for (int y = 0; y < rect.height; ++y)
      for (int x = 0; x < rect.width; ++x) {
        const PixelRGB<float>& p = out.at(x, y);
        ASSERT_EQ((c == 0   ? p.r
                   : c == 1 ? p.g
                            : p.b),
                  blurred.row(y)[x])
            << c << " " << x << "," << y;
        ASSERT_EQ(inPlace.row(y)[x], blurred.row(y)[x]);
      }
  }

  // A sub-rectangle blurred onto its own frame gives the same pixels.
  ImageRGBf self = image;
  gaussianBlur(self, rect, sigma, self);
  ASSERT_EQ(self.width, rect.width);
  EXPECT_EQ(self.at(7, 9).b, out.at(7, 9).b);
}

TEST(GaussianBlur, CancelFlagStopsTheBlur) {
  const Plane in = test::noisePlane(64, 64, 9);
  Plane out;
  bool cancel = true;
  const RenderControl control(&cancel);
  EXPECT_THROW(gaussianBlur(in, 4.0f, out, &control), ImageProcessingStatus::cancelException);
}

}  // namespace
}  // namespace vorn::detail
