#include "io/raster/exif_copy.h"

#include <exiv2/exiv2.hpp>

#include <array>
#include <climits>
#include <exception>
#include <string_view>

#include "io/raster/exiv2_environment.h"

namespace vorn::detail {
namespace {

// Of the main image directory, only descriptive tags travel: structure tags (strips, bits,
// compression, DNG tags) describe the source's pixels, not the written ones.
constexpr std::array<std::string_view, 10> kImageTagsKept = {
    "Make",      "Model",  "Software",         "DateTime",    "Artist",
    "Copyright", "Rating", "ImageDescription", "XResolution", "YResolution"};

bool travels(const Exiv2::Exifdatum& datum) {
  const std::string group = datum.groupName();
  const std::string tag = datum.tagName();
  if (group == "Image") {
    for (std::string_view kept : kImageTagsKept)
      if (tag == kept) return true;
    return tag == "ResolutionUnit";
  }
  if (group == "Thumbnail" || group.rfind("SubImage", 0) == 0 || group.rfind("SubThumb", 0) == 0 ||
      group.rfind("Image", 0) == 0)
    return false;
  return tag != "ExifTag" && tag != "GPSTag" && tag != "InteroperabilityTag";
}

void setValue(Exiv2::ExifData& exif, const char* key, const Exiv2::Value& value) {
  const auto it = exif.findKey(Exiv2::ExifKey(key));
  if (it != exif.end()) exif.erase(it);
  exif.add(Exiv2::ExifKey(key), &value);
}

}  // namespace

bool copyExifInto(std::vector<std::uint8_t>& encoded, const std::string& sourcePath,
                  _Size<int> size, std::string& reason) {
  ensureExiv2Environment();
  Exiv2FileScope scope(sourcePath);
  try {
    auto source = Exiv2::ImageFactory::open(sourcePath);
    source->readMetadata();
    if (encoded.size() > static_cast<std::size_t>(LONG_MAX)) {
      reason = "encoded image too large for EXIF";
      return false;
    }
    auto target = Exiv2::ImageFactory::open(encoded.data(), static_cast<long>(encoded.size()));
    target->readMetadata();
    Exiv2::ExifData exif = target->exifData();
    for (const Exiv2::Exifdatum& datum : source->exifData())
      if (travels(datum)) setValue(exif, datum.key().c_str(), datum.value());
    setValue(exif, "Exif.Image.Orientation", Exiv2::UShortValue(1));
    Exiv2::ULongValue width, height;
    width.value_.push_back(static_cast<std::uint32_t>(size.width));
    height.value_.push_back(static_cast<std::uint32_t>(size.height));
    setValue(exif, "Exif.Photo.PixelXDimension", width);
    setValue(exif, "Exif.Photo.PixelYDimension", height);
    target->setExifData(exif);
    target->writeMetadata();

    Exiv2::BasicIo& io = target->io();
    if (io.open() != 0) {
      reason = "cannot reopen the encoded image";
      return false;
    }
    const Exiv2::DataBuf written = io.read(static_cast<long>(io.size()));
    io.close();
    if (written.size_ <= 0) {
      reason = "EXIF writer gave no bytes";
      return false;
    }
    encoded.assign(written.pData_, written.pData_ + written.size_);
    return true;
  } catch (const std::exception& error) {
    reason = std::string("EXIF copy failed: ") + error.what();
    return false;
  }
}

}  // namespace vorn::detail
