#pragma once

#include <cstddef>
#include <vector>

#include "effects/lens/lens_database.h"
#include "vorn/core/geometry.h"
#include "vorn/core/image_data.h"

// The lens models are smooth over the frame: evaluated on a grid of nodes and interpolated, they
// cost a fraction of a per-pixel evaluation for errors far below a thousandth of a pixel.
namespace vorn::detail {

/// How much of each of the profile's corrections is applied: 1 the profile's, 0 none; a negative
/// distortion pushes the other way, adding the lens's own distortion instead of removing it.
struct LensAmounts {
  float distortion = 1.0f;
  float aberration = 1.0f;
  float vignetting = 1.0f;
};

/// Where the channels of frame pixel (x, y) are read from once the amounts scale the profile's
/// six coordinates (as LensModifier::sourceAt) in place: green follows the scaled distortion,
/// red and blue keep their scaled offsets from green.
void scaleSource(float* source, float x, float y, const LensAmounts& amounts);

/// The per-pixel values of a LensField, one plane each.
enum LensPlane { kRedX, kRedY, kGreenX, kGreenY, kBlueX, kBlueY, kGain, kGainRoot, kLensPlanes };

/// A lens modifier's source coordinates (scaled by the amounts) and shading gain with its
/// 1/2.4 power, at nodes every few frame pixels and bilinear between (nodes sit at fixed frame
/// positions, so a region render reads the values a whole one does).
class LensField {
 public:
  /// The nodes around `area` (in the coordinates of `frame`), evaluated in parallel.
  LensField(const LensModifier& modifier, _Size<int> frame, _Rect<int> area,
            const LensAmounts& amounts);

  /// Plane k of count pixels of frame row y from column x (all inside the area) into planes[k]
  /// (a null plane is skipped).
  void row(int x, int y, int count, float* const* planes) const;

 private:
  /// The node at or before position v.
  int nodeOf(int v) const;

  int cell_ = 1;
  int areaX_ = 0;
  int firstColumn_ = 0;
  int firstRow_ = 0;
  int columns_ = 0;
  int rows_ = 0;
  std::vector<float> nodes_;  ///< kLensPlanes planes of rows_ x columns_
  /// Per area column: its node (from firstColumn_) and its weight towards the next one.
  std::vector<int> columnNode_;
  std::vector<float> columnWeight_;
};

/// The kernels a WarpSource reads with: the portable loop and the gathers of two vector units.
enum class WarpIsa { Portable, Avx2, Avx512 };

/// Single channels of a picture read bilinearly at rows of positions, clamped to bounds, as
/// ChannelSampler reads them one at a time (bit for bit), several pixels per instruction.
struct WarpSource {
  /// Positions are given in frame coordinates; (originX, originY) is the frame's origin in the
  /// picture.
  template <typename Image>
  WarpSource(const Image& image, _Rect<int> bounds, float originX, float originY)
      : base(&image.row(bounds.y)[0].r),
        pitch(3 * static_cast<std::ptrdiff_t>(image.width)),
        top(bounds.y),
        narrow(pitch * (bounds.height + 1) < 0x7fffffff),
        extent(pitch * (image.height - bounds.y)),
        left(static_cast<float>(bounds.x)),
        topEdge(static_cast<float>(bounds.y)),
        right(static_cast<float>(bounds.x + bounds.width - 1)),
        bottom(static_cast<float>(bounds.y + bounds.height - 1)),
        frameX(originX),
        frameY(originY) {}

  /// out[n] = channel c (0 red, 1 green, 2 blue) at (xs[n], ys[n]) for n below count; a NaN
  /// position lands on the low edge.
  void read(int c, const float* xs, const float* ys, float* out, std::size_t count) const;
  /// read with the given kernel (offsets past 32 bits always take the portable one); false
  /// when the CPU lacks its instructions. Tests compare every kernel with the portable one.
  bool readWith(WarpIsa isa, int c, const float* xs, const float* ys, float* out,
                std::size_t count) const;

  const float* base;  ///< red of the bounds' first row's pixel 0
  std::ptrdiff_t pitch;
  int top;
  /// Offsets fit 32 bits (a source under ~700 MP), as the vector kernels need.
  bool narrow;
  /// The values from base to the picture's end: vector reads may load anywhere below it.
  std::ptrdiff_t extent;
  float left;
  float topEdge;
  float right;
  float bottom;
  float frameX;
  float frameY;

 private:
  template <typename Kernel>
  void readIn(Kernel kernel, int c, const float* xs, const float* ys, float* out,
              std::size_t count) const;
};

}  // namespace vorn::detail
