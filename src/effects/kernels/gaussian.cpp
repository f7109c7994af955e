#include "effects/kernels/gaussian.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <type_traits>
#include <vector>

#include "core/dispatch.h"

namespace vorn::detail {

namespace {

/// Rows are read and written through pointers, so planes and strided RGB frames share one path.
struct FloatRows {
  const float* (*readRow)(const void*, int);
  float* (*writeRow)(void*, int);
  const void* source;
  void* destination;
  int width;     // pixels
  int height;    // rows
  int channels;  // interleaved floats per pixel
  int values() const { return width * channels; }
};

/// Mirrored index with the edge repeated (… 1 0 | 0 1 … n-1 | n-1 n-2 …), any distance out.
inline int mirror(int index, int count) {
  const int period = 2 * count;
  int m = index % period;
  if (m < 0) m += period;
  return m < count ? m : period - 1 - m;
}

/// One pass along a line: a centred kernel of 2 radius + 1 taps, either a box (weights empty)
/// or the given weights.
struct LinePass {
  int radius = 0;
  std::vector<float> weights;
};

/// Kovesi's widths: three boxes whose summed variance matches sigma^2 as closely as odd
/// widths allow.
std::vector<LinePass> boxPasses(float sigma) {
  constexpr int kPasses = 3;
  const double variance = static_cast<double>(sigma) * sigma;
  const double ideal = std::sqrt(12.0 * variance / kPasses + 1.0);
  int lower = static_cast<int>(std::floor(ideal));
  if (lower % 2 == 0) --lower;
  const double m = std::round(
      (12.0 * variance - kPasses * lower * lower - 4.0 * kPasses * lower - 3.0 * kPasses) /
      (-4.0 * lower - 4.0));
  std::vector<LinePass> passes(kPasses);
  for (int i = 0; i < kPasses; ++i) passes[i].radius = ((i < m ? lower : lower + 2) - 1) / 2;
  return passes;
}

std::vector<LinePass> exactPass(float sigma) {
  LinePass pass;
  pass.radius = std::max(1, static_cast<int>(std::ceil(3.0f * sigma)));
  pass.weights.resize(static_cast<std::size_t>(2 * pass.radius + 1));
  double total = 0.0;
  for (int i = -pass.radius; i <= pass.radius; ++i) {
    const double w = std::exp(-0.5 * i * i / (static_cast<double>(sigma) * sigma));
    pass.weights[static_cast<std::size_t>(i + pass.radius)] = static_cast<float>(w);
    total += w;
  }
  for (float& w : pass.weights) w = static_cast<float>(w / total);
  return {pass};
}

/// Every line is filtered `kLanes` at a time: lane j of sample k is at k * kLanes + j, so the
/// inner loops have a fixed width the compiler vectorises. Unused lanes are filtered too but
/// never written back.
constexpr int kLanes = 48;

/// A line of `count` samples held with `margin` mirrored samples on each side, in storage the
/// caller owns.
class PaddedLine {
 public:
  PaddedLine(float* storage, int count, int margin)
      : values_(storage), count_(count), margin_(margin) {}
  static std::size_t floatsFor(int count, int margin) {
    return static_cast<std::size_t>(count + 2 * margin) * kLanes;
  }
  float* sample(int k) { return values_ + static_cast<std::ptrdiff_t>(k + margin_) * kLanes; }
  const float* sample(int k) const {
    return values_ + static_cast<std::ptrdiff_t>(k + margin_) * kLanes;
  }
  int count() const { return count_; }
  /// Refills the margins from the interior, mirrored with the edge repeated.
  void mirrorMargins() {
    for (int k = 1; k <= margin_; ++k) {
      std::copy_n(sample(mirror(-k, count_)), kLanes, sample(-k));
      std::copy_n(sample(mirror(count_ - 1 + k, count_)), kLanes, sample(count_ - 1 + k));
    }
  }

