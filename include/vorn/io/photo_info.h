#pragma once

#include <optional>
#include <string>

namespace vorn {

/// What a photo's file says about itself, for a person or a script; every field a file does not
/// carry (or carries as a placeholder such as a zero ISO) stays empty.
struct PhotoInfo {
  std::string path;
  std::string fileType;  ///< "JPEG", "TIFF", "DNG raw", "CR3 raw" and so on

  std::string cameraMake;  ///< EXIF, else the raw decoder's
  std::string cameraModel;
  std::string lens;
  std::string captured;  ///< "YYYY-MM-DD HH:MM:SS", the camera's local time

  std::optional<int> width;  ///< upright pixels
  std::optional<int> height;
  std::optional<double> exposureTime;  ///< seconds
  std::optional<double> fNumber;
  std::optional<double> iso;
  std::optional<double> focalLength;  ///< millimetres
  std::optional<double> focalLength35mm;

  std::optional<int> bitsPerChannel;  ///< of the file's data (12 for 12-bit raw samples)
  bool raw = false;
  std::optional<int> orientation;  ///< EXIF 1..8, only when the file records one

  std::optional<double> latitude;   ///< degrees, north positive
  std::optional<double> longitude;  ///< degrees, east positive
  std::optional<double> altitude;   ///< metres above sea level

  bool pixelsSupported = false;  ///< the decoder can read the pixels
  /// When it cannot, a phrase that follows "the pixels": "not supported by this build's decoder
  /// (...)" for a format it lacks, "cannot be decoded (...)" for a damaged file.
  std::string pixelsError;
};

/// Reads the file's metadata (Exiv2) and asks the decoder about its pixels. Returns false with
/// `error` set when the file is missing, not an image, or neither reader can make sense of it;
/// a file whose metadata reads but whose pixels do not decode is a success.
bool describePhoto(const std::string& path, PhotoInfo& info, std::string& error);

/// How a photo stored with EXIF orientation 1..8 is turned, e.g. "rotated 90° clockwise".
std::string describeOrientation(int orientation);

}  // namespace vorn
