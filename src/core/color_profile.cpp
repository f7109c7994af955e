#include "vorn/core/color_profile.h"

#include <lcms2.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "core/color_engine.h"
#include "core/log_failure.h"

namespace vorn {

ColorProfile::ColorProfile(const Blob& icc) : icc_(icc) {
  readName();
}

ColorProfile::ColorProfile(Blob&& icc) : icc_(std::move(icc)) {
  readName();
}

void ColorProfile::readName() {
  name_.clear();
  const detail::ProfileHandle profile = detail::openProfile(icc_);
  valid_ = profile != nullptr;
  if (!valid_) return;
  const cmsUInt32Number bytes =
      cmsGetProfileInfoASCII(profile.get(), cmsInfoDescription, "en", "US", nullptr, 0);
  if (bytes == 0) return;  // readable but without a description: valid, unnamed
  std::string text(bytes, '\0');
  cmsGetProfileInfoASCII(profile.get(), cmsInfoDescription, "en", "US", text.data(), bytes);
  text.resize(std::strlen(text.c_str()));
  name_ = std::move(text);
}

namespace {

struct CurveDeleter {
  void operator()(cmsToneCurve* curve) const { cmsFreeToneCurve(curve); }
};
using CurveHandle = std::unique_ptr<cmsToneCurve, CurveDeleter>;

constexpr cmsCIExyY kD65{0.3127, 0.3290, 1.0};
constexpr cmsCIExyY kDciWhite{0.314, 0.351, 1.0};
constexpr cmsCIExyYTRIPLE kSrgbPrimaries{{0.64, 0.33, 1.0}, {0.30, 0.60, 1.0}, {0.15, 0.06, 1.0}};
constexpr cmsCIExyYTRIPLE kRommPrimaries{
    {0.7347, 0.2653, 1.0}, {0.1596, 0.8404, 1.0}, {0.0366, 0.0001, 1.0}};
constexpr cmsCIExyYTRIPLE kAdobePrimaries{{0.64, 0.33, 1.0}, {0.21, 0.71, 1.0}, {0.15, 0.06, 1.0}};
constexpr cmsCIExyYTRIPLE kDciPrimaries{
    {0.680, 0.320, 1.0}, {0.265, 0.690, 1.0}, {0.150, 0.060, 1.0}};

CurveHandle srgbCurve() {
  const cmsFloat64Number params[5] = {2.4, 1.0 / 1.055, 0.055 / 1.055, 1.0 / 12.92, 0.04045};
  return CurveHandle(cmsBuildParametricToneCurve(detail::colorEngineContext(), 4, params));
}

CurveHandle gammaCurve(double gamma) {
  return CurveHandle(cmsBuildGamma(detail::colorEngineContext(), gamma));
}

// A standard profile that cannot be built is a broken lcms install; the invalid, unnamed
// profile returned then makes every transform that uses it fail with a log line.
std::shared_ptr<ColorProfile> invalidProfile(const char* name) {
  VORN_LOG_FAILURE((std::string("Could not build the standard profile ") + name).c_str());
  return std::make_shared<ColorProfile>(Blob());
}

/// Names the profile, serialises it and closes the handle.
std::shared_ptr<ColorProfile> finishProfile(cmsHPROFILE raw, const char* name) {
  const detail::ProfileHandle profile(raw);
  if (!profile) return invalidProfile(name);
  cmsMLU* description = cmsMLUalloc(detail::colorEngineContext(), 1);
  const bool named = description && cmsMLUsetASCII(description, "en", "US", name) &&
                     cmsWriteTag(profile.get(), cmsSigProfileDescriptionTag, description);
  if (description) cmsMLUfree(description);
  cmsUInt32Number bytes = 0;
  if (!named || !cmsSaveProfileToMem(profile.get(), nullptr, &bytes) || bytes == 0)
    return invalidProfile(name);
  auto icc = std::make_unique<std::uint8_t[]>(bytes);
  if (!cmsSaveProfileToMem(profile.get(), icc.get(), &bytes)) return invalidProfile(name);
  return std::make_shared<ColorProfile>(Blob(std::move(icc), bytes));
}

std::shared_ptr<ColorProfile> rgbProfile(const char* name, const cmsCIExyY& white,
                                         const cmsCIExyYTRIPLE& primaries, CurveHandle curve) {
  if (!curve) return invalidProfile(name);
  cmsToneCurve* curves[3] = {curve.get(), curve.get(), curve.get()};
  // cmsCreateRGBProfile writes a version 4 profile, so parametric curves are stored as such and
  // float transforms stay exact and unbounded.
  return finishProfile(
      cmsCreateRGBProfileTHR(detail::colorEngineContext(), &white, &primaries, curves), name);
}

// cmsCreateRGBProfile cannot take the Z axis as a primary (its y is 0), so the colorants are
// written directly: the columns of the Bradford D65 -> D50 matrix, linear curves.
std::shared_ptr<ColorProfile> d65XyzProfile(const char* name) {
  const cmsContext context = detail::colorEngineContext();
  detail::ProfileHandle profile(cmsCreateProfilePlaceholder(context));
  const CurveHandle linear = gammaCurve(1.0);
  if (!profile || !linear) return invalidProfile(name);
  cmsHPROFILE h = profile.get();
  cmsSetProfileVersion(h, 4.3);
  cmsSetDeviceClass(h, cmsSigDisplayClass);
  cmsSetColorSpace(h, cmsSigRgbData);
  cmsSetPCS(h, cmsSigXYZData);
  cmsSetHeaderRenderingIntent(h, INTENT_PERCEPTUAL);

  cmsCIEXYZ d65;
  cmsxyY2XYZ(&d65, &kD65);
  cmsCIEXYZ columns[3];
  cmsFloat64Number chad[9];
  for (int c = 0; c < 3; ++c) {
    const cmsCIEXYZ axis{c == 0 ? 1.0 : 0.0, c == 1 ? 1.0 : 0.0, c == 2 ? 1.0 : 0.0};
    if (!cmsAdaptToIlluminant(&columns[c], &d65, cmsD50_XYZ(), &axis)) return invalidProfile(name);
    chad[0 + c] = columns[c].X;
    chad[3 + c] = columns[c].Y;
    chad[6 + c] = columns[c].Z;
  }
  const bool written = cmsWriteTag(h, cmsSigMediaWhitePointTag, cmsD50_XYZ()) &&
                       cmsWriteTag(h, cmsSigChromaticAdaptationTag, chad) &&
                       cmsWriteTag(h, cmsSigRedColorantTag, &columns[0]) &&
                       cmsWriteTag(h, cmsSigGreenColorantTag, &columns[1]) &&
                       cmsWriteTag(h, cmsSigBlueColorantTag, &columns[2]) &&
                       cmsWriteTag(h, cmsSigRedTRCTag, linear.get()) &&
                       cmsWriteTag(h, cmsSigGreenTRCTag, linear.get()) &&
                       cmsWriteTag(h, cmsSigBlueTRCTag, linear.get());
  if (!written) return invalidProfile(name);
  return finishProfile(profile.release(), name);
}

}  // namespace

std::shared_ptr<ColorProfile> ColorProfileType::sRGB() {
  static const auto profile =
      rgbProfile("sRGB IEC61966-2.1 (vorn)", kD65, kSrgbPrimaries, srgbCurve());
  return profile;
}

std::shared_ptr<ColorProfile> ColorProfileType::sRGBLinear() {
  static const auto profile =
      rgbProfile("sRGB linear (vorn)", kD65, kSrgbPrimaries, gammaCurve(1.0));
  return profile;
}

std::shared_ptr<ColorProfile> ColorProfileType::melissaRGB() {
  static const auto profile =
      rgbProfile("melissa RGB (vorn)", *cmsD50_xyY(), kRommPrimaries, srgbCurve());
  return profile;
}

std::shared_ptr<ColorProfile> ColorProfileType::proPhotoRGB() {
  static const auto profile =
      rgbProfile("ProPhoto RGB (vorn)", *cmsD50_xyY(), kRommPrimaries, gammaCurve(1.8));
  return profile;
}

std::shared_ptr<ColorProfile> ColorProfileType::adobeRGB() {
  static const auto profile = rgbProfile("Adobe RGB (1998) compatible (vorn)", kD65,
                                         kAdobePrimaries, gammaCurve(563.0 / 256.0));
  return profile;
}

std::shared_ptr<ColorProfile> ColorProfileType::D65_XYZ() {
  static const auto profile = d65XyzProfile("D65 XYZ (vorn)");
  return profile;
}

std::shared_ptr<ColorProfile> ColorProfileType::DCI_P3() {
  static const auto profile =
      rgbProfile("DCI-P3 (vorn)", kDciWhite, kDciPrimaries, gammaCurve(2.6));
  return profile;
}

}  // namespace vorn