 private:
  float* values_;
  int count_;
  int margin_;
};

/// One pass from `in` (margins filled) into the interior of `out`. Box sums run in float: over
/// 6000 samples their rounding drifts by a few 1e-6 at most, far below a 16-bit step.
VORN_DISPATCH void filterLine(const PaddedLine& in, PaddedLine& out, const LinePass& pass) {
  const int r = pass.radius;
  if (!pass.weights.empty()) {
    for (int k = 0; k < in.count(); ++k) {
      float* o = out.sample(k);
      float acc[kLanes] = {};
      for (int t = -r; t <= r; ++t) {
        const float w = pass.weights[static_cast<std::size_t>(t + r)];
        const float* from = in.sample(k + t);
        for (int j = 0; j < kLanes; ++j) acc[j] += w * from[j];
      }
      std::copy_n(acc, kLanes, o);
    }
    return;
  }
  float sum[kLanes] = {};
  for (int t = -r; t <= r; ++t) {
    const float* from = in.sample(t);
    for (int j = 0; j < kLanes; ++j) sum[j] += from[j];
  }
  const float scale = 1.0f / static_cast<float>(2 * r + 1);
  for (int k = 0; k < in.count(); ++k) {
    float* o = out.sample(k);
    const float* add = in.sample(k + r + 1);
    const float* drop = in.sample(k - r);
    for (int j = 0; j < kLanes; ++j) {
      o[j] = sum[j] * scale;
      sum[j] += add[j] - drop[j];
    }
  }
}

int widestMargin(const std::vector<LinePass>& passes) {
  int margin = 0;
  for (const LinePass& pass : passes) margin = std::max(margin, pass.radius + 1);
  return margin;
}

/// Per-thread scratch: the line being filtered and the buffer the passes ping-pong with. The
/// storage stays with the thread (a few MB): fresh pages per task cost more than the filter.
struct Scratch {
  Scratch(int count, const std::vector<LinePass>& passes)
      : Scratch(count, widestMargin(passes), storage(count, widestMargin(passes))) {}
  PaddedLine line;
  PaddedLine spare;
  /// Runs every pass; the result is left in `line`.
  void run(const std::vector<LinePass>& passes) {
    for (const LinePass& pass : passes) {
      line.mirrorMargins();
      filterLine(line, spare, pass);
      std::swap(line, spare);
    }
  }

 private:
  Scratch(int count, int margin, float* values)
      : line(values, count, margin),
        spare(values + PaddedLine::floatsFor(count, margin), count, margin) {}
  static float* storage(int count, int margin) {
    thread_local std::vector<float> buffer;
    const std::size_t needed = 2 * PaddedLine::floatsFor(count, margin);
    if (buffer.size() < needed) buffer.resize(needed);
    return buffer.data();
  }
};

/// True once a stop was asked for: the passes then leave their remaining lines undone.
bool stopAsked(const RenderControl* control) {
  return control && control->cancelled();
}

/// Horizontal passes: kLanes / Channels rows at a time, interleaved sample by sample.

template <int Channels>
void blurRows(const FloatRows& rows, const std::vector<LinePass>& passes,
              const RenderControl* control) {
  constexpr int kRowsPerGroup = kLanes / Channels;
  const int groups = (rows.height + kRowsPerGroup - 1) / kRowsPerGroup;
  parallelRows(groups, [&](int first, int end) {
    Scratch scratch(rows.width, passes);
    for (int group = first; group < end && !stopAsked(control); ++group) {
      const int y0 = group * kRowsPerGroup;
      const int count = std::min(kRowsPerGroup, rows.height - y0);
      for (int i = 0; i < count; ++i) {
        const float* in = rows.readRow(rows.source, y0 + i);
        for (int x = 0; x < rows.width; ++x) {
          float* to = scratch.line.sample(x) + i * Channels;
          for (int c = 0; c < Channels; ++c) to[c] = in[x * Channels + c];
        }
      }
      scratch.run(passes);
      for (int i = 0; i < count; ++i) {
        float* out = rows.writeRow(rows.destination, y0 + i);
        for (int x = 0; x < rows.width; ++x) {
          const float* from = scratch.line.sample(x) + i * Channels;
          for (int c = 0; c < Channels; ++c) out[x * Channels + c] = from[c];
        }
      }
    }
  });
}

/// Vertical passes: columns in strips of kLanes floats, each gathered so the passes read
/// whole cache lines.
void blurColumns(const FloatRows& rows, const std::vector<LinePass>& passes,
                 const RenderControl* control) {
  const int values = rows.values();
  const int strips = (values + kLanes - 1) / kLanes;
  parallelRows(strips, [&](int first, int end) {
    Scratch scratch(rows.height, passes);
    for (int strip = first; strip < end && !stopAsked(control); ++strip) {
      const int x0 = strip * kLanes;
      const int lanes = std::min(kLanes, values - x0);
      // A full strip copies a fixed width, which compiles to plain vector moves.
      const auto gather = [&](auto width) {
        for (int y = 0; y < rows.height; ++y)
          std::copy_n(rows.writeRow(rows.destination, y) + x0, width, scratch.line.sample(y));
      };
      if (lanes == kLanes)
        gather(std::integral_constant<int, kLanes>());
      else
        gather(lanes);
      scratch.run(passes);
      const auto scatter = [&](auto width) {
        for (int y = 0; y < rows.height; ++y)
          std::copy_n(scratch.line.sample(y), width, rows.writeRow(rows.destination, y) + x0);
      };
      if (lanes == kLanes)
        scatter(std::integral_constant<int, kLanes>());
      else
        scatter(lanes);
    }
  });
}

/// A negligible blur: the rows copied as they are (nothing to do in place).
void copyRows(const FloatRows& rows) {
  const std::size_t values = static_cast<std::size_t>(rows.values());
  parallelRows(rows.height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const float* in = rows.readRow(rows.source, y);
      float* out = rows.writeRow(rows.destination, y);
      if (in != out) std::copy_n(in, values, out);
    }
  });
}

