// The process-wide lens database: loaded lazily once, searched under a lock, and every shot's
// match kept so that a frame rendered tile by tile looks its lens up (and logs a miss) once.
#include "effects/lens/lens_database.h"

#include <lensfun/lensfun.h>

#include <map>
#include <mutex>
#include <vector>

#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

struct Database {
  lfDatabase database;
  bool loaded = false;
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<const LensProfile>> matches;

  Database() { loaded = database.Load() == LF_NO_ERROR; }
};

Database& database() {
  // Never destroyed: the profiles handed out point into it until the process ends.
  static Database* instance = new Database();
  return *instance;
}

const char* orNull(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}

/// The camera's crop factor decides how the lens's calibration scales onto the frame: the shot's
/// own value, else the camera's entry, else the crop the lens was calibrated at.
float cropFactorOf(const LensShot& shot, const lfCamera* camera, const lfLens& lens) {
  if (shot.cropFactor > 0.0f) return shot.cropFactor;
  if (camera && camera->CropFactor > 0.0f) return camera->CropFactor;
  return lens.CropFactor > 0.0f ? lens.CropFactor : 1.0f;
}

std::shared_ptr<const LensProfile> match(const lfDatabase& db, const LensShot& shot) {
  const lfCamera* camera = nullptr;
  std::unique_ptr<const lfCamera*, decltype(&lf_free)> cameras(nullptr, &lf_free);
  if (!shot.cameraMaker.empty() || !shot.cameraModel.empty()) {
    cameras.reset(db.FindCameras(orNull(shot.cameraMaker), orNull(shot.cameraModel)));
    if (cameras && cameras.get()[0]) camera = cameras.get()[0];
  }
  std::unique_ptr<const lfLens*, decltype(&lf_free)> lenses(
      db.FindLenses(camera, orNull(shot.lensMaker), shot.lensModel.c_str()), &lf_free);
  if (!lenses || !lenses.get()[0]) return nullptr;
  const lfLens& lens = *lenses.get()[0];
  auto profile = std::make_shared<LensProfile>();
  profile->lens = &lens;
  profile->cropFactor = cropFactorOf(shot, camera, lens);
  // Missing settings fall back to the lens's widest end, and focus at infinity (1000 m) as the
  // database advises when the distance is unknown.
  profile->focalLength = shot.focalLength > 0.0f ? shot.focalLength : lens.MinFocal;
  profile->aperture = shot.aperture > 0.0f ? shot.aperture : lens.MinAperture;
  profile->distance = shot.distance > 0.0f ? shot.distance : 1000.0f;
  const char* maker = lf_mlstr_get(lens.Maker);
  const char* model = lf_mlstr_get(lens.Model);
  profile->name = std::string(maker ? maker : "") + " / " + (model ? model : "");
  return profile;
}

}  // namespace

std::shared_ptr<const LensProfile> findLensProfile(const LensShot& shot) {
  // An empty lens name matches an unrelated lens in the database: never search without one.
  if (shot.lensModel.empty()) {
    static std::once_flag logged;
    std::call_once(logged, [] { LogWarning("Lens correction: the photo names no lens"); });
    return nullptr;
  }
  Database& db = database();
  const std::string key = shot.toText();
  std::lock_guard lock(db.mutex);
  const auto known = db.matches.find(key);
  if (known != db.matches.end()) return known->second;
  std::shared_ptr<const LensProfile> profile;
  if (!db.loaded) {
    LogWarning("Lens correction: the lens database could not be loaded");
  } else {
    profile = match(db.database, shot);
    if (!profile)
      LogWarning("Lens correction: no profile for lens \"%s\" on \"%s %s\"", shot.lensModel.c_str(),
                 shot.cameraMaker.c_str(), shot.cameraModel.c_str());
  }
  db.matches.emplace(key, profile);
  return profile;
}

LensModifier::LensModifier(const LensProfile& profile, _Size<int> frame,
                           LensCorrections corrections) {
  // The models are normalised by the frame's size, which a frame of one pixel does not have.
  if (frame.width < 2 || frame.height < 2) return;
  modifier_ =
      std::make_unique<lfModifier>(profile.lens, profile.cropFactor, frame.width, frame.height);
  int wanted = 0;
  if (corrections.distortion) wanted |= LF_MODIFY_DISTORTION;
  if (corrections.chromaticAberration) wanted |= LF_MODIFY_TCA;
  if (corrections.vignetting) wanted |= LF_MODIFY_VIGNETTING;
  const int active =
      modifier_->Initialize(profile.lens, LF_PF_F32, profile.focalLength, profile.aperture,
                            profile.distance, 1.0f, profile.lens->Type, wanted, false);
  geometry_ = (active & (LF_MODIFY_DISTORTION | LF_MODIFY_TCA)) != 0;
  vignetting_ = (active & LF_MODIFY_VIGNETTING) != 0;
}

LensModifier::~LensModifier() = default;

bool LensModifier::sourceAt(int x, int y, float* out) const {
  return geometry_ && modifier_->ApplySubpixelGeometryDistortion(static_cast<float>(x),
                                                                 static_cast<float>(y), 1, 1, out);
}

float LensModifier::shadingGainAt(int x, int y) const {
  // The correction multiplies light, so applied to a one it leaves the gain itself.
  float gain = 1.0f;
  if (vignetting_)
    modifier_->ApplyColorModification(&gain, static_cast<float>(x), static_cast<float>(y), 1, 1,
                                      LF_CR_1(INTENSITY), static_cast<int>(sizeof gain));
  return gain;
}

}  // namespace vorn::detail
