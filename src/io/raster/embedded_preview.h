#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "io/raster/raster_status.h"
#include "vorn/core/geometry.h"
#include "vorn/io/image_metadata.h"

namespace vorn::detail {

/// One preview image embedded in a file's metadata.
struct EmbeddedPreview {
  std::vector<std::uint8_t> bytes;  ///< an encoded JPEG or TIFF
  _Size<int> size;                  ///< as stored, before the file's orientation
};

/// Picks one of a file's previews by their upright sizes: its index, or -1 for none.
using PreviewChooser = std::function<int(const std::vector<_Size<int>>& sizes)>;

/// Reads the metadata of an encoded file held in memory with Exiv2, and the preview `choose`
/// picks among its JPEG and TIFF previews. Code 4 at stage "metadata" when Exiv2 cannot read
/// the data at all; `preview` stays empty when the file has none or none is chosen. `name`
/// labels messages.
RasterStatus readMetadataAndPreview(const std::uint8_t* data, std::size_t size,
                                    const std::string& name, const PreviewChooser& choose,
                                    std::shared_ptr<ImageMetadata>& metadata,
                                    EmbeddedPreview& preview);

}  // namespace vorn::detail