void blur(const FloatRows& rows, float sigma, const RenderControl* control) {
  // Non-finite sigma or a tiny one: a copy (callers treat the blur as absent).
  if (!(sigma >= kNegligibleSigma)) {
    copyRows(rows);
    return;
  }
  const auto checkpoint = [control] {
    if (control) control->checkpoint();
  };
  constexpr float kBoxFromSigma = 4.0f;
  const std::vector<LinePass> passes = sigma < kBoxFromSigma ? exactPass(sigma) : boxPasses(sigma);
  if (rows.channels == 3)
    blurRows<3>(rows, passes, control);
  else
    blurRows<1>(rows, passes, control);
  checkpoint();
  blurColumns(rows, passes, control);
  checkpoint();
}

}  // namespace

void gaussianBlur(const Plane& input, float sigma, Plane& output, const RenderControl* control) {
  if (&output != &input && (output.width() != input.width() || output.height() != input.height()))
    output = Plane(input.width(), input.height());
  if (input.size() == 0) return;
  const FloatRows rows{[](const void* p, int y) { return static_cast<const Plane*>(p)->row(y); },
                       [](void* p, int y) { return static_cast<Plane*>(p)->row(y); },
                       &input,
                       &output,
                       input.width(),
                       input.height(),
                       1};
  blur(rows, sigma, control);
}

void gaussianBlur(const ImageRGBf& image, _Rect<int> rect, float sigma, ImageRGBf& output,
                  const RenderControl* control) {
  if (rect.width <= 0 || rect.height <= 0) return;
  static_assert(sizeof(PixelRGB<float>) == 3 * sizeof(float), "rows are read as floats");
  const bool wholeFrame =
      rect.x == 0 && rect.y == 0 && rect.width == image.width && rect.height == image.height;
  if (&output == &image && !wholeFrame) {
    // A sub-rectangle blurred onto its own frame would read rows it already wrote.
    ImageRGBf blurred(_Size<int>(rect.width, rect.height));
    gaussianBlur(image, rect, sigma, blurred, control);
    output = std::move(blurred);
    return;
  }
  if (output.width != rect.width || output.height != rect.height) {
    output = ImageRGBf(_Size<int>(rect.width, rect.height));
  }
  struct Source {
    const ImageRGBf* image;
    _Rect<int> rect;
  } source{&image, rect};
  const FloatRows rows{[](const void* p, int y) {
                         const auto* s = static_cast<const Source*>(p);
                         return &s->image->row(s->rect.y + y)[s->rect.x].r;
                       },
                       [](void* p, int y) { return &static_cast<ImageRGBf*>(p)->row(y)->r; },
                       &source,
                       &output,
                       rect.width,
                       rect.height,
                       3};
  blur(rows, sigma, control);
}

}  // namespace vorn::detail
