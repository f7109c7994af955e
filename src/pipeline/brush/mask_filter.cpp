#include "mask_filter.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "core/parallel.h"
#include "mask_blocks.h"

namespace vorn::detail {
namespace {

constexpr int kPasses = 3;
// Sigma of a feather of 1, as a share of the canvas's shorter side.
constexpr float kFeatherSigmaShare = 0.05f;

/// One box pass along a contiguous line with clamped ends; running sum, so O(n) for any radius.
void boxLine(const float* in, float* out, int n, int radius) {
  const auto at = [&](int i) { return in[std::clamp(i, 0, n - 1)]; };
  const double scale = 1.0 / (2 * radius + 1);
  double sum = 0.0;
  for (int k = -radius; k <= radius; ++k) sum += at(k);
  for (int i = 0; i < n; ++i) {
    out[i] = static_cast<float>(sum * scale);
    sum += at(i + radius + 1) - at(i - radius);
  }
}

/// One box pass down the columns [first, end) of a w-wide plane, reading whole row segments.
void boxColumns(const std::vector<float>& in, std::vector<float>& out, int w, int h, int radius,
                int first, int end) {
  const auto row = [&](int y) {
    return in.data() +
           static_cast<std::size_t>(std::clamp(y, 0, h - 1)) * static_cast<std::size_t>(w);
  };
  const double scale = 1.0 / (2 * radius + 1);
  std::vector<double> sum(static_cast<std::size_t>(end - first), 0.0);
  for (int k = -radius; k <= radius; ++k) {
    const float* r = row(k);
    for (int x = first; x < end; ++x) sum[static_cast<std::size_t>(x - first)] += r[x];
  }
  for (int y = 0; y < h; ++y) {
    float* o = out.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(w);
    const float* add = row(y + radius + 1);
    const float* sub = row(y - radius);
    for (int x = first; x < end; ++x) {
      double& s = sum[static_cast<std::size_t>(x - first)];
      o[x] = static_cast<float>(s * scale);
      s += add[x] - sub[x];
    }
  }
}

}  // namespace

int featherBoxRadius(float sigma) {
  if (!(sigma > 0.0f)) return 0;
  // Three boxes of width w have the variance of a Gaussian of sigma when 3 (w^2 - 1) / 12 =
  // sigma^2.
  const double width = std::sqrt(4.0 * static_cast<double>(sigma) * sigma + 1.0);
  return std::max(1, static_cast<int>(std::lround((width - 1.0) / 2.0)));
}

int featherBoxRadius(const MaskSetting& setting, int shortSide) {
  return featherBoxRadius(setting.feather * kFeatherSigmaShare * static_cast<float>(shortSide));
}

void featherAndDensity(const MaskImage& source, MaskImage& target, const _Rect<int>& rect,
                       int boxRadius, float density) {
  const _Rect<int> out = clipRect(rect, source.size());
  if (out.isZero() || target.size() != source.size()) return;
  const int reach = featherReach(boxRadius);
  const _Rect<int> in = clipRect(out.inset(-reach, -reach), source.size());
  const int w = in.width, h = in.height;
  const std::size_t area = static_cast<std::size_t>(w) * static_cast<std::size_t>(h);
  std::vector<float> a(area), b(area);
  parallelRows(h, [&](int first, int end) {
    for (int y = first; y < end; ++y)
      std::copy_n(source.row(in.y + y) + in.x, w,
                  a.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(w));
  });
  if (boxRadius > 0) {
    // Rows, then columns; a pass over the clamped border of `in` errs at most `reach` inside,
    // which is where `out` begins unless the border is the mask's own edge.
    parallelRows(h, [&](int first, int end) {
      std::vector<float> line(static_cast<std::size_t>(w));
      for (int y = first; y < end; ++y) {
        float* r = a.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(w);
        for (int pass = 0; pass < kPasses; ++pass) {
          boxLine(r, line.data(), w, boxRadius);
          std::copy(line.begin(), line.end(), r);
        }
      }
    });
    for (int pass = 0; pass < kPasses; ++pass) {
      parallelChunks(static_cast<std::size_t>(w), 256, [&](std::size_t first, std::size_t end) {
        boxColumns(a, b, w, h, boxRadius, static_cast<int>(first), static_cast<int>(end));
      });
      a.swap(b);
    }
  }
  parallelRows(out.height, [&](int first, int end) {
    for (int y = first; y < end; ++y) {
      const float* r = a.data() +
                       static_cast<std::size_t>(out.y - in.y + y) * static_cast<std::size_t>(w) +
                       (out.x - in.x);
      float* t = target.row(out.y + y) + out.x;
      for (int x = 0; x < out.width; ++x) t[x] = r[x] * density;
    }
  });
}

}  // namespace vorn::detail
