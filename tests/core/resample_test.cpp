#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "core/pixel_traits.h"
#include "vorn/core/image_data.h"

namespace vorn {
namespace {

// Shrinks are checked against the exact area average: every output pixel is the mean of the
// source over its own rectangle of width W / w and height H / h, partial pixels weighted by how
// much of them it covers.

template <typename T>
using Channel = typename detail::PixelTraits<T>::Channel;
template <typename T>
constexpr int kChannels = detail::PixelTraits<T>::kChannels;
template <typename T>
constexpr double kPeak = std::is_same_v<Channel<T>, float> ? 1.0 : 255.0;

template <typename T>
double channelAt(const _ImageData<T>& img, int x, int y, int c) {
  return static_cast<double>(detail::channels(img.row(y) + x)[c]);
}

/// How much of source pixel i the output span [lo, hi) covers.
double coverage(int i, double lo, double hi) {
  return std::max(0.0, std::min(hi, i + 1.0) - std::max(lo, static_cast<double>(i)));
}

/// Channel values of the exact area average of roi at `size`, row-major, in double.
template <typename T>
std::vector<double> exactAreaAverage(const _ImageData<T>& src, _Rect<int> roi, _Size<int> size) {
  const double sx = static_cast<double>(roi.width) / size.width;
  const double sy = static_cast<double>(roi.height) / size.height;
  std::vector<double> out;
  for (int oy = 0; oy < size.height; ++oy)
    for (int ox = 0; ox < size.width; ++ox)
      for (int c = 0; c < kChannels<T>; ++c) {
        const double x0 = ox * sx, x1 = (ox + 1) * sx, y0 = oy * sy, y1 = (oy + 1) * sy;
        double sum = 0.0;
        for (int y = static_cast<int>(y0); y < std::min(roi.height, static_cast<int>(y1) + 1); ++y)
          for (int x = static_cast<int>(x0); x < std::min(roi.width, static_cast<int>(x1) + 1); ++x)
            sum +=
                coverage(x, x0, x1) * coverage(y, y0, y1) * channelAt(src, roi.x + x, roi.y + y, c);
        out.push_back(sum / (sx * sy));
      }
  return out;
}

template <typename T>
std::shared_ptr<_ImageData<T>> makeImage(_Size<int> size, bool random) {
  auto img = std::make_shared<_ImageData<T>>(size);
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int y = 0; y < size.height; ++y)
    for (int x = 0; x < size.width; ++x)
      for (int c = 0; c < kChannels<T>; ++c) {
        // The ramp runs along x in the first channel and along y in the others.
        const double ramp = c == 0 ? (x + 0.5) / size.width : (y + 0.5) / size.height;
        const double v = (random ? unit(rng) : ramp) * kPeak<T>;
        detail::channels(img->row(y) + x)[c] =
            static_cast<Channel<T>>(std::is_same_v<Channel<T>, float> ? v : std::round(v));
      }
  return img;
}

struct Deviation {
  double worst = 0.0;  // largest absolute difference, in units of the peak value
  double psnr = 0.0;
};

template <typename T>
Deviation deviation(const _ImageData<T>& got, const std::vector<double>& want) {
  Deviation d;
  double squares = 0.0;
  std::size_t i = 0;
  for (int y = 0; y < got.height; ++y)
    for (int x = 0; x < got.width; ++x)
      for (int c = 0; c < kChannels<T>; ++c, ++i) {
        const double e = (channelAt(got, x, y, c) - want[i]) / kPeak<T>;
        d.worst = std::max(d.worst, std::fabs(e));
        squares += e * e;
      }
  d.psnr = -10.0 * std::log10(std::max(squares / static_cast<double>(i), 1e-30));
  return d;
}

template <typename T>
class ResizeShrink : public testing::Test {};
using PixelTypes =
    testing::Types<float, PixelRGB<float>, PixelRGBA<float>, PixelRGB<unsigned char>>;
TYPED_TEST_SUITE(ResizeShrink, PixelTypes);

TYPED_TEST(ResizeShrink, MatchesTheExactAreaAverage) {
  using T = TypeParam;
  // Float results may differ from the reference by float rounding only (the drift of a shrink
  // that misplaces its edges is of the order of 1e-2); 8-bit ones by the rounding to a code.
  const double allowed = std::is_same_v<Channel<T>, float> ? 1e-5 : 0.5 / 255.0 + 1e-6;
  struct Case {
    _Size<int> from, to;
    _Rect<int> roi;
  };
  const Case cases[] = {
      {{600, 400}, {16, 11}, {}},    // the 6000 x 4000 -> 160 x 107 thumbnail, scaled down
      {{600, 400}, {150, 100}, {}},  // whole factor 4
      {{600, 400}, {20, 8}, {}},     // whole factors 30 and 50
      {{600, 400}, {250, 170}, {}},  // 2.4 and 2.35
      {{600, 400}, {7, 400}, {}},    // one axis only
      {{601, 397}, {1, 1}, {}},      // everything into one pixel
      {{600, 400}, {13, 9}, {37, 21, 500, 333}},
  };
  for (bool random : {false, true}) {
    for (const Case& k : cases) {
      SCOPED_TRACE(std::string(random ? "random " : "ramp ") + std::to_string(k.from.width) + "x" +
                   std::to_string(k.from.height) + " -> " + std::to_string(k.to.width) + "x" +
                   std::to_string(k.to.height));
      const auto src = makeImage<T>(k.from, random);
      const auto got = src->resize(k.to, k.roi);
      ASSERT_TRUE(got);
      ASSERT_EQ(got->size(), k.to);
      const _Rect<int> roi = k.roi.isZero() ? src->rect() : k.roi;
      const Deviation d = deviation(*got, exactAreaAverage(*src, roi, k.to));
      EXPECT_LE(d.worst, allowed) << "PSNR " << d.psnr << " dB";
    }
  }
}

}  // namespace
}  // namespace vorn
