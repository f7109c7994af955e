#include "vorn/io/photo_info.h"

#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <exception>
#include <filesystem>

#include "io/raster/exif_metadata.h"
#include "io/raster/exiv2_environment.h"
#include "io/raw/raw_decoder.h"
#include "vorn/core/log.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/raster_info.h"

namespace vorn {
namespace {

std::optional<double> positive(double value) {
  return std::isfinite(value) && value > 0.0 ? std::optional<double>(value) : std::nullopt;
}

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// Exiv2 prints an unknown maker-note lens as "(65535)", "n/a" or "Unknown"; none names a lens.
bool namesALens(const std::string& lens) {
  return !lens.empty() && lens.front() != '(' && lens != "n/a" && lens.rfind("Unknown", 0) != 0;
}

// "2021:06:01 14:03:22" (EXIF) to "2021-06-01 14:03:22"; empty for blanks and placeholders.
std::string captureTime(const std::string& text) {
  if (text.size() < 19) return {};
  int field[6] = {};
  const int width[6] = {4, 2, 2, 2, 2, 2};
  std::size_t at = 0;
  for (int i = 0; i < 6; ++i) {
    for (int d = 0; d < width[i]; ++d, ++at) {
      if (!std::isdigit(static_cast<unsigned char>(text[at]))) return {};
      field[i] = field[i] * 10 + (text[at] - '0');
    }
    ++at;  // the separator, whichever the camera used
  }
  if (field[0] == 0 || field[1] < 1 || field[1] > 12 || field[2] < 1 || field[2] > 31 ||
      field[3] > 23 || field[4] > 59 || field[5] > 60)
    return {};
  return text.substr(0, 4) + '-' + text.substr(5, 2) + '-' + text.substr(8, 2) + ' ' +
         text.substr(11, 2) + ':' + text.substr(14, 2) + ':' + text.substr(17, 2);
}

std::string firstCaptureTime(const Exiv2::ExifData& exif) {
  for (const char* key : {"Exif.Photo.DateTimeOriginal", "Exif.Image.DateTimeOriginal",
                          "Exif.Photo.DateTimeDigitized", "Exif.Image.DateTime"})
    if (std::string time = captureTime(detail::exifText(exif, key)); !time.empty()) return time;
  return {};
}

// Degrees, minutes and seconds as signed degrees; empty when absent, short or out of range.
std::optional<double> gpsAngle(const Exiv2::ExifData& exif, const char* key, const char* refKey,
                               char negative, double limit) {
  const Exiv2::Exifdatum* datum = detail::findExif(exif, key);
  if (!datum || datum->count() < 3) return std::nullopt;
  const double angle = datum->toFloat(0) + datum->toFloat(1) / 60.0 + datum->toFloat(2) / 3600.0;
  if (!std::isfinite(angle) || angle < 0.0 || angle > limit) return std::nullopt;
  const std::string ref = detail::exifText(exif, refKey);
  return !ref.empty() && std::toupper(static_cast<unsigned char>(ref[0])) == negative ? -angle
                                                                                      : angle;
}

void readGps(const Exiv2::ExifData& exif, PhotoInfo& info) {
  const auto latitude =
      gpsAngle(exif, "Exif.GPSInfo.GPSLatitude", "Exif.GPSInfo.GPSLatitudeRef", 'S', 90.0);
  const auto longitude =
      gpsAngle(exif, "Exif.GPSInfo.GPSLongitude", "Exif.GPSInfo.GPSLongitudeRef", 'W', 180.0);
  // Receivers without a fix write zeros; a position exactly at 0, 0 is taken for that.
  if (!latitude || !longitude || (*latitude == 0.0 && *longitude == 0.0)) return;
  info.latitude = latitude;
  info.longitude = longitude;
  if (const Exiv2::Exifdatum* altitude = detail::findExif(exif, "Exif.GPSInfo.GPSAltitude")) {
    const double metres = altitude->toFloat(0);
    const bool below = detail::exifText(exif, "Exif.GPSInfo.GPSAltitudeRef") == "1";
    if (std::isfinite(metres)) info.altitude = below ? -metres : metres;
  }
}

void takeCameraFields(const ImageMetadata& m, PhotoInfo& info) {
  if (info.cameraMake.empty() && info.cameraModel.empty()) {
    info.cameraMake = m.cameraName;
    info.cameraModel = m.cameraModel;
  }
  if (info.lens.empty() && namesALens(m.lensModel)) info.lens = m.lensModel;
  // Each number falls back on its own: a DNG may carry the aperture in EXIF and not the ISO.
  const auto fill = [](std::optional<double>& field, double value) {
    if (!field) field = positive(value);
  };
  fill(info.exposureTime, m.shutterSpeed);
  const double fromApex = m.aperture > 0.0f ? std::exp2(m.aperture / 2.0) : 0.0;
  fill(info.fNumber, m.fNumber > 0.0f ? m.fNumber : fromApex);
  fill(info.iso, m.isoSpeed);
  fill(info.focalLength, m.focalLen);
  fill(info.focalLength35mm, m.focalLen35mm);
}

// Reads what Exiv2 knows; false when it cannot read the data at all.
bool readExif(const ImageFileClass& file, PhotoInfo& info) {
  detail::ensureExiv2Environment();
  detail::Exiv2FileScope scope(file.path);
  try {
    const std::unique_ptr<Exiv2::Image> image =
        detail::openExiv2Memory(file.bytes.get(), file.size);
    const Exiv2::ExifData& exif = image->exifData();
    ImageMetadata metadata;
    detail::fillImageMetadata(exif, image->xmpData(), metadata);
    takeCameraFields(metadata, info);
    info.captured = firstCaptureTime(exif);
    if (const Exiv2::Exifdatum* datum = detail::findExif(exif, "Exif.Image.Orientation")) {
      const long orientation = datum->toLong(0);
      if (orientation >= 1 && orientation <= 8) info.orientation = static_cast<int>(orientation);
    }
    readGps(exif, info);
    return true;
  } catch (const std::exception& e) {
    LogWarning("%s: metadata unreadable: %s", file.path.c_str(), e.what());
    return false;
  }
}

// Asks the decoder without decoding: a raw file's identify step, a JPEG or TIFF header.
void readPixelSide(const ImageFileClass& file, PhotoInfo& info) {
  if (file.format == ImageFileFormat::Unknown) {
    info.pixelsError =
        "not supported by this build's decoder (no decoder for ." + file.extension + " files)";
    return;
  }
  if (file.raw) {
    std::shared_ptr<const raw::RawInput> input;
    raw::RawIdentity identity;
    raw::DecodeOutcome outcome = raw::rawInputOf(file, input);
    if (outcome.code == kImageReaderOk) outcome = raw::identifyRaw(*input, identity);
    if (outcome.code != kImageReaderOk) {
      info.pixelsError =
          "cannot be decoded (" + std::string(outcome.stage) + ": " + outcome.message + ")";
      return;
    }
    takeCameraFields(identity.metadata, info);
    if (!info.orientation && identity.geometry.orientation != 1)
      info.orientation = identity.geometry.orientation;
  }
  const _Size<int> size = ImageReader::getImageSize(file);
  if (size.width <= 0 || size.height <= 0) {
    info.pixelsError = "cannot be decoded (the header cannot be read)";
    return;
  }
  info.width = size.width;
  info.height = size.height;
  if (const int bits = ImageReader::getPreciseColorDepth(file); bits > 0)
    info.bitsPerChannel = bits;
  info.pixelsSupported = true;
}

std::string fileTypeOf(const ImageFileClass& file) {
  if (file.format == ImageFileFormat::Jpeg) return "JPEG";
  if (file.format == ImageFileFormat::Tiff && !file.raw) return "TIFF";
  const std::string extension = file.extension.empty() ? "unknown" : upper(file.extension);
  return file.raw ? extension + " raw" : extension;
}

}  // namespace

bool describePhoto(const std::string& path, PhotoInfo& info, std::string& error) {
  info = PhotoInfo{};
  info.path = path;
  std::error_code missing;
  if (!std::filesystem::is_regular_file(path, missing)) {
    error = path + (std::filesystem::exists(path, missing) ? ": not a file" : ": no such file");
    return false;
  }
  const ImageFileClass file = classifyImageFile(path);
  if (!file.isRead()) {
    error = path + ": " + (file.readError.empty() ? "cannot be read" : file.readError);
    return false;
  }
  info.fileType = fileTypeOf(file);
  info.raw = file.raw;
  const bool exifRead = readExif(file, info);
  readPixelSide(file, info);
  // Metadata alone is worth showing; a file neither reader understands is not an image.
  if (!info.pixelsSupported && !exifRead) {
    error = path + ": " +
            (file.format == ImageFileFormat::Unknown
                 ? std::string("not a supported image file")
                 : "damaged or not an image: the pixels " + info.pixelsError);
    return false;
  }
  return true;
}

std::string describeOrientation(int orientation) {
  switch (orientation) {
    case 1:
      return "normal";
    case 2:
      return "mirrored left to right";
    case 3:
      return "rotated 180°";
    case 4:
      return "mirrored top to bottom";
    case 5:
      return "mirrored and rotated 90° counter-clockwise";
    case 6:
      return "rotated 90° clockwise";
    case 7:
      return "mirrored and rotated 90° clockwise";
    case 8:
      return "rotated 90° counter-clockwise";
    default:
      return "unknown (" + std::to_string(orientation) + ")";
  }
}

}  // namespace vorn
