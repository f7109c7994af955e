#pragma once

#include <array>
#include <memory>
#include <string>
#include <utility>

#include "vorn/core/blob.h"

namespace vorn {

/// What a photo's file says about how it was taken: camera, exposure, lens, white balance.
/// Text fields are empty and numbers 0 when the file does not carry them.
struct ImageMetadata {
  /// Settings a host may change after opening (saved with Boost text archives).
  struct MutableParameters {
    float temperature = 0.0f;  ///< Kelvin
    float tint = 0.0f;
    int orientation = 1;  ///< EXIF orientation 1..8 of the file as stored
    bool operator==(const MutableParameters&) const = default;
  };

  std::string cameraName;  ///< maker
  std::string cameraModel;
  float fNumber = 0.0f;
  float aperture = 0.0f;      ///< APEX aperture value
  float shutterSpeed = 0.0f;  ///< exposure time in seconds
  float isoSpeed = 0.0f;
  float focalLen = 0.0f;  ///< millimetres
  float focalLen35mm = 0.0f;
  float minFocalLen = 0.0f;
  float maxFocalLen = 0.0f;
  float WBTint = 0.0f;
  float WBTemperature = 0.0f;  ///< Kelvin, as shot
  std::string lensMaker;
  std::string lensModel;
  std::string lensId;
  float exposureBias = 0.0f;  ///< EV
  float focalPlaneXResolution = 0.0f;
  float focalPlaneYResolution = 0.0f;
  std::pair<int, int> sizeRawMatrix{0, 0};  ///< sensor matrix width and height

  /// A raw file's colour calibration; matrices are row-major and all zero when absent.
  struct CameraColor {
    std::array<float, 9> colorMatrix1{};    ///< XYZ to camera under illuminant 1
    std::array<float, 9> colorMatrix2{};    ///< XYZ to camera under illuminant 2
    std::array<float, 9> forwardMatrix1{};  ///< white-balanced camera to XYZ (D50)
    std::array<float, 9> forwardMatrix2{};
    int illuminant1 = 0;  ///< EXIF light source codes of the calibrations
    int illuminant2 = 0;
    std::array<float, 3> asShotMultipliers{};  ///< camera white balance, green 1
    bool operator==(const CameraColor&) const = default;
  };
  CameraColor cameraColor;

  /// The camera's DCP profile bytes, if any; copies share it until deepCopyDCP.
  std::shared_ptr<Blob> dcpProfile;
  MutableParameters mutableParameters;

  /// One "label: value" line per field, in a fixed order.
  std::string print() const;
  /// Gives this record its own copy of the DCP profile.
  void deepCopyDCP();
};

/// Text-archive form of the mutable parameters; load returns false on bad text.
std::string saveMutableParameters(const ImageMetadata::MutableParameters& parameters);
bool loadMutableParameters(const std::string& text, ImageMetadata::MutableParameters& parameters);

}  // namespace vorn
