#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "vorn/io/image_metadata.h"

namespace Exiv2 {
class ExifData;
class Exifdatum;
class XmpData;
class Image;
}  // namespace Exiv2

namespace vorn::detail {

/// Fills the record from EXIF (and XMP white balance); mutableParameters takes the orientation
/// and the white balance.
void fillImageMetadata(const Exiv2::ExifData& exif, const Exiv2::XmpData& xmp,
                       ImageMetadata& metadata);
/// The as-shot temperature (Kelvin) and tint; false when neither EXIF nor XMP records them.
bool findTemperatureAndTint(const Exiv2::ExifData& exif, const Exiv2::XmpData& xmp,
                            float& temperature, float& tint);
/// The tag when the file has it with at least one value; null otherwise (also for a key this
/// Exiv2 does not know).
const Exiv2::Exifdatum* findExif(const Exiv2::ExifData& exif, const char* key);
/// The tag's text with surrounding blanks and NULs removed; empty when absent.
std::string exifText(const Exiv2::ExifData& exif, const char* key);
/// "Exif.Image.Orientation" when it is 1..8, else 1.
int exifOrientation(const Exiv2::ExifData& exif);

/// Opens an encoded file held in memory with Exiv2 and reads its metadata; throws what Exiv2
/// throws (std::length_error for a buffer Exiv2 cannot address). Call ensureExiv2Environment first.
std::unique_ptr<Exiv2::Image> openExiv2Memory(const std::uint8_t* data, std::size_t size);

/// The metadata of an encoded file in memory; damaged metadata is dropped with a warning naming
/// `name` and a default record returned. Never throws.
std::shared_ptr<ImageMetadata> metadataFromBytes(const std::uint8_t* data, std::size_t size,
                                                 const std::string& name);
/// The same, but null (after the warning) when Exiv2 cannot read the data at all.
std::shared_ptr<ImageMetadata> readMetadataFromBytes(const std::uint8_t* data, std::size_t size,
                                                     const std::string& name);
/// "Exif.Image.Model" of an encoded file in memory; empty, and nothing logged, when it has none.
std::string cameraModelFromBytes(const std::uint8_t* data, std::size_t size,
                                 const std::string& name);

}  // namespace vorn::detail
