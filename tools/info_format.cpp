#include "info_format.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

namespace vorn::cli {
namespace {

// Up to `decimals` places, trailing zeros dropped: 5.6, 8, 0.3.
std::string number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  std::string result = text;
  if (result.find('.') != std::string::npos) {
    while (result.back() == '0') result.pop_back();
    if (result.back() == '.') result.pop_back();
  }
  return result;
}

// Camera settings are stored as single-precision rationals; six significant digits keep what
// the camera wrote without float noise such as 0.004000000189989805.
double tidy(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return std::strtod(text, nullptr);
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// "Canon" + "Canon EOS 70D" reads "Canon EOS 70D": many models already start with the maker's
// first word ("NIKON CORPORATION" + "NIKON D850").
std::string cameraName(const PhotoInfo& info) {
  const std::string& make = info.cameraMake;
  const std::string& model = info.cameraModel;
  if (make.empty() || model.empty()) return make + model;
  const std::string firstWord = make.substr(0, make.find(' '));
  if (lower(model).rfind(lower(firstWord), 0) == 0) return model;
  return make + ' ' + model;
}

std::string exposureTime(double seconds) {
  if (seconds < 1.0) {
    const double denominator = std::round(1.0 / seconds);
    if (denominator >= 1.0 && std::abs(1.0 / denominator - seconds) <= 0.01 * seconds)
      return "1/" + number(denominator, 0) + " s";
  }
  return number(seconds, seconds < 1.0 ? 3 : 1) + " s";
}

std::string exposureLine(const PhotoInfo& info) {
  std::string line;
  const auto add = [&line](const std::string& part) { line += (line.empty() ? "" : ", ") + part; };
  if (info.exposureTime) add(exposureTime(*info.exposureTime));
  if (info.fNumber) add("f/" + number(*info.fNumber, 1));
  if (info.iso) add("ISO " + number(*info.iso, 0));
  if (info.focalLength) {
    std::string focal = number(*info.focalLength, 1) + " mm";
    if (info.focalLength35mm && std::abs(*info.focalLength35mm - *info.focalLength) >= 0.5)
      focal += " (" + number(*info.focalLength35mm, 0) + " mm full-frame equivalent)";
    add(focal);
  }
  return line;
}

std::string gpsLine(const PhotoInfo& info) {
  std::string line = number(std::abs(*info.latitude), 6) + "° " + (*info.latitude < 0 ? "S" : "N") +
                     ", " + number(std::abs(*info.longitude), 6) + "° " +
                     (*info.longitude < 0 ? "W" : "E");
  if (info.altitude) line += ", " + number(*info.altitude, 0) + " m";
  return line;
}

}  // namespace

std::string formatInfoText(const PhotoInfo& info) {
  std::ostringstream out;
  const auto line = [&out](const char* label, const std::string& value) {
    if (!value.empty()) out << label << ": " << value << '\n';
  };
  line("File", info.path);
  line("Type", info.fileType);
  line("Camera", cameraName(info));
  line("Lens", info.lens);
  line("Captured", info.captured);
  if (info.width && info.height)
    line("Size", std::to_string(*info.width) + " x " + std::to_string(*info.height) + " pixels");
  line("Exposure", exposureLine(info));
  if (info.bitsPerChannel)
    line("Colour",
         std::to_string(*info.bitsPerChannel) + " bits per channel" + (info.raw ? ", raw" : ""));
  if (info.orientation) line("Orientation", describeOrientation(*info.orientation));
  if (info.latitude && info.longitude) line("GPS", gpsLine(info));
  if (!info.pixelsSupported) line("Pixels", info.pixelsError);
  return out.str();
}

std::string formatInfoJson(const PhotoInfo& info) {
  nlohmann::ordered_json json;
  const auto text = [&json](const char* key, const std::string& value) {
    if (!value.empty()) json[key] = value;
  };
  const auto real = [&json](const char* key, const std::optional<double>& value) {
    if (!value) return;
    // ISO 200 and 35 mm read as 200 and 35, not 200.0 and 35.0.
    const double tidied = tidy(*value);
    if (std::abs(tidied) < 1e15 && tidied == std::round(tidied))
      json[key] = static_cast<long long>(tidied);
    else
      json[key] = tidied;
  };
  const auto whole = [&json](const char* key, const std::optional<int>& value) {
    if (value) json[key] = *value;
  };
  text("file", info.path);
  text("file_type", info.fileType);
  text("camera_make", info.cameraMake);
  text("camera_model", info.cameraModel);
  text("lens", info.lens);
  // ISO 8601 without a zone: EXIF records the camera's local time and rarely its offset.
  if (info.captured.size() == 19)
    json["captured"] = info.captured.substr(0, 10) + 'T' + info.captured.substr(11);
  whole("width", info.width);
  whole("height", info.height);
  real("exposure_time_s", info.exposureTime);
  real("f_number", info.fNumber);
  real("iso", info.iso);
  real("focal_length_mm", info.focalLength);
  real("focal_length_35mm", info.focalLength35mm);
  whole("bits_per_channel", info.bitsPerChannel);
  if (info.pixelsSupported) json["raw"] = info.raw;  // unknown when the decoder cannot say
  whole("orientation", info.orientation);
  if (info.latitude && info.longitude) {
    json["gps_latitude"] = *info.latitude;
    json["gps_longitude"] = *info.longitude;
    real("gps_altitude_m", info.altitude);
  }
  json["pixels_supported"] = info.pixelsSupported;
  text("pixels_error", info.pixelsSupported ? std::string() : info.pixelsError);
  // EXIF text is often not UTF-8 (Latin-1 maker notes); such bytes become U+FFFD, not an error.
  return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

}  // namespace vorn::cli
