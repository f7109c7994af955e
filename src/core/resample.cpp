#include "core/resample.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "core/image_data_internal.h"
#include "core/kernels.h"
#include "core/opencv_cpu.h"
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

/// The spans of outputs [firstOutput, endOutput) only, indexed from firstOutput.
AxisSpans coverSpans(int sourceLength, int outputLength, int firstOutput, int endOutput) {
  const auto count = static_cast<std::size_t>(endOutput - firstOutput);
  AxisSpans spans;
  spans.first.resize(count);
  spans.offset.resize(count + 1);
  const auto edge = [&](int o) {
    // From the exact integer product, so the last span ends on the source's last edge.
    return static_cast<double>(static_cast<std::int64_t>(o) * sourceLength) / outputLength;
  };
  for (std::size_t i = 0; i < count; ++i) {
    const int o = firstOutput + static_cast<int>(i);
    const double lo = edge(o), hi = edge(o + 1);
    const int begin = static_cast<int>(std::floor(lo));
    const int end = std::min(sourceLength, static_cast<int>(std::ceil(hi)));
    spans.first[i] = begin;
    spans.offset[i] = spans.weights.size();
    for (int s = begin; s < end; ++s)
      spans.weights.push_back(
          static_cast<float>(std::min(hi, s + 1.0) - std::max(lo, static_cast<double>(s))));
  }
  spans.offset.back() = spans.weights.size();
  return spans;
}

/// How a row is summed. Dispatched: the fastest clone, whose rounding may depend on where an
/// element falls in the call (fused or not). Portable: the baseline build, the same rounding for
/// every element, so that any part of the output comes out as the whole pass makes it.
enum class Accumulate { Dispatched, Portable };

template <Accumulate Mode, typename Channel>
void accumulateRow(float* acc, const Channel* line, float weight, std::size_t count) {
  if constexpr (std::is_same_v<Channel, float> && Mode == Accumulate::Dispatched) {
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
/// output row sums its source rows in one streaming pass, then collapses that row across. Only
/// the outputs `part` are written; with Portable, each exactly as a whole pass would make it.
template <Accumulate Mode, typename T>
void areaShrink(const _ImageData<T>& src, const _Rect<int>& region, _ImageData<T>& dst,
                const _Rect<int>& part) {
  using Channel = typename PixelTraits<T>::Channel;
  constexpr int C = PixelTraits<T>::kChannels;
  const AxisSpans columns = coverSpans(region.width, dst.width, part.x, part.x + part.width);
  const AxisSpans rows = coverSpans(region.height, dst.height, part.y, part.y + part.height);
  const float norm = static_cast<float>(static_cast<double>(dst.width) * dst.height /
                                        (static_cast<double>(region.width) * region.height));
  // The source columns the part reads.
  const int firstColumn = columns.first.front();
  const int endColumn =
      columns.first.back() + static_cast<int>(columns.offset.back() - columns.offset.end()[-2]);
  const std::size_t rowValues = static_cast<std::size_t>(endColumn - firstColumn) * C;

  parallelRows(part.height, [&](int firstRow, int endRow) {
    std::vector<float> acc(rowValues);
    for (int r = firstRow; r < endRow; ++r) {
      std::fill(acc.begin(), acc.end(), 0.0f);
      const auto o = static_cast<std::size_t>(r);
      int y = region.y + rows.first[o];
      for (std::size_t k = rows.offset[o]; k < rows.offset[o + 1]; ++k, ++y)
        accumulateRow<Mode>(acc.data(), channels(src.row(y) + region.x + firstColumn),
                            rows.weights[k], rowValues);
      Channel* out = channels(dst.row(part.y + r) + part.x);
      for (std::size_t ox = 0; ox < static_cast<std::size_t>(part.width); ++ox) {
        float sum[C] = {};
        const float* pixel =
            acc.data() + static_cast<std::size_t>(columns.first[ox] - firstColumn) * C;
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
    areaShrink<Accumulate::Dispatched>(src, region, dst, dst.rect());
    return true;
  }
  // Enlarging on at least one axis.
  cv::Mat whole(src.height, src.width, cvTypeOf<T>(), const_cast<T*>(src.data));
  cv::Mat input = whole(cv::Rect(region.x, region.y, region.width, region.height));
  cv::Mat output(dst.height, dst.width, cvTypeOf<T>(), dst.data);
  const bool shrinks = dst.width < region.width || dst.height < region.height;
  const int interpolation =
      shrinks ? cv::INTER_AREA : (highQuality ? cv::INTER_LANCZOS4 : cv::INTER_LINEAR);
  openCvOnCpu();
  cv::resize(input, output, output.size(), 0, 0, interpolation);
  return output.data == reinterpret_cast<uchar*>(dst.data);
}

template <typename T>
bool areaAverageRegion(const _ImageData<T>& src, _ImageData<T>& dst, const _Rect<int>& part) {
  if (src.width < 1 || src.height < 1 || dst.width < 1 || dst.height < 1 || dst.width > src.width ||
      dst.height > src.height || part.width < 1 || part.height < 1 || !liesInside(part, dst.size()))
    return false;
  areaShrink<Accumulate::Portable>(src, src.rect(), dst, part);
  return true;
}

_Rect<int> areaAverageFootprint(_Size<int> sourceSize, _Size<int> outputSize,
                                const _Rect<int>& sourceRect) {
  if (sourceSize.width < 1 || sourceSize.height < 1 || outputSize.width < 1 ||
      outputSize.height < 1)
    return {};
  // Output o reads [o * S / O, (o + 1) * S / O) rounded outwards, so it reads source s exactly
  // when s * O / S - 1 < o < (s + 1) * O / S.
  const auto axis = [](int begin, int end, int source, int output, int& first, int& last) {
    const std::int64_t lo = std::clamp<std::int64_t>(begin, 0, source);
    const std::int64_t hi = std::clamp<std::int64_t>(end, lo, source);
    first = static_cast<int>(lo * output / source);
    last = static_cast<int>((hi * output + source - 1) / source);
  };
  int x0 = 0, x1 = 0, y0 = 0, y1 = 0;
  axis(sourceRect.x, sourceRect.x + sourceRect.width, sourceSize.width, outputSize.width, x0, x1);
  axis(sourceRect.y, sourceRect.y + sourceRect.height, sourceSize.height, outputSize.height, y0,
       y1);
  if (x1 <= x0 || y1 <= y0) return {};
  return _Rect<int>(x0, y0, x1 - x0, y1 - y0);
}

template bool resampleImage(const _ImageData<float>&, const _Rect<int>&, _ImageData<float>&, bool);
template bool resampleImage(const _ImageData<PixelRGB<unsigned char>>&, const _Rect<int>&,
                            _ImageData<PixelRGB<unsigned char>>&, bool);
template bool resampleImage(const _ImageData<PixelRGB<float>>&, const _Rect<int>&,
                            _ImageData<PixelRGB<float>>&, bool);
template bool resampleImage(const _ImageData<PixelRGBA<float>>&, const _Rect<int>&,
                            _ImageData<PixelRGBA<float>>&, bool);

template bool areaAverageRegion(const _ImageData<float>&, _ImageData<float>&, const _Rect<int>&);

}  // namespace vorn::detail
