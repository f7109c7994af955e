#include "core/resample.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
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

/// The source pixels each output pixel of one axis covers: output o takes pixels first[o] on,
/// with the coverages weights[offset[o]] to weights[offset[o + 1]] (1 for whole pixels).
struct AxisSpans {
  std::vector<int> first;
  std::vector<std::size_t> offset;
  std::vector<float> weights;
};

AxisSpans coverSpans(int sourceLength, int outputLength) {
  AxisSpans spans;
  spans.first.resize(static_cast<std::size_t>(outputLength));
  spans.offset.resize(static_cast<std::size_t>(outputLength) + 1);
  const auto edge = [&](int o) {
    // From the exact integer product, so the last span ends on the source's last edge.
    return static_cast<double>(static_cast<std::int64_t>(o) * sourceLength) / outputLength;
  };
  for (int o = 0; o < outputLength; ++o) {
    const double lo = edge(o), hi = edge(o + 1);
    const int begin = static_cast<int>(std::floor(lo));
    const int end = std::min(sourceLength, static_cast<int>(std::ceil(hi)));
    spans.first[static_cast<std::size_t>(o)] = begin;
    spans.offset[static_cast<std::size_t>(o)] = spans.weights.size();
    for (int i = begin; i < end; ++i)
      spans.weights.push_back(
          static_cast<float>(std::min(hi, i + 1.0) - std::max(lo, static_cast<double>(i))));
  }
  spans.offset.back() = spans.weights.size();
  return spans;
}

template <typename Channel>
void accumulateRow(float* acc, const Channel* line, float weight, std::size_t count) {
  if constexpr (std::is_same_v<Channel, float>) {
    accumulateScaledFloats(acc, line, weight, count);
  } else {
    for (std::size_t i = 0; i < count; ++i) acc[i] += weight * static_cast<float>(line[i]);
  }
}

template <typename Channel>
Channel fromAverage(float v) {
  if constexpr (std::is_same_v<Channel, float>) {
    return v;
  } else {
    return static_cast<Channel>(std::clamp(v, 0.0f, 255.0f) + 0.5f);
  }
}

/// Exact area average of the region at any shrink factor: every output pixel is the mean over
/// its own rectangle of the source, edge pixels weighted by how much of them it covers. Each
/// output row sums its source rows in one streaming pass, then collapses that row across.
template <typename T>
void areaShrink(const _ImageData<T>& src, const _Rect<int>& region, _ImageData<T>& dst) {
  using Channel = typename PixelTraits<T>::Channel;
  constexpr int C = PixelTraits<T>::kChannels;
  const AxisSpans columns = coverSpans(region.width, dst.width);
  const AxisSpans rows = coverSpans(region.height, dst.height);
  const float norm = static_cast<float>(static_cast<double>(dst.width) * dst.height /
                                        (static_cast<double>(region.width) * region.height));
  const std::size_t rowValues = static_cast<std::size_t>(region.width) * C;

  parallelRows(dst.height, [&](int firstRow, int endRow) {
    std::vector<float> acc(rowValues);
    for (int oy = firstRow; oy < endRow; ++oy) {
      std::fill(acc.begin(), acc.end(), 0.0f);
      const auto o = static_cast<std::size_t>(oy);
      int y = region.y + rows.first[o];
      for (std::size_t k = rows.offset[o]; k < rows.offset[o + 1]; ++k, ++y)
        accumulateRow(acc.data(), channels(src.row(y) + region.x), rows.weights[k], rowValues);
      Channel* out = channels(dst.row(oy));
      for (std::size_t ox = 0; ox < static_cast<std::size_t>(dst.width); ++ox) {
        float sum[C] = {};
        const float* pixel = acc.data() + static_cast<std::size_t>(columns.first[ox]) * C;
        for (std::size_t k = columns.offset[ox]; k < columns.offset[ox + 1]; ++k, pixel += C) {
          const float w = columns.weights[k];
          for (int c = 0; c < C; ++c) sum[c] += w * pixel[c];
        }
        for (int c = 0; c < C; ++c) out[ox * C + c] = fromAverage<Channel>(sum[c] * norm);
      }
    }
  });
}

}  // namespace

template <typename T>
bool resampleImage(const _ImageData<T>& src, const _Rect<int>& roi, _ImageData<T>& dst,
                   bool highQuality) {
  const _Rect<int> region = roi.isZero() ? src.rect() : roi;
  if (region.width < 1 || region.height < 1 || !liesInside(region, src.size()) || dst.width < 1 ||
      dst.height < 1)
    return false;

  if (dst.width <= region.width && dst.height <= region.height) {
    areaShrink(src, region, dst);
    return true;
  }
  // Enlarging on at least one axis.
  cv::Mat whole(src.height, src.width, cvTypeOf<T>(), const_cast<T*>(src.data));
  cv::Mat input = whole(cv::Rect(region.x, region.y, region.width, region.height));
  cv::Mat output(dst.height, dst.width, cvTypeOf<T>(), dst.data);
  const bool shrinks = dst.width < region.width || dst.height < region.height;
  const int interpolation =
      shrinks ? cv::INTER_AREA : (highQuality ? cv::INTER_LANCZOS4 : cv::INTER_LINEAR);
  cv::resize(input, output, output.size(), 0, 0, interpolation);
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
