#include "effects/kernels/atrous.h"

#include <array>
#include <utility>

namespace vorn::detail {

namespace {

constexpr float kEdgeTap = 1.0f / 16.0f;
constexpr float kNearTap = 4.0f / 16.0f;
constexpr float kCentreTap = 6.0f / 16.0f;

/// One row of the B3 kernel with taps `step` apart, indices clamped to the row.
void smoothRow(const float* in, int width, int step, float* out) {
  const int last = width - 1;
  const auto at = [&](int x) { return in[std::clamp(x, 0, last)]; };
  const int inner0 = std::min(width, 2 * step);
  const int inner1 = std::max(inner0, width - 2 * step);
  for (int x = 0; x < inner0; ++x)
    out[x] = kEdgeTap * (at(x - 2 * step) + at(x + 2 * step)) +
             kNearTap * (at(x - step) + at(x + step)) + kCentreTap * in[x];
  for (int x = inner0; x < inner1; ++x)
    out[x] = kEdgeTap * (in[x - 2 * step] + in[x + 2 * step]) +
             kNearTap * (in[x - step] + in[x + step]) + kCentreTap * in[x];
  for (int x = inner1; x < width; ++x)
    out[x] = kEdgeTap * (at(x - 2 * step) + at(x + 2 * step)) +
             kNearTap * (at(x - step) + at(x + step)) + kCentreTap * in[x];
}

/// The 1-D kernel of `levels` successive smoothings, centred, as doubles.
std::vector<double> cascade(int levels) {
  std::vector<double> kernel{1.0};
  for (int level = 0; level < levels; ++level) {
    const std::size_t step = std::size_t{1} << level;
    std::vector<double> wider(kernel.size() + 4 * step, 0.0);
    const double taps[5] = {kEdgeTap, kNearTap, kCentreTap, kNearTap, kEdgeTap};
    for (std::size_t i = 0; i < kernel.size(); ++i)
      for (std::size_t k = 0; k < 5; ++k) wider[i + k * step] += taps[k] * kernel[i];
    kernel = std::move(wider);
  }
  return kernel;
}

}  // namespace

float atrousNoiseGain(int level) {
  static const std::array<float, kMaxAtrousLevels> gains = [] {
    std::array<float, kMaxAtrousLevels> table{};
    for (int j = 0; j < kMaxAtrousLevels; ++j) {
      // The band filter is A x A - B x B for the 1-D cascades A (level j) and B (level j + 1).
      const std::vector<double> a = cascade(j);
      const std::vector<double> b = cascade(j + 1);
      const std::size_t offset = (b.size() - a.size()) / 2;
      double aa = 0.0, ab = 0.0, bb = 0.0;
      for (std::size_t i = 0; i < a.size(); ++i) aa += a[i] * a[i];
      for (std::size_t i = 0; i < a.size(); ++i) ab += a[i] * b[i + offset];
      for (const double v : b) bb += v * v;
      table[static_cast<std::size_t>(j)] =
          static_cast<float>(std::sqrt(aa * aa - 2.0 * ab * ab + bb * bb));
    }
    return table;
  }();
  return gains[static_cast<std::size_t>(std::clamp(level, 0, kMaxAtrousLevels - 1))];
}

Plane atrousReshape(const Plane& input, int levels, const BandReshape& reshape,
                    const RenderControl* control) {
  levels = std::clamp(levels, 1, kMaxAtrousLevels);
  const RenderControl never;
  const RenderControl& poll = control ? *control : never;
  const int width = input.width();
  const int height = input.height();
  Plane output(width, height);
  if (width < 1 || height < 1) return output;
  Plane smoothA(width, height);
  Plane smoothB(width, height);
  Plane band(width, height);
  const Plane* current = &input;
  Plane* next = &smoothA;
  for (int level = 0; level < levels; ++level) {
    const int step = 1 << level;
    parallelRowsCancellable(height, poll, [&](int first, int end) {
      std::vector<float> column(static_cast<std::size_t>(width));
      for (int y = first; y < end; ++y) {
        const float* lines[5];
        for (int k = 0; k < 5; ++k)
          lines[k] = current->row(std::clamp(y + (k - 2) * step, 0, height - 1));
        for (int x = 0; x < width; ++x)
          column[static_cast<std::size_t>(x)] = kEdgeTap * (lines[0][x] + lines[4][x]) +
                                                kNearTap * (lines[1][x] + lines[3][x]) +
                                                kCentreTap * lines[2][x];
        float* smooth = next->row(y);
        smoothRow(column.data(), width, step, smooth);
        float* detail = band.row(y);
        for (int x = 0; x < width; ++x) detail[x] = lines[2][x] - smooth[x];
      }
    });
    if (reshape) reshape(level, band);
    poll.checkpoint();
    parallelRows(height, [&](int first, int end) {
      for (int y = first; y < end; ++y) {
        const float* detail = band.row(y);
        float* sum = output.row(y);
        if (level == 0) {
          std::copy(detail, detail + width, sum);
        } else {
          for (int x = 0; x < width; ++x) sum[x] += detail[x];
        }
      }
    });
    current = next;
    next = next == &smoothA ? &smoothB : &smoothA;
  }
  parallelRows(height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const float* residual = current->row(y);
      float* sum = output.row(y);
      for (int x = 0; x < width; ++x) sum[x] += residual[x];
    }
  });
  return output;
}

}  // namespace vorn::detail
