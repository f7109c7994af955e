#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "vorn/core/geometry.h"
#include "vorn/io/image.h"

namespace vorn::detail {

/// The EXIF orientation when it is 1..8, else 1.
int normalizedOrientation(int orientation);
/// Orientations 5..8 swap width and height.
bool orientationSwapsAxes(int orientation);
/// The upright size of an image stored with the orientation.
_Size<int> orientedSize(_Size<int> stored, int orientation);

/// Converts `rows` packed 8-bit RGB rows, the stored rows from `firstRow` of an image stored as
/// `stored` with `orientation`, into their upright places in `dst` (already of orientedSize),
/// each byte through a 256-entry table.
void convertRgb8Rows(const std::uint8_t* band, std::size_t rowBytes, int firstRow, int rows,
                     _Size<int> stored, int orientation, ImageFrame& dst);
/// An upright copy of a float frame stored with the orientation; the profile and state carry over.
std::shared_ptr<ImageFrame> orientFrame(const ImageFrame& src, int orientation);

}  // namespace vorn::detail
