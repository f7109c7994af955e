#include "core/resample.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <vector>

#include "core/image_data_internal.h"
#include "core/kernels.h"
#include "core/parallel.h"
#include "core/pixel_traits.h"

namespace vorn::detail {
namespace {

template <typename T>
constexpr int cvTypeOf() {
  constexpr int depth = std::is_same_v<typename PixelTraits<T>::Channel, float> ? CV_32F : CV_8U;
  return CV_MAKETYPE(depth, PixelTraits<T>::kChannels);
}

// Averages kx x ky boxes of the region into a float image of ceil(w / kx) x ceil(h / ky); the
// boxes of the last column and row are partial and averaged over what they hold. One
// streaming pass over the source, which is what makes large shrinks cost about one read.
// The result lives in a pool buffer: a fresh one would pay first-touch page faults every call.
template <typename T>
void boxShrinkInto(const _ImageData<T>& src, const _Rect<int>& region, int kx, int ky, float* out,
                   int outW, int outH) {
  using Channel = typename PixelTraits<T>::Channel;
  constexpr int C = PixelTraits<T>::kChannels;
  const std::size_t rowValues = static_cast<std::size_t>(region.width) * C;

  parallelRows(outH, [&](int first, int end) {
    std::vector<float> acc(rowValues);
    for (int oy = first; oy < end; ++oy) {
      const int y0 = region.y + oy * ky;
      const int y1 = std::min(region.y + region.height, y0 + ky);
      std::fill(acc.begin(), acc.end(), 0.0f);
      for (int y = y0; y < y1; ++y) {
        const Channel* line = channels(src.row(y) + region.x);
        if constexpr (std::is_same_v<Channel, float>) {
          accumulateFloats(acc.data(), line, rowValues);
        } else {
          for (std::size_t i = 0; i < rowValues; ++i) acc[i] += static_cast<float>(line[i]);
        }
      }
      float* dst = out + static_cast<std::ptrdiff_t>(oy) * outW * C;
      for (int ox = 0; ox < outW; ++ox) {
        const int x0 = ox * kx;
        const int x1 = std::min(region.width, x0 + kx);
        const float scale = 1.0f / static_cast<float>((x1 - x0) * (y1 - y0));
        for (int c = 0; c < C; ++c) {
          float sum = 0.0f;
          for (int x = x0; x < x1; ++x) sum += acc[static_cast<std::size_t>(x) * C + c];
          dst[ox * C + c] = sum * scale;
        }
      }
    }
  });
}

template <typename T>
std::shared_ptr<_ImageData<float>> boxShrink(const _ImageData<T>& src, const _Rect<int>& region,
                                             int kx, int ky) {
  constexpr int C = PixelTraits<T>::kChannels;
  const int outW = (region.width + kx - 1) / kx;
  const int outH = (region.height + ky - 1) / ky;
  auto out = std::make_shared<_ImageData<float>>(_Size<int>(outW * C, outH));
  boxShrinkInto(src, region, kx, ky, out->data, outW, outH);
  return out;
}

}  // namespace

template <typename T>
bool resampleImage(const _ImageData<T>& src, const _Rect<int>& roi, _ImageData<T>& dst,
                   bool highQuality) {
  const _Rect<int> region = roi.isZero() ? src.rect() : roi;
  if (region.width < 1 || region.height < 1 || !liesInside(region, src.size()) || dst.width < 1 ||
      dst.height < 1)
    return false;

  cv::Mat whole(src.height, src.width, cvTypeOf<T>(), const_cast<T*>(src.data));
  cv::Mat input = whole(cv::Rect(region.x, region.y, region.width, region.height));
  cv::Mat output(dst.height, dst.width, cvTypeOf<T>(), dst.data);

  const bool shrinks = dst.width < region.width || dst.height < region.height;
  const int interpolation =
      shrinks ? cv::INTER_AREA : (highQuality ? cv::INTER_LANCZOS4 : cv::INTER_LINEAR);

  constexpr int C = PixelTraits<T>::kChannels;
  constexpr bool kFloat = std::is_same_v<typename PixelTraits<T>::Channel, float>;
  const bool integerFactors = region.width % dst.width == 0 && region.height % dst.height == 0;
  if (kFloat && shrinks && integerFactors) {
    // At whole factors the area filter is a plain box average, done in one streaming pass;
    // OpenCV's integer path runs a scalar loop per box and costs many reads at large factors.
    boxShrinkInto(src, region, region.width / dst.width, region.height / dst.height,
                  reinterpret_cast<float*>(dst.data), dst.width, dst.height);
    return true;
  }
  // At other factors an exact integer box first leaves OpenCV a factor of 2 to 4 on a small
  // image, where its generic area filter is cheap.
  const int kx = std::max(1, region.width / dst.width / 2);
  const int ky = std::max(1, region.height / dst.height / 2);
  if (shrinks && (kx >= 2 || ky >= 2)) {
    const auto reduced = boxShrink(src, region, kx, ky);
    cv::Mat reducedView(reduced->height, reduced->width / C, CV_MAKETYPE(CV_32F, C), reduced->data);
    if constexpr (kFloat) {
      cv::resize(reducedView, output, output.size(), 0, 0, cv::INTER_AREA);
    } else {
      cv::Mat resized;
      cv::resize(reducedView, resized, output.size(), 0, 0, cv::INTER_AREA);
      resized.convertTo(output, cvTypeOf<T>());
    }
  } else {
    cv::resize(input, output, output.size(), 0, 0, interpolation);
  }
  return output.data == reinterpret_cast<uchar*>(dst.data);
}

template bool resampleImage(const _ImageData<float>&, const _Rect<int>&, _ImageData<float>&, bool);
template bool resampleImage(const _ImageData<PixelRGB<unsigned char>>&, const _Rect<int>&,
                            _ImageData<PixelRGB<unsigned char>>&, bool);
template bool resampleImage(const _ImageData<PixelRGB<float>>&, const _Rect<int>&,
                            _ImageData<PixelRGB<float>>&, bool);
template bool resampleImage(const _ImageData<PixelRGBA<float>>&, const _Rect<int>&,
                            _ImageData<PixelRGBA<float>>&, bool);

}  // namespace vorn::detail
