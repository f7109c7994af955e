#pragma once

#include <algorithm>
#include <array>
#include <string_view>

// Effects the render engine treats apart from the plain chain.
namespace vorn {

/// Raw and common development: run as "Develop" steps.
inline bool isDevelopEffect(std::string_view id) {
  constexpr std::array<std::string_view, 3> kDevelop = {
      "VORNDevelopCommonEffectID", "VORNRawDevelopCommonEffectID", "VORNRawDevelopEffect"};
  return std::find(kDevelop.begin(), kDevelop.end(), id) != kDevelop.end();
}

/// Effects that measure the whole picture (faces, global contrast and colour statistics): a
/// region render hands them the whole picture as EffectCallContext::reference so that every
/// region of one document agrees.
inline bool needsWholePictureReference(std::string_view id) {
  constexpr std::array<std::string_view, 6> kWhole = {"VORNFaceEffect",
                                                      "VORNFaceSkinSoftenerEffect",
                                                      "VORNRamixDynamicContrastEffect",
                                                      "VORNRamixAccentAIExpertEffect",
                                                      "VORNRamixSaturationEffect",
                                                      "VORNRamixVibranceEffect"};
  return std::find(kWhole.begin(), kWhole.end(), id) != kWhole.end();
}

}  // namespace vorn
