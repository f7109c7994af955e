#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "core/image_data_internal.h"
#include "core/log_failure.h"
#include "core/parallel.h"
#include "core/pixel_traits.h"
#include "vorn/core/image_data.h"

namespace vorn {
namespace {

constexpr int kCornerSamples = 4;
constexpr int kMaxExtraSamples = 20;
constexpr float kSupersampleFrom = 1.1f;
constexpr float kBackground = 0.2f;

float radicalInverse(int index, int base) {
  float result = 0.0f;
  float digit = 1.0f / static_cast<float>(base);
  for (int i = index; i > 0; i /= base) {
    result += static_cast<float>(i % base) * digit;
    digit /= static_cast<float>(base);
  }
  return result;
}

template <typename T>
struct Sampler {
  using Channel = typename detail::PixelTraits<T>::Channel;
  static constexpr int C = detail::PixelTraits<T>::kChannels;

  const _ImageData<T>& src;
  float width;
  float height;

  // Bilinear lookup; false when the sample's floor lies outside the image. The range test in
  // float also keeps NaN and huge coordinates away from the int conversion.
  bool sample(float sx, float sy, float* out) const {
    if (!(sx >= 0.0f && sx < width && sy >= 0.0f && sy < height)) return false;
    const int ix = static_cast<int>(sx);
    const int iy = static_cast<int>(sy);
    const float fx = sx - static_cast<float>(ix);
    const float fy = sy - static_cast<float>(iy);
    const int ix1 = std::min(ix + 1, src.width - 1);
    const int iy1 = std::min(iy + 1, src.height - 1);
    const Channel* p00 = detail::channels(src.row(iy) + ix);
    const Channel* p10 = detail::channels(src.row(iy) + ix1);
    const Channel* p01 = detail::channels(src.row(iy1) + ix);
    const Channel* p11 = detail::channels(src.row(iy1) + ix1);
    for (int c = 0; c < C; ++c) {
      const float top = static_cast<float>(p00[c]) +
                        (static_cast<float>(p10[c]) - static_cast<float>(p00[c])) * fx;
      const float bottom = static_cast<float>(p01[c]) +
                           (static_cast<float>(p11[c]) - static_cast<float>(p01[c])) * fx;
      out[c] = top + (bottom - top) * fy;
    }
    return true;
  }
};

template <typename Channel>
Channel toChannel(float v) {
  if constexpr (std::is_same_v<Channel, float>) {
    return v;
  } else {
    return static_cast<Channel>(std::clamp(std::lround(v), 0L, 255L));
  }
}

}  // namespace

template <typename T>
AffineTransform _ImageData<T>::adaptAffineTransformForCoppying(const AffineTransform& transform,
                                                               _Rect<float> srcRect,
                                                               _Size<int> dstSize, float& minScale,
                                                               float& maxScale) {
  AffineTransform m;
  m.translate(std::roundf(srcRect.x), std::roundf(srcRect.y));
  m.scale(std::roundf(srcRect.width) / static_cast<float>(dstSize.width),
          std::roundf(srcRect.height) / static_cast<float>(dstSize.height));
  AffineTransform inverse = transform;
  if (!inverse.invert()) {
    // NaN scales tell the caller there is no mapping.
    minScale = maxScale = std::numeric_limits<float>::quiet_NaN();
    return m;
  }
  m.append(inverse);
  const float e = m.a * m.a + m.c * m.c;
  const float g = m.b * m.b + m.d * m.d;
  const float f = m.a * m.b + m.c * m.d;
  const float mean = (e + g) / 2.0f;
  const float half = (e - g) / 2.0f;
  const float root = std::sqrt(f * f + half * half);
  maxScale = std::sqrt(mean + root);
  minScale = std::sqrt(std::max(mean - root, 0.0f));
  return m;
}

template <typename T>
void _ImageData<T>::copyAffineTransformedTo(std::shared_ptr<_ImageData>& dst, _Rect<float> srcRect,
                                            const AffineTransform& transform,
                                            _Rect<int> dstRoi) const {
  using Channel = typename detail::PixelTraits<T>::Channel;
  constexpr int C = detail::PixelTraits<T>::kChannels;
  if (!dst || dst->area() == 0 || dst.get() == this) {
    VORN_LOG_FAILURE("Destination is empty or is the source itself");
    return;
  }
  float minScale = 0.0f;
  float maxScale = 0.0f;
  const AffineTransform m =
      adaptAffineTransformForCoppying(transform, srcRect, dst->size(), minScale, maxScale);
  if (std::isnan(maxScale)) return;  // invert() has already reported the singular transform
  dst->loadState = loadState;
  if (area() == 0) return;

  // Sample offsets in destination pixels: the four corners, then Halton points when one
  // destination pixel spans 1.1 source pixels or more.
  std::array<_Point<float>, kCornerSamples + kMaxExtraSamples> offsets{
      _Point<float>(0, 0), _Point<float>(1, 0), _Point<float>(1, 1), _Point<float>(0, 1)};
  const bool supersample = maxScale >= kSupersampleFrom;
  int count = kCornerSamples;
  if (supersample) {
    const int extra =
        static_cast<int>(std::lround(std::min(2.0f * maxScale, float(kMaxExtraSamples))));
    for (int i = 0; i < extra; ++i)
      offsets[static_cast<std::size_t>(count++)] =
          _Point<float>(radicalInverse(i, 2), radicalInverse(i, 3));
  }
  // The linear part of M applied to each offset, so a sample is one add away from its pixel.
  std::array<_Point<float>, kCornerSamples + kMaxExtraSamples> steps;
  for (int i = 0; i < count; ++i) {
    const auto& o = offsets[static_cast<std::size_t>(i)];
    steps[static_cast<std::size_t>(i)] =
        _Point<float>(m.a * o.x + m.b * o.y, m.c * o.x + m.d * o.y);
  }

  _Rect<int> region = dst->rect();
  if (!dstRoi.isZero()) {
    const auto clipped = detail::clipToImage(dstRoi, dst->size());
    if (!clipped) return;
    region = *clipped;
  }

  const Sampler<T> sampler{*this, static_cast<float>(width), static_cast<float>(height)};
  const float background = std::is_same_v<Channel, float> ? kBackground : kBackground * 255.0f;
  _ImageData& out = *dst;
  // Bands of rows walked in small square tiles: a turned row crosses a diagonal band hundreds
  // of source rows tall, while a 16 x 16 tile keeps its source footprint in cache.
  constexpr int kTile = 16;
  const int bands = (region.height + kTile - 1) / kTile;
  detail::parallelRows(bands, [&](int firstBand, int endBand) {
    for (int band = firstBand; band < endBand; ++band) {
      const int y0 = region.y + band * kTile;
      const int y1 = std::min(y0 + kTile, region.y + region.height);
      for (int x0 = region.x; x0 < region.x + region.width; x0 += kTile) {
        const int x1 = std::min(x0 + kTile, region.x + region.width);
        for (int y = y0; y < y1; ++y) {
          Channel* line = detail::channels(out.row(y));
          for (int x = x0; x < x1; ++x) {
            const float bx = m.a * static_cast<float>(x) + m.b * static_cast<float>(y) + m.tx;
            const float by = m.c * static_cast<float>(x) + m.d * static_cast<float>(y) + m.ty;
            float sum[C] = {};
            float value[C];
            int inside = 0;
            for (int s = 0; s < count; ++s) {
              const auto& step = steps[static_cast<std::size_t>(s)];
              if (!sampler.sample(bx + step.x, by + step.y, value)) continue;
              ++inside;
              for (int c = 0; c < C; ++c) sum[c] += value[c];
              if (!supersample) break;  // the first sample inside is the pixel's value
            }
            const float norm = inside ? 1.0f / static_cast<float>(inside) : 0.0f;
            Channel* px = line + static_cast<std::ptrdiff_t>(x) * C;
            for (int c = 0; c < C; ++c)
              px[c] = toChannel<Channel>(inside ? sum[c] * norm : background);
          }
        }
      }
    }
  });
}

#define VORN_INSTANTIATE_AFFINE(T)                                         \
  template AffineTransform _ImageData<T>::adaptAffineTransformForCoppying( \
      const AffineTransform&, _Rect<float>, _Size<int>, float&, float&);   \
  template void _ImageData<T>::copyAffineTransformedTo(                    \
      std::shared_ptr<_ImageData<T>>&, _Rect<float>, const AffineTransform&, _Rect<int>) const;

VORN_INSTANTIATE_AFFINE(float)
VORN_INSTANTIATE_AFFINE(PixelRGB<unsigned char>)
VORN_INSTANTIATE_AFFINE(PixelRGB<float>)
VORN_INSTANTIATE_AFFINE(PixelRGBA<float>)

}  // namespace vorn
