#include "effects/tone/guided_filter.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>

#include <new>

#include "core/parallel.h"
#include "vorn/core/memory_manager.h"

namespace vorn::detail {

Plane::Plane(int planeWidth, int planeHeight) : width_(planeWidth), height_(planeHeight) {
  if (size() == 0) return;
  auto* block = MemoryManager::instance().allocate(size() * sizeof(float), false);
  if (!block) throw std::bad_alloc();
  values_.reset(reinterpret_cast<float*>(block));
}

void Plane::PoolFree::operator()(float* block) const {
  MemoryManager::instance().free(reinterpret_cast<std::uint8_t*>(block));
}

namespace {

cv::Mat wrap(const Plane& plane) {
  return cv::Mat(plane.height(), plane.width(), CV_32FC1, const_cast<float*>(plane.data()));
}

/// out = op(a, b, c, d) per value, rows in parallel.
template <typename Op>
void combine(Plane& out, const Plane& a, const Plane& b, const Plane& c, const Plane& d, Op op) {
  parallelRows(out.height(), [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      float* o = out.row(y);
      const float* pa = a.row(y);
      const float* pb = b.row(y);
      const float* pc = c.row(y);
      const float* pd = d.row(y);
      for (int x = 0; x < out.width(); ++x) o[x] = op(pa[x], pb[x], pc[x], pd[x]);
    }
  });
}

}  // namespace

void boxMean(const Plane& input, int radius, Plane& output) {
  if (output.width() != input.width() || output.height() != input.height()) {
    output = Plane(input.width(), input.height());
  }
  if (input.size() == 0) return;
  cv::Mat out = wrap(output);
  cv::boxFilter(wrap(input), out, CV_32F, cv::Size(2 * radius + 1, 2 * radius + 1),
                cv::Point(-1, -1), true, cv::BORDER_REFLECT);
}

// He, Sun and Tang's filter: per window, input ~ a * guide + b by least squares with the
// regulariser eps on a; the averaged (a, b) then follow the guide's edges. Filtering a plane
// by itself needs four box means instead of six.
void guidedFilter(const Plane& guide, const Plane& input, int radius, float eps, Plane& output) {
  const int w = guide.width();
  const int h = guide.height();
  const bool self = &guide == &input;
  Plane product(w, h), meanGuide, meanSquare, meanInput, meanProduct;
  boxMean(guide, radius, meanGuide);
  combine(product, guide, guide, guide, guide, [](float g, float, float, float) { return g * g; });
  boxMean(product, radius, meanSquare);
  if (!self) {
    boxMean(input, radius, meanInput);
    combine(product, guide, input, guide, guide,
            [](float g, float p, float, float) { return g * p; });
    boxMean(product, radius, meanProduct);
  }
  const Plane& meanI = self ? meanGuide : meanInput;
  const Plane& meanIP = self ? meanSquare : meanProduct;
  // a into product, then b into meanGuide (each read before it is overwritten).
  combine(product, meanGuide, meanI, meanIP, meanSquare,
          [eps](float mg, float mi, float mp, float ms) {
            const float variance = std::max(ms - mg * mg, 0.0f);
            return (mp - mg * mi) / (variance + eps);
          });
  combine(meanGuide, meanGuide, meanI, product, product,
          [](float mg, float mi, float a, float) { return mi - a * mg; });
  boxMean(product, radius, meanSquare);
  Plane& meanB = self ? product : meanInput;
  boxMean(meanGuide, radius, meanB);
  if (output.width() != w || output.height() != h) output = Plane(w, h);
  combine(output, meanSquare, meanB, guide, guide,
          [](float a, float b, float g, float) { return a * g + b; });
}

}  // namespace vorn::detail
