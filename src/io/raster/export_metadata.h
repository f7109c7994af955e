#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vorn/core/geometry.h"

namespace vorn::detail {

/// Adds the EXIF of `sourcePath` to an encoded JPEG or TIFF held in `encoded`: orientation 1,
/// pixel dimensions set to `size`; the source's image-structure tags, thumbnail and sub-images
/// are left out. False with a reason when either side cannot be read or written.
bool copyExifInto(std::vector<std::uint8_t>& encoded, const std::string& sourcePath,
                  _Size<int> size, std::string& reason);

}  // namespace vorn::detail
