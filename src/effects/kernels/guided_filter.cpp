#include "effects/kernels/guided_filter.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>

#include "core/opencv_cpu.h"
#include "effects/render.h"

namespace vorn::detail {

namespace {

cv::Mat wrap(const Plane& plane) {
  return cv::Mat(plane.height(), plane.width(), CV_32FC1, const_cast<float*>(plane.data()));
}

// Bands of rows so a stop is seen within one band; a band of a whole matrix reads its
// neighbours' rows, so the bands join without seams. Each band filters `radius` rows above and
// below it again, so bands are at least four radii tall: the cost stays flat as the radius grows.
template <typename Filter>
void filterInBands(const Plane& input, Plane& output, int radius, const RenderControl* control,
                   const Filter& filter) {
  if (output.width() != input.width() || output.height() != input.height()) {
    output = Plane(input.width(), input.height());
  }
  if (input.size() == 0) return;
  const cv::Mat in = wrap(input);
  const cv::Mat out = wrap(output);
  const int bandRows = std::max(64, 4 * std::max(radius, 0));
  const int bands = (input.height() + bandRows - 1) / bandRows;
  parallelRows(bands, [&](int first, int end) {
    for (int band = first; band < end && !(control && control->cancelled()); ++band) {
      const int top = band * bandRows;
      const int bottom = std::min(top + bandRows, input.height());
      cv::Mat target = out.rowRange(top, bottom);
      openCvOnCpu();
      filter(in.rowRange(top, bottom), target);
    }
  });
  if (control) control->checkpoint();
}

}  // namespace

void boxMean(const Plane& input, int radius, Plane& output, const RenderControl* control) {
  filterInBands(input, output, radius, control, [radius](const cv::Mat& in, cv::Mat& out) {
    cv::boxFilter(in, out, CV_32F, cv::Size(2 * radius + 1, 2 * radius + 1), cv::Point(-1, -1),
                  true, cv::BORDER_REFLECT);
  });
}

void boxMinimum(const Plane& input, int radius, Plane& output, const RenderControl* control) {
  const cv::Mat box =
      cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * radius + 1, 2 * radius + 1));
  filterInBands(input, output, radius, control, [&box](const cv::Mat& in, cv::Mat& out) {
    cv::erode(in, out, box, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
  });
}

// He, Sun and Tang's filter: per window, input ~ a * guide + b by least squares with the
// regulariser eps on a; the averaged (a, b) then follow the guide's edges. Filtering a plane
// by itself needs four box means instead of six.
void guidedFilter(const Plane& guide, const Plane& input, int radius, float eps, Plane& output,
                  const RenderControl* control) {
  const auto checkpoint = [control] {
    if (control) control->checkpoint();
  };
  const int w = guide.width();
  const int h = guide.height();
  const bool self = &guide == &input;
  Plane product(w, h), meanGuide, meanSquare, meanInput, meanProduct;
  boxMean(guide, radius, meanGuide, control);
  combinePlanes(product, guide, guide, guide, guide,
                [](float g, float, float, float) { return g * g; });
  boxMean(product, radius, meanSquare, control);
  checkpoint();
  if (!self) {
    boxMean(input, radius, meanInput, control);
    combinePlanes(product, guide, input, guide, guide,
                  [](float g, float p, float, float) { return g * p; });
    boxMean(product, radius, meanProduct, control);
  }
  checkpoint();
  const Plane& meanI = self ? meanGuide : meanInput;
  const Plane& meanIP = self ? meanSquare : meanProduct;
  // a into product, then b into meanGuide (each read before it is overwritten).
  combinePlanes(product, meanGuide, meanI, meanIP, meanSquare,
                [eps](float mg, float mi, float mp, float ms) {
                  const float variance = std::max(ms - mg * mg, 0.0f);
                  return (mp - mg * mi) / (variance + eps);
                });
  combinePlanes(meanGuide, meanGuide, meanI, product, product,
                [](float mg, float mi, float a, float) { return mi - a * mg; });
  boxMean(product, radius, meanSquare, control);
  checkpoint();
  Plane& meanB = self ? product : meanInput;
  boxMean(meanGuide, radius, meanB, control);
  if (output.width() != w || output.height() != h) output = Plane(w, h);
  combinePlanes(output, meanSquare, meanB, guide, guide,
                [](float a, float b, float g, float) { return a * g + b; });
}

}  // namespace vorn::detail
