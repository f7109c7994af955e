#include "vorn/io/exif_reader.h"

#include <exiv2/exiv2.hpp>

#include <exception>

#include "io/raster/exif_metadata.h"
#include "io/raster/exiv2_environment.h"
#include "vorn/core/file_utils.h"
#include "vorn/core/log.h"

namespace vorn {
namespace {

// Runs `use` on the file's opened and read Exiv2 image; false (and a warning) when it fails.
template <typename Use>
bool withExiv2Image(const std::string& path, Use&& use) {
  if (!IsFileExist(path)) return false;
  detail::ensureExiv2Environment();
  detail::Exiv2FileScope scope(path);
  try {
    auto image = Exiv2::ImageFactory::open(path);
    image->readMetadata();
    use(*image);
    return true;
  } catch (const std::exception& error) {
    LogWarning("%s: metadata unreadable: %s", path.c_str(), error.what());
    return false;
  }
}

}  // namespace

std::shared_ptr<const ImageMetadata> readImageMetadata(const std::string& path) {
  auto metadata = std::make_shared<ImageMetadata>();
  const bool read = withExiv2Image(path, [&](Exiv2::Image& image) {
    detail::fillImageMetadata(image.exifData(), image.xmpData(), *metadata);
  });
  return read ? metadata : nullptr;
}

std::shared_ptr<const Exiv2::ExifData> readExifData(const std::string& path) {
  std::shared_ptr<Exiv2::ExifData> exif;
  withExiv2Image(path, [&](Exiv2::Image& image) {
    exif = std::make_shared<Exiv2::ExifData>(image.exifData());
  });
  return exif;
}

int readExifOrientation(const std::string& path) {
  int orientation = 1;
  withExiv2Image(
      path, [&](Exiv2::Image& image) { orientation = detail::exifOrientation(image.exifData()); });
  return orientation;
}

std::string readExifCameraModel(const std::string& path) {
  std::string model;
  withExiv2Image(path, [&](Exiv2::Image& image) {
    model = detail::exifText(image.exifData(), "Exif.Image.Model");
  });
  return model;
}

bool getTemperatureAndTint(float& temperature, float& tint, const std::string& path) {
  bool found = false;
  withExiv2Image(path, [&](Exiv2::Image& image) {
    found = detail::findTemperatureAndTint(image.exifData(), image.xmpData(), temperature, tint);
  });
  return found;
}

}  // namespace vorn
