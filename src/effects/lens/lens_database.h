#pragma once

#include <memory>
#include <string>

#include "vorn/core/geometry.h"
#include "vorn/effects/lens_effects.h"

struct lfLens;
struct lfModifier;

// The lens database, loaded once per process, and the profile of the lens a shot names.
namespace vorn::detail {

/// A lens of the database matched to a shot, with the settings its models are evaluated at.
struct LensProfile {
  const lfLens* lens = nullptr;  ///< owned by the process-wide database
  float cropFactor = 1.0f;
  float focalLength = 0.0f;
  float aperture = 0.0f;
  float distance = 0.0f;
  std::string name;  ///< maker and model, for logs
};

/// The profile of the shot's lens; null when the lens name is empty, the database is missing
/// or nothing matches. Each distinct shot is looked up (and a miss logged) once per process.
std::shared_ptr<const LensProfile> findLensProfile(const LensShot& shot);

/// Which corrections a LensModifier prepares.
struct LensCorrections {
  bool distortion = false;
  bool chromaticAberration = false;
  bool vignetting = false;
};

/// A profile's corrections evaluated for one frame size; the queries are safe from many threads.
class LensModifier {
 public:
  LensModifier(const LensProfile& profile, _Size<int> frame, LensCorrections corrections);
  ~LensModifier();
  LensModifier(const LensModifier&) = delete;
  LensModifier& operator=(const LensModifier&) = delete;

  /// True when the profile has a model for the geometry (distortion or aberration) asked for.
  bool movesPixels() const { return geometry_; }
  /// True when the profile has a vignetting model and it was asked for.
  bool shadesPixels() const { return vignetting_; }
  /// Where pixel (x, y) of the frame is taken from: six floats (red x, y, green x, y, blue
  /// x, y) in frame coordinates; false (out untouched) without geometry.
  bool sourceAt(int x, int y, float* out) const;
  /// The linear-light gain that undoes the lens's shading at pixel (x, y); 1 without a
  /// vignetting model.
  float shadingGainAt(int x, int y) const;

 private:
  std::unique_ptr<lfModifier> modifier_;
  bool geometry_ = false;
  bool vignetting_ = false;
};

}  // namespace vorn::detail
