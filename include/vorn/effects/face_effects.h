#pragma once

#include <string_view>

#include "vorn/effects/declared_effect.h"

// Face effects: parameters are final, processing arrives later (pixels pass through).
namespace vorn {

using detail::DeclaredParameter;
using detail::PassThroughFaceEffect;

class FaceEffect final : public PassThroughFaceEffect<FaceEffect> {
 public:
  static constexpr std::string_view kId = "VORNFaceEffect";
  // "Face Index" picks one detected face (-1: all); the face picker sets it, so it is hidden.
  static constexpr DeclaredParameter kParameters[] = {{"Face Light", 0, 100, 0},
                                                      {"Skin Smoothing", 0, 100, 0},
                                                      {"Eye Enhancement", 0, 100, 0},
                                                      {"Face Index", -1, 100, -1, true}};
};

class FaceSkinSoftenerEffect final : public PassThroughFaceEffect<FaceSkinSoftenerEffect> {
 public:
  static constexpr std::string_view kId = "VORNFaceSkinSoftenerEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};
};

}  // namespace vorn
