#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "vorn/core/geometry.h"

namespace vorn::detail {

/// The EXIF and XMP of a source file, made ready to be embedded in an exported one: orientation
/// 1, pixel dimensions of the written image; the source's image-structure tags, thumbnail and
/// sub-images left out.
struct ExportMetadata {
  /// Little-endian TIFF-structured EXIF, as it follows "Exif\0\0" in a JPEG; empty for none.
  std::vector<std::uint8_t> exif;
  /// Offsets inside `exif` of its EXIF and GPS directories (0 when absent): a TIFF that starts
  /// with these bytes points its own directory at them.
  std::uint32_t exifDirectory = 0;
  std::uint32_t gpsDirectory = 0;
  /// Descriptive text tags of the main directory (Make, Model, ...) by tag number.
  std::vector<std::pair<std::uint16_t, std::string>> textTags;
  double xResolution = 0.0;  ///< 0 when the source has none
  double yResolution = 0.0;
  std::uint16_t resolutionUnit = 0;
  /// The serialized XMP packet; empty for none.
  std::string xmp;
};

/// The largest EXIF block a JPEG APP1 segment holds.
inline constexpr std::size_t kJpegMaxExifBytes = 65527;

/// Reads `sourcePath`'s metadata for an image of `size`. An EXIF block above `exifLimit` bytes
/// loses the maker notes, then (with a warning) the whole block; an XMP packet that does not
/// parse is dropped with a warning. False with a reason when the source cannot be read.
bool readExportMetadata(const std::string& sourcePath, _Size<int> size, std::size_t exifLimit,
                        ExportMetadata& metadata, std::string& reason);

}  // namespace vorn::detail
