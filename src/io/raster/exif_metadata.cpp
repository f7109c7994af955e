#include "io/raster/exif_metadata.h"

#include <exiv2/exiv2.hpp>

#include <climits>
#include <cmath>
#include <exception>
#include <initializer_list>
#include <stdexcept>

#include "io/raster/exiv2_environment.h"
#include "io/raster/orientation.h"
#include "vorn/core/log.h"

namespace vorn::detail {

const Exiv2::Exifdatum* findExif(const Exiv2::ExifData& exif, const char* key) {
  try {
    const auto it = exif.findKey(Exiv2::ExifKey(key));
    if (it != exif.end() && it->count() > 0) return &*it;
  } catch (const std::exception&) {
    // A key this Exiv2 does not know is simply absent.
  }
  return nullptr;
}

namespace {

std::string trimmed(std::string text) {
  const auto blank = [](char c) { return c == ' ' || c == '\0' || c == '\t' || c == '\n'; };
  while (!text.empty() && blank(text.back())) text.pop_back();
  std::size_t first = 0;
  while (first < text.size() && blank(text[first])) ++first;
  return text.substr(first);
}

// The n-th component as a finite float; 0 for an absent tag or a rational over zero.
// Tag 0xa432 of the Photo group: shortest and longest focal length, then the apertures at each.
constexpr const char* kLensRangeKey = "Exif.Photo.0xa432";

float exifNumber(const Exiv2::ExifData& exif, const char* key, long n = 0) {
  const Exiv2::Exifdatum* datum = findExif(exif, key);
  if (datum == nullptr || n >= datum->count()) return 0.0f;
  const float value = datum->toFloat(n);
  return std::isfinite(value) ? value : 0.0f;
}

float firstNumber(const Exiv2::ExifData& exif, std::initializer_list<const char*> keys) {
  for (const char* key : keys)
    if (const float value = exifNumber(exif, key); value != 0.0f) return value;
  return 0.0f;
}

float xmpNumber(const Exiv2::XmpData& xmp, const char* key, bool& found) {
  try {
    const auto it = xmp.findKey(Exiv2::XmpKey(key));
    if (it == xmp.end()) return 0.0f;
    const float value = std::stof(it->toString());
    found = std::isfinite(value);
    return found ? value : 0.0f;
  } catch (const std::exception&) {
    return 0.0f;
  }
}

void fillLens(const Exiv2::ExifData& exif, ImageMetadata& m) {
  m.lensMaker = exifText(exif, "Exif.Photo.LensMake");
  m.lensModel = exifText(exif, "Exif.Photo.LensModel");
  const auto named = Exiv2::lensName(exif);
  if (m.lensModel.empty() && named != exif.end()) m.lensModel = trimmed(named->print(&exif));
  // The maker's numeric lens type, where the maker note has one; text-only lenses have no id.
  for (const char* key :
       {"Exif.CanonCs.LensType", "Exif.NikonLd3.LensIDNumber", "Exif.NikonLd2.LensIDNumber",
        "Exif.Sony1.LensID", "Exif.Sony2.LensID", "Exif.Pentax.LensType", "Exif.Minolta.LensID",
        "Exif.OlympusEq.LensType"}) {
    if (const Exiv2::Exifdatum* datum = findExif(exif, key)) {
      m.lensId = trimmed(datum->toString());
      break;
    }
  }
  m.minFocalLen = exifNumber(exif, kLensRangeKey, 0);
  m.maxFocalLen = exifNumber(exif, kLensRangeKey, 1);
  if (m.minFocalLen == 0.0f && m.maxFocalLen == 0.0f) {
    // Canon keeps the zoom range as (long end, short end, units per millimetre).
    const float units = exifNumber(exif, "Exif.CanonCs.Lens", 2);
    if (units > 0.0f) {
      m.maxFocalLen = exifNumber(exif, "Exif.CanonCs.Lens", 0) / units;
      m.minFocalLen = exifNumber(exif, "Exif.CanonCs.Lens", 1) / units;
    }
  }
}

}  // namespace

std::string exifText(const Exiv2::ExifData& exif, const char* key) {
  const Exiv2::Exifdatum* datum = findExif(exif, key);
  return datum ? trimmed(datum->toString()) : std::string();
}

int exifOrientation(const Exiv2::ExifData& exif) {
  const Exiv2::Exifdatum* datum = findExif(exif, "Exif.Image.Orientation");
  return datum ? normalizedOrientation(static_cast<int>(datum->toLong(0))) : 1;
}

bool findTemperatureAndTint(const Exiv2::ExifData& exif, const Exiv2::XmpData& xmp,
                            float& temperature, float& tint) {
  bool hasTemperature = false, hasTint = false;
  const float xmpTemperature = xmpNumber(xmp, "Xmp.crs.Temperature", hasTemperature);
  const float xmpTint = xmpNumber(xmp, "Xmp.crs.Tint", hasTint);
  if (hasTemperature) {
    temperature = xmpTemperature;
    tint = hasTint ? xmpTint : 0.0f;
    return true;
  }
  // Maker notes name the as-shot colour temperature differently; any of them will do.
  for (const Exiv2::Exifdatum& datum : exif) {
    const std::string tag = datum.tagName();
    if (tag != "ColorTemperature" && tag != "WhiteBalanceTemperature" && tag != "ColorTempKelvin")
      continue;
    if (datum.count() < 1) continue;
    const float kelvin = datum.toFloat(0);
    if (std::isfinite(kelvin) && kelvin >= 1500.0f && kelvin <= 50000.0f) {
      temperature = kelvin;
      tint = 0.0f;
      return true;
    }
  }
  return false;
}

void fillImageMetadata(const Exiv2::ExifData& exif, const Exiv2::XmpData& xmp, ImageMetadata& m) {
  m.cameraName = exifText(exif, "Exif.Image.Make");
  m.cameraModel = exifText(exif, "Exif.Image.Model");
  m.fNumber = firstNumber(exif, {"Exif.Photo.FNumber", "Exif.Image.FNumber"});
  m.aperture = firstNumber(exif, {"Exif.Photo.ApertureValue", "Exif.Image.ApertureValue"});
  if (m.aperture == 0.0f && m.fNumber > 0.0f) m.aperture = 2.0f * std::log2(m.fNumber);
  m.shutterSpeed = firstNumber(exif, {"Exif.Photo.ExposureTime", "Exif.Image.ExposureTime"});
  if (m.shutterSpeed == 0.0f) {
    const Exiv2::Exifdatum* apex = findExif(exif, "Exif.Photo.ShutterSpeedValue");
    if (apex && std::isfinite(apex->toFloat(0))) m.shutterSpeed = std::exp2(-apex->toFloat(0));
  }
  m.isoSpeed = exifNumber(exif, "Exif.Photo.ISOSpeedRatings");
  if (m.isoSpeed == 0.0f) {
    const auto iso = Exiv2::isoSpeed(exif);
    if (iso != exif.end() && iso->count() > 0 && std::isfinite(iso->toFloat(0)))
      m.isoSpeed = iso->toFloat(0);
  }
  m.focalLen = firstNumber(exif, {"Exif.Photo.FocalLength", "Exif.Image.FocalLength"});
  m.focalLen35mm = exifNumber(exif, "Exif.Photo.FocalLengthIn35mmFilm");
  fillLens(exif, m);
  m.exposureBias =
      firstNumber(exif, {"Exif.Photo.ExposureBiasValue", "Exif.Image.ExposureBiasValue"});
  m.focalPlaneXResolution = exifNumber(exif, "Exif.Photo.FocalPlaneXResolution");
  m.focalPlaneYResolution = exifNumber(exif, "Exif.Photo.FocalPlaneYResolution");
  float temperature = 0.0f, tint = 0.0f;
  if (findTemperatureAndTint(exif, xmp, temperature, tint)) {
    m.WBTemperature = temperature;
    m.WBTint = tint;
  }
  m.mutableParameters.temperature = m.WBTemperature;
  m.mutableParameters.tint = m.WBTint;
  m.mutableParameters.orientation = exifOrientation(exif);
}

std::unique_ptr<Exiv2::Image> openExiv2Memory(const std::uint8_t* data, std::size_t size) {
  if (size > static_cast<std::size_t>(LONG_MAX))
    throw std::length_error("file too large for Exiv2");
  auto image = Exiv2::ImageFactory::open(data, static_cast<long>(size));
  image->readMetadata();
  return std::unique_ptr<Exiv2::Image>(image.release());
}

namespace {

// Runs `use` on the data's Exiv2 image; false with Exiv2's reason when it cannot be read.
template <typename Use>
bool withExiv2Memory(const std::uint8_t* data, std::size_t size, const std::string& name,
                     std::string& error, Use&& use) {
  if (data == nullptr || size == 0) {
    error = "no data";
    return false;
  }
  ensureExiv2Environment();
  Exiv2FileScope scope(name);
  try {
    use(*openExiv2Memory(data, size));
    return true;
  } catch (const std::exception& exception) {
    error = exception.what();
    return false;
  }
}

}  // namespace

std::shared_ptr<ImageMetadata> readMetadataFromBytes(const std::uint8_t* data, std::size_t size,
                                                     const std::string& name) {
  auto metadata = std::make_shared<ImageMetadata>();
  std::string error;
  if (withExiv2Memory(data, size, name, error, [&](Exiv2::Image& image) {
        fillImageMetadata(image.exifData(), image.xmpData(), *metadata);
      }))
    return metadata;
  LogWarning("%s: metadata dropped: %s", name.c_str(), error.c_str());
  return nullptr;
}

std::shared_ptr<ImageMetadata> metadataFromBytes(const std::uint8_t* data, std::size_t size,
                                                 const std::string& name) {
  if (data == nullptr || size == 0) return std::make_shared<ImageMetadata>();
  auto metadata = readMetadataFromBytes(data, size, name);
  return metadata ? metadata : std::make_shared<ImageMetadata>();
}

std::string cameraModelFromBytes(const std::uint8_t* data, std::size_t size,
                                 const std::string& name) {
  std::string model, error;
  withExiv2Memory(data, size, name, error, [&](Exiv2::Image& image) {
    model = exifText(image.exifData(), "Exif.Image.Model");
  });
  return model;
}

}  // namespace vorn::detail
