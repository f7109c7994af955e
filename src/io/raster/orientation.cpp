#include "io/raster/orientation.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "core/parallel.h"

namespace vorn::detail {
namespace {

// Where upright row y starts in the stored pixels and how far one step right moves there.
struct RowWalk {
  std::ptrdiff_t start;
  std::ptrdiff_t step;
};

// Stored pixel (sx, sy) for upright (x, y) is start(y) + x * step, in pixel units of a stored
// image ws x hs with `stride` pixels per row.
RowWalk rowWalk(int orientation, int y, int ws, int hs, std::ptrdiff_t stride) {
  const std::ptrdiff_t w = ws, h = hs, yy = y;
  switch (orientation) {
    case 2:
      return {yy * stride + w - 1, -1};
    case 3:
      return {(h - 1 - yy) * stride + w - 1, -1};
    case 4:
      return {(h - 1 - yy) * stride, 1};
    case 5:
      return {yy, stride};
    case 6:
      return {(h - 1) * stride + yy, -stride};
    case 7:
      return {(h - 1) * stride + (w - 1 - yy), -stride};
    case 8:
      return {w - 1 - yy, stride};
    default:
      return {yy * stride, 1};
  }
}

// Transposing walks read down stored columns; tiles keep those reads within a few cache lines.
constexpr int kTileRows = 32;
constexpr int kTileColumns = 64;

template <typename Src, typename Convert>
void remapOriented(const Src* src, _Size<int> stored, std::ptrdiff_t stride, int orientation,
                   ImageFrame& dst, Convert convert) {
  const int width = dst.width;
  parallelRows(dst.height, [&](int first, int end) {
    if (!orientationSwapsAxes(orientation)) {
      for (int y = first; y < end; ++y) {
        const RowWalk walk = rowWalk(orientation, y, stored.width, stored.height, stride);
        const Src* in = src + walk.start;
        PixelRGB<float>* out = dst.row(y);
        for (int x = 0; x < width; ++x) out[x] = convert(in[walk.step * x]);
      }
      return;
    }
    for (int band = first; band < end; band += kTileRows) {
      const int bandEnd = std::min(end, band + kTileRows);
      for (int x0 = 0; x0 < width; x0 += kTileColumns) {
        const int x1 = std::min(width, x0 + kTileColumns);
        for (int y = band; y < bandEnd; ++y) {
          const RowWalk walk = rowWalk(orientation, y, stored.width, stored.height, stride);
          const Src* in = src + walk.start;
          PixelRGB<float>* out = dst.row(y);
          for (int x = x0; x < x1; ++x) out[x] = convert(in[walk.step * x]);
        }
      }
    }
  });
}

struct Rgb8 {
  std::uint8_t r, g, b;
};
static_assert(sizeof(Rgb8) == 3);

const std::array<float, 256>& byteToFloat() {
  static const std::array<float, 256> table = [] {
    std::array<float, 256> t{};
    for (int i = 0; i < 256; ++i) t[static_cast<std::size_t>(i)] = static_cast<float>(i) / 255.0f;
    return t;
  }();
  return table;
}

}  // namespace

int normalizedOrientation(int orientation) {
  return orientation >= 1 && orientation <= 8 ? orientation : 1;
}

bool orientationSwapsAxes(int orientation) {
  return orientation >= 5 && orientation <= 8;
}

_Size<int> orientedSize(_Size<int> stored, int orientation) {
  return orientationSwapsAxes(orientation) ? _Size<int>(stored.height, stored.width) : stored;
}

void convertRgb8Rows(const std::uint8_t* band, std::size_t rowBytes, int firstRow, int rows,
                     _Size<int> stored, int orientation, ImageFrame& dst) {
  const auto& table = byteToFloat();
  orientation = normalizedOrientation(orientation);
  const bool transpose = orientationSwapsAxes(orientation);
  // Upright, a stored row is a row (or, transposed, a column) counted from the far end when
  // rows are mirrored; along it the stored columns run backwards when columns are mirrored.
  const bool mirrorRows =
      orientation == 3 || orientation == 4 || orientation == 6 || orientation == 7;
  const bool mirrorColumns =
      orientation == 2 || orientation == 3 || orientation == 7 || orientation == 8;
  const std::ptrdiff_t along = (mirrorColumns ? -1 : 1) * (transpose ? dst.width : 1);
  const int lastColumn = stored.width - 1;
  // Transposed rows scatter down columns; tiles of stored columns keep the writes of a band
  // within a few cache lines per upright row.
  const int tile = transpose ? kTileColumns : stored.width;
  for (int x0 = 0; x0 < stored.width; x0 += tile) {
    const int x1 = std::min(stored.width, x0 + tile);
    for (int r = 0; r < rows; ++r) {
      const int sy = firstRow + r;
      const int across = mirrorRows ? stored.height - 1 - sy : sy;
      const int start = mirrorColumns ? lastColumn : 0;
      PixelRGB<float>* origin = transpose ? dst.row(start) + across : dst.row(across) + start;
      const auto* in = reinterpret_cast<const Rgb8*>(band + static_cast<std::size_t>(r) * rowBytes);
      for (int x = x0; x < x1; ++x) {
        const Rgb8 p = in[x];
        origin[along * x] = PixelRGB<float>(table[p.r], table[p.g], table[p.b]);
      }
    }
  }
}

std::shared_ptr<ImageFrame> orientFrame(const ImageFrame& src, int orientation) {
  orientation = normalizedOrientation(orientation);
  auto dst = std::make_shared<ImageFrame>(orientedSize(src.size(), orientation), src.colorProfile);
  dst->setLoadState(src.getLoadState());
  remapOriented(src.data, src.size(), src.width, orientation, *dst,
                [](const PixelRGB<float>& p) { return p; });
  return dst;
}

}  // namespace vorn::detail
