#include "io/raster/export_metadata.h"

#include <exiv2/exiv2.hpp>

#include <array>
#include <exception>
#include <string_view>

#include "io/raster/exif_metadata.h"
#include "io/raster/exiv2_environment.h"
#include "io/raster/file_bytes.h"
#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

// Of the main image directory, only descriptive tags travel: structure tags (strips, bits,
// compression, DNG tags) describe the source's pixels, not the written ones.
constexpr std::array<std::string_view, 11> kImageTagsKept = {
    "Make",        "Model",       "Software",      "DateTime",
    "Artist",      "Copyright",   "Rating",        "ImageDescription",
    "XResolution", "YResolution", "ResolutionUnit"};
// Those a TIFF writer sets as text on its own main directory.
constexpr std::array<std::uint16_t, 7> kTextTags = {271, 272, 305, 306, 315, 33432, 270};

bool travels(const Exiv2::Exifdatum& datum, bool makerNotes) {
  const std::string group = datum.groupName();
  const std::string tag = datum.tagName();
  if (group == "Image") {
    for (std::string_view kept : kImageTagsKept)
      if (tag == kept) return true;
    return false;
  }
  if (group == "Thumbnail" || group.rfind("SubImage", 0) == 0 || group.rfind("SubThumb", 0) == 0 ||
      group.rfind("Image", 0) == 0)
    return false;
  if (!makerNotes &&
      (Exiv2::ExifTags::isMakerGroup(group) || group == "MakerNote" || tag == "MakerNote"))
    return false;
  return tag != "ExifTag" && tag != "GPSTag" && tag != "InteroperabilityTag";
}

void setValue(Exiv2::ExifData& exif, const char* key, const Exiv2::Value& value) {
  const auto it = exif.findKey(Exiv2::ExifKey(key));
  if (it != exif.end()) exif.erase(it);
  exif.add(Exiv2::ExifKey(key), &value);
}

std::uint32_t readU32(const std::vector<std::uint8_t>& b, std::size_t at) {
  return at + 4 <= b.size() ? std::uint32_t(b[at]) | std::uint32_t(b[at + 1]) << 8 |
                                  std::uint32_t(b[at + 2]) << 16 | std::uint32_t(b[at + 3]) << 24
                            : 0;
}

std::uint16_t readU16(const std::vector<std::uint8_t>& b, std::size_t at) {
  return at + 2 <= b.size() ? static_cast<std::uint16_t>(b[at] | b[at + 1] << 8) : 0;
}

// The EXIF and GPS directory offsets from the first directory of a little-endian block.
void findSubDirectories(ExportMetadata& metadata) {
  const std::vector<std::uint8_t>& b = metadata.exif;
  const std::size_t first = readU32(b, 4);
  const std::size_t count = readU16(b, first);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t entry = first + 2 + 12 * i;
    const std::uint16_t tag = readU16(b, entry);
    if (tag == 0x8769) metadata.exifDirectory = readU32(b, entry + 8);
    if (tag == 0x8825) metadata.gpsDirectory = readU32(b, entry + 8);
  }
  if (metadata.exifDirectory >= b.size()) metadata.exifDirectory = 0;
  if (metadata.gpsDirectory >= b.size()) metadata.gpsDirectory = 0;
}

Exiv2::ExifData travellingExif(const Exiv2::ExifData& source, _Size<int> size, bool makerNotes) {
  Exiv2::ExifData exif;
  for (const Exiv2::Exifdatum& datum : source)
    if (travels(datum, makerNotes)) setValue(exif, datum.key().c_str(), datum.value());
  setValue(exif, "Exif.Image.Orientation", Exiv2::UShortValue(1));
  Exiv2::ULongValue width, height;
  width.value_.push_back(static_cast<std::uint32_t>(size.width));
  height.value_.push_back(static_cast<std::uint32_t>(size.height));
  setValue(exif, "Exif.Photo.PixelXDimension", width);
  setValue(exif, "Exif.Photo.PixelYDimension", height);
  return exif;
}

