#include "effects/kernels/atrous.h"

#include <array>
#include <utility>

#include "core/dispatch.h"

namespace vorn::detail {

namespace {

constexpr float kEdgeTap = 1.0f / 16.0f;
constexpr float kNearTap = 4.0f / 16.0f;
constexpr float kCentreTap = 6.0f / 16.0f;

/// out[x] for x in [begin, end) from taps `step` apart that all lie inside the row. Cloned for
/// the wider vector units; without contraction each clone gives the baseline's bits.
VORN_DISPATCH void innerTaps(const float* __restrict in, int step, int begin, int end,
                             float* __restrict out) {
  for (int x = begin; x < end; ++x)
    out[x] = kEdgeTap * (in[x - 2 * step] + in[x + 2 * step]) +
             kNearTap * (in[x - step] + in[x + step]) + kCentreTap * in[x];
}

/// The same taps down five rows into one.
VORN_DISPATCH void columnTaps(const float* __restrict l0, const float* __restrict l1,
                              const float* __restrict l2, const float* __restrict l3,
                              const float* __restrict l4, int width, float* __restrict out) {
  for (int x = 0; x < width; ++x)
    out[x] = kEdgeTap * (l0[x] + l4[x]) + kNearTap * (l1[x] + l3[x]) + kCentreTap * l2[x];
}

/// out = a - b.
VORN_DISPATCH void differenceOf(const float* __restrict a, const float* __restrict b, int width,
                                float* __restrict out) {
  for (int x = 0; x < width; ++x) out[x] = a[x] - b[x];
}

/// sum += a.
VORN_DISPATCH void addTo(const float* __restrict a, int width, float* __restrict sum) {
  for (int x = 0; x < width; ++x) sum[x] += a[x];
}

/// One row of the B3 kernel with taps `step` apart, indices clamped to the row.
void smoothRow(const float* in, int width, int step, float* out) {
  const int last = width - 1;
  const auto at = [&](int x) { return in[std::clamp(x, 0, last)]; };
  const int inner0 = std::min(width, 2 * step);
  const int inner1 = std::max(inner0, width - 2 * step);
  for (int x = 0; x < inner0; ++x)
    out[x] = kEdgeTap * (at(x - 2 * step) + at(x + 2 * step)) +
             kNearTap * (at(x - step) + at(x + step)) + kCentreTap * in[x];
  innerTaps(in, step, inner0, inner1, out);
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

namespace {

/// The pyramid of smoothings of one transform: level j reads `current` and writes `next`.
class Smoothings {
 public:
  Smoothings(const Plane& input, int levels)
      : width_(input.width()),
        height_(input.height()),
        a_(width_, height_),
        b_(levels > 1 ? Plane(width_, height_) : Plane()),
        current_(&input),
        next_(&a_) {}

  const Plane& current() const { return *current_; }
  Plane& next() { return *next_; }
  void advance() {
    current_ = next_;
    next_ = next_ == &a_ ? &b_ : &a_;
  }
  /// Row y of the next smoothing at taps `step` apart into next(), its band into `band`;
  /// `column` is a row of scratch.
  void smooth(int y, int step, float* column, float* band) {
    const float* lines[5];
    for (int k = 0; k < 5; ++k)
      lines[k] = current_->row(std::clamp(y + (k - 2) * step, 0, height_ - 1));
    columnTaps(lines[0], lines[1], lines[2], lines[3], lines[4], width_, column);
    float* smooth = next_->row(y);
    smoothRow(column, width_, step, smooth);
    differenceOf(lines[2], smooth, width_, band);
  }

 private:
  int width_;
  int height_;
  Plane a_;
  Plane b_;
  const Plane* current_;
  Plane* next_;
};

/// body(first, end, stride) over all rows, in parallel. From a few rows apart the taps are read
/// in runs y, y + step, ...: consecutive rows of a run share four of their five input rows, which
/// stay in cache, where consecutive rows would share none. Each row is written once either way.
template <typename Body>
void forRowsByTaps(int height, int step, const RenderControl& poll, Body&& body) {
  constexpr int kRunsFrom = 8;
  if (step < kRunsFrom) {
    parallelRowsCancellable(height, poll, [&](int first, int end) { body(first, end, 1); });
    return;
  }
  parallelRowsCancellable(std::min(step, height), poll, [&](int first, int end) {
    for (int run = first; run < end; ++run) body(run, height, step);
  });
}

/// sum += band, or sum = band on the first level; the last level adds the residual too.
void accumulate(const float* band, const float* residual, bool first, int width, float* sum) {
  if (first) {
    std::copy(band, band + width, sum);
  } else {
    addTo(band, width, sum);
  }
  if (residual) addTo(residual, width, sum);
}

/// The frame both reshaping decompositions share: levels clamped, an empty input answered with
/// an empty output, and body(level, last, smoothings, poll, output) run once per level before
/// the smoothings step on.
template <typename Body>
Plane forEachAtrousLevel(const Plane& input, int levels, const RenderControl* control,
                         Body&& body) {
  levels = std::clamp(levels, 1, kMaxAtrousLevels);
  const RenderControl never;
  const RenderControl& poll = control ? *control : never;
  Plane output(input.width(), input.height());
  if (input.width() < 1 || input.height() < 1) return output;
  Smoothings smoothings(input, levels);
  for (int level = 0; level < levels; ++level) {
    body(level, level + 1 == levels, smoothings, poll, output);
    smoothings.advance();
  }
  return output;
}

}  // namespace

Plane atrousReshape(const Plane& input, int levels, const BandReshape& reshape,
                    const RenderControl* control) {
  const int width = input.width();
  const int height = input.height();
  Plane band(width, height);
  return forEachAtrousLevel(
      input, levels, control,
      [&](int level, bool last, Smoothings& smoothings, const RenderControl& poll, Plane& output) {
        forRowsByTaps(height, 1 << level, poll, [&](int first, int end, int stride) {
          std::vector<float> column(static_cast<std::size_t>(width));
          for (int y = first; y < end; y += stride)
            smoothings.smooth(y, 1 << level, column.data(), band.row(y));
        });
        if (reshape) reshape(level, band);
        poll.checkpoint();
        parallelRows(height, [&](int first, int end) {
          for (int y = first; y < end; ++y)
            accumulate(band.row(y), last ? smoothings.next().row(y) : nullptr, level == 0, width,
                       output.row(y));
        });
      });
}

Plane atrousReshapeRows(const Plane& input, int levels, const BandRowReshape& reshape,
                        const RenderControl* control) {
  const int width = input.width();
  const int height = input.height();
  return forEachAtrousLevel(
      input, levels, control,
      [&](int level, bool last, Smoothings& smoothings, const RenderControl& poll, Plane& output) {
        forRowsByTaps(height, 1 << level, poll, [&](int first, int end, int stride) {
          std::vector<float> column(static_cast<std::size_t>(width));
          std::vector<float> band(static_cast<std::size_t>(width));
          for (int y = first; y < end; y += stride) {
            smoothings.smooth(y, 1 << level, column.data(), band.data());
            if (reshape) reshape(level, band.data(), width);
            accumulate(band.data(), last ? smoothings.next().row(y) : nullptr, level == 0, width,
                       output.row(y));
          }
        });
      });
}

}  // namespace vorn::detail
