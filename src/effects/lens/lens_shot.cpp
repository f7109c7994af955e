// The camera-and-lens record a lens correction carries in its parameters, and how a photo's
// metadata fills it.
#include <charconv>
#include <cmath>
#include <sstream>

#include "vorn/effects/lens_effects.h"
#include "vorn/io/image_metadata.h"

namespace vorn {
namespace {

constexpr char kSeparator = ';';

/// Names keep no separator, so that every field reads back as written.
std::string cleaned(const std::string& text) {
  std::string out = text;
  for (char& c : out)
    if (c == kSeparator || c == '\n' || c == '\r' || c == '=') c = ' ';
  return out;
}

bool parseNumber(const std::string& text, float& value) {
  const char* end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, value);
  return status == std::errc() && stop == end && std::isfinite(value) && value >= 0.0f;
}

}  // namespace

LensShot LensShot::fromMetadata(const ImageMetadata& metadata) {
  LensShot shot;
  shot.cameraMaker = metadata.cameraName;
  shot.cameraModel = metadata.cameraModel;
  shot.lensMaker = metadata.lensMaker;
  shot.lensModel = metadata.lensModel;
  const auto known = [](float v) { return std::isfinite(v) && v > 0.0f ? v : 0.0f; };
  shot.focalLength = known(metadata.focalLen);
  shot.aperture = known(metadata.fNumber);
  // The 35 mm equivalent focal length gives the crop factor when the camera's entry is missing.
  if (shot.focalLength > 0.0f && known(metadata.focalLen35mm) > 0.0f)
    shot.cropFactor = metadata.focalLen35mm / shot.focalLength;
  return shot;
}

std::string LensShot::toText() const {
  std::ostringstream out;
  out << "camera maker=" << cleaned(cameraMaker) << kSeparator
      << "camera model=" << cleaned(cameraModel) << kSeparator
      << "lens maker=" << cleaned(lensMaker) << kSeparator << "lens model=" << cleaned(lensModel)
      << kSeparator << "focal length=" << focalLength << kSeparator << "aperture=" << aperture
      << kSeparator << "distance=" << distance << kSeparator << "crop factor=" << cropFactor;
  return out.str();
}

std::optional<LensShot> LensShot::fromText(const std::string& text) {
  LensShot shot;
  std::istringstream fields(text);
  bool any = false;
  for (std::string field; std::getline(fields, field, kSeparator);) {
    const auto equals = field.find('=');
    if (equals == std::string::npos) return std::nullopt;
    const std::string key = field.substr(0, equals);
    const std::string value = field.substr(equals + 1);
    float* number = key == "focal length"  ? &shot.focalLength
                    : key == "aperture"    ? &shot.aperture
                    : key == "distance"    ? &shot.distance
                    : key == "crop factor" ? &shot.cropFactor
                                           : nullptr;
    if (number) {
      if (!parseNumber(value, *number)) return std::nullopt;
    } else if (key == "camera maker") {
      shot.cameraMaker = value;
    } else if (key == "camera model") {
      shot.cameraModel = value;
    } else if (key == "lens maker") {
      shot.lensMaker = value;
    } else if (key == "lens model") {
      shot.lensModel = value;
    } else {
      return std::nullopt;
    }
    any = true;
  }
  if (!any) return std::nullopt;
  return shot;
}

}  // namespace vorn