void encodeExif(const Exiv2::ExifData& source, const std::string& name, _Size<int> size,
                std::size_t limit, ExportMetadata& metadata) {
  for (const bool makerNotes : {true, false}) {
    Exiv2::Blob blob;
    Exiv2::ExifParser::encode(blob, Exiv2::littleEndian, travellingExif(source, size, makerNotes));
    if (blob.size() <= limit) {
      metadata.exif.assign(blob.begin(), blob.end());
      findSubDirectories(metadata);
      return;
    }
  }
  LogWarning("%s: EXIF dropped from the export: larger than %zu bytes even without maker notes",
             name.c_str(), limit);
}

void copyMainTags(const Exiv2::ExifData& source, ExportMetadata& metadata) {
  for (const Exiv2::Exifdatum& datum : source) {
    if (datum.groupName() != "Image") continue;
    const std::uint16_t tag = datum.tag();
    for (std::uint16_t text : kTextTags)
      if (tag == text && datum.count() > 0) metadata.textTags.emplace_back(tag, datum.toString());
    if (tag == 282 && datum.count() > 0) metadata.xResolution = datum.toFloat();
    if (tag == 283 && datum.count() > 0) metadata.yResolution = datum.toFloat();
    if (tag == 296 && datum.count() > 0)
      metadata.resolutionUnit = static_cast<std::uint16_t>(datum.toLong());
  }
}

// Brings the properties that repeat EXIF's orientation and size in line with the written image.
void updateXmp(Exiv2::XmpData& xmp, _Size<int> size) {
  const auto setIfPresent = [&](const char* key, long value) {
    if (xmp.findKey(Exiv2::XmpKey(key)) != xmp.end()) xmp[key] = std::to_string(value);
  };
  setIfPresent("Xmp.tiff.Orientation", 1);
  setIfPresent("Xmp.tiff.ImageWidth", size.width);
  setIfPresent("Xmp.tiff.ImageLength", size.height);
  setIfPresent("Xmp.exif.PixelXDimension", size.width);
  setIfPresent("Xmp.exif.PixelYDimension", size.height);
}

void encodeXmp(Exiv2::Image& source, const std::string& name, _Size<int> size,
               ExportMetadata& metadata) {
  Exiv2::XmpData& xmp = source.xmpData();
  if (xmp.empty()) {
    if (!source.xmpPacket().empty())
      LogWarning("%s: XMP dropped from the export: the packet does not parse", name.c_str());
    return;
  }
  updateXmp(xmp, size);
  std::string packet;
  if (Exiv2::XmpParser::encode(packet, xmp, Exiv2::XmpParser::useCompactFormat) == 0) {
    metadata.xmp = std::move(packet);
  } else {
    LogWarning("%s: XMP dropped from the export: it cannot be written again", name.c_str());
  }
}

}  // namespace

bool readExportMetadata(const std::string& sourcePath, _Size<int> size, std::size_t exifLimit,
                        ExportMetadata& metadata, std::string& reason) {
  metadata = ExportMetadata{};
  // Read whole and parsed in memory: Exiv2 opening the path itself would open it several times.
  FileBytes sourceBytes;
  if (const RasterStatus read = readWholeFile(sourcePath, sourceBytes); !read.ok()) {
    reason = "cannot read the metadata of " + sourcePath + ": " + read.reason;
    return false;
  }
  ensureExiv2Environment();
  Exiv2FileScope scope(sourcePath);
  try {
    const auto source = openExiv2Memory(sourceBytes.data.get(), sourceBytes.size);
    const Exiv2::ExifData& exif = source->exifData();
    if (!exif.empty()) {
      encodeExif(exif, sourcePath, size, exifLimit, metadata);
      copyMainTags(exif, metadata);
    }
    encodeXmp(*source, sourcePath, size, metadata);
    return true;
  } catch (const std::exception& error) {
    reason = std::string("cannot read the metadata of ") + sourcePath + ": " + error.what();
    return false;
  }
}

}  // namespace vorn::detail
