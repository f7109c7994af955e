#pragma once

#include <memory>
#include <string>

#include "vorn/core/blob.h"

namespace vorn {

/// An ICC profile: its bytes and the name read from its description tag.
class ColorProfile {
 public:
  explicit ColorProfile(const Blob& icc);
  explicit ColorProfile(Blob&& icc);

  const Blob& iccProfile() const { return icc_; }
  /// The profile's description; empty when the bytes are not a readable ICC profile.
  const std::string& name() const { return name_; }
  bool isValid() const { return valid_; }
  /// Profiles are equal when their names are.
  bool operator==(const ColorProfile& other) const { return name_ == other.name_; }
  bool operator!=(const ColorProfile& other) const { return !(*this == other); }

 private:
  void readName();

  Blob icc_;
  std::string name_;
  bool valid_ = false;
};

/// Shared standard profiles, each built once on first use.
class ColorProfileType {
 public:
  static std::shared_ptr<ColorProfile> sRGB();
  static std::shared_ptr<ColorProfile> sRGBLinear();
  /// ProPhoto primaries with the sRGB tone curve: the wide working space of raw files.
  static std::shared_ptr<ColorProfile> melissaRGB();
  static std::shared_ptr<ColorProfile> proPhotoRGB();
  static std::shared_ptr<ColorProfile> adobeRGB();
  static std::shared_ptr<ColorProfile> D65_XYZ();
  static std::shared_ptr<ColorProfile> DCI_P3();
  /// The empty pointer: no profile.
  static std::shared_ptr<ColorProfile> None() { return {}; }
};

}  // namespace vorn
