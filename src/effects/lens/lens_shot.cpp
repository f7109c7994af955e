// The camera-and-lens record a lens correction carries in its parameters, and how a photo's
// metadata fills it.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <sstream>

#include "vorn/effects/lens_effects.h"
#include "vorn/io/image_metadata.h"

namespace vorn {
namespace {

constexpr char kSeparator = ';';
// The most a real shot has: millimetres, f-number, metres and crop factor.
constexpr float kLargestFocal = 5000.0f;
constexpr float kLargestAperture = 256.0f;
constexpr float kLargestDistance = 1e6f;
constexpr float kLargestCrop = 100.0f;

/// Names keep no separator, so that every field reads back as written.
std::string cleaned(const std::string& text) {
  std::string out = text;
  for (char& c : out)
    if (c == kSeparator || c == '\n' || c == '\r' || c == '=') c = ' ';
  return out;
}

/// A number in [0, largest]; the bounds keep the lens models inside what a lens can be.
bool parseNumber(const std::string& text, float largest, float& value) {
  const char* end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, value);
  return status == std::errc() && stop == end && value >= 0.0f && value <= largest;
}

}  // namespace

LensShot LensShot::fromMetadata(const ImageMetadata& metadata) {
  LensShot shot;
  shot.cameraMaker = metadata.cameraName;
  shot.cameraModel = metadata.cameraModel;
  shot.lensMaker = metadata.lensMaker;
  shot.lensModel = metadata.lensModel;
  // Values a real shot cannot have are unknown (the text form would refuse them).
  const auto known = [](float v, float largest) {
    return std::isfinite(v) && v > 0.0f && v <= largest ? v : 0.0f;
  };
  shot.focalLength = known(metadata.focalLen, kLargestFocal);
  shot.aperture = known(metadata.fNumber, kLargestAperture);
  // The 35 mm equivalent focal length gives the crop factor when the camera's entry is missing.
  if (shot.focalLength > 0.0f)
    shot.cropFactor = known(metadata.focalLen35mm / shot.focalLength, kLargestCrop);
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
    const struct {
      const char* key;
      float* value;
      float largest;
    } numbers[] = {{"focal length", &shot.focalLength, kLargestFocal},
                   {"aperture", &shot.aperture, kLargestAperture},
                   {"distance", &shot.distance, kLargestDistance},
                   {"crop factor", &shot.cropFactor, kLargestCrop}};
    const auto number = std::find_if(std::begin(numbers), std::end(numbers),
                                     [&](const auto& n) { return key == n.key; });
    if (number != std::end(numbers)) {
      if (!parseNumber(value, number->largest, *number->value)) return std::nullopt;
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
