#pragma once

#include <memory>
#include <string>

#include "vorn/io/image_metadata.h"

namespace Exiv2 {
class ExifData;
}

namespace vorn {

/// Camera, exposure, lens and white-balance fields of a file's EXIF (and XMP white balance);
/// a default record when the file has none, empty when the file cannot be read.
std::shared_ptr<const ImageMetadata> readImageMetadata(const std::string& path);
/// The file's whole EXIF block; empty when the file cannot be read.
std::shared_ptr<const Exiv2::ExifData> readExifData(const std::string& path);
/// The EXIF orientation 1..8 of the file; 1 when absent or out of range.
int readExifOrientation(const std::string& path);
/// "Exif.Image.Model" with surrounding blanks removed; empty when the file has no such tag.
std::string readExifCameraModel(const std::string& path);
/// The as-shot white balance (Kelvin and tint); false when the file does not record it.
bool getTemperatureAndTint(float& temperature, float& tint, const std::string& path);

}  // namespace vorn
