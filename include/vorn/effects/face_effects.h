#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "vorn/effects/declared_effect.h"

// Face effects: retouching inside the faces found in the picture (or given by the host).
namespace vorn {

using detail::DeclaredEffect;
using detail::DeclaredParameter;

namespace detail {

/// Base of the face effects: a neighbourhood effect confined to faces, which a render finds on
/// the whole picture (the call's reference when given) unless the host has set them.
class FaceRetouchEffect : public StencilEffect {
 public:
  /// What the retouch does inside each face, strengths in [0, 1].
  struct Retouch {
    float smoothing = 0.0f;
    float light = 0.0f;
    float eyes = 0.0f;
    /// The face to work on in left-to-right order; -1 for all.
    int faceIndex = -1;
  };

  bool needFaces() override { return true; }
  /// A face the host already knows, in pixels of the whole image at the render scale (the frame
  /// of EffectContext::imageSize and origin); eyes holds none or two boxes, left first.
  struct KnownFace {
    _Rect<int> box;
    std::vector<_Rect<int>> eyes;
  };
  /// Uses these faces instead of finding them; an empty list means the picture has none.
  void setKnownFaces(std::vector<KnownFace> faces) {
    knownFaces_ = std::move(faces);
    hasKnownFaces_ = true;
  }
  /// Back to finding the faces in each render's picture.
  void forgetKnownFaces() {
    knownFaces_.clear();
    hasKnownFaces_ = false;
  }

 protected:
  int reach(float spatialScale) const override;
  void render(const Window& window) const override;

  virtual Retouch retouch() const = 0;

 private:
  std::vector<KnownFace> knownFaces_;
  bool hasKnownFaces_ = false;
};

}  // namespace detail

class FaceEffect final : public DeclaredEffect<FaceEffect, detail::FaceRetouchEffect> {
 public:
  static constexpr std::string_view kId = "VORNFaceEffect";
  // "Face Index" picks one detected face (-1: all); the face picker sets it, so it is hidden.
  static constexpr DeclaredParameter kParameters[] = {{"Face Light", 0, 100, 0},
                                                      {"Skin Smoothing", 0, 100, 0},
                                                      {"Eye Enhancement", 0, 100, 0},
                                                      {"Face Index", -1, 100, -1, true}};

 protected:
  bool isIdentity() const override;
  Retouch retouch() const override;
};

class FaceSkinSoftenerEffect final
    : public DeclaredEffect<FaceSkinSoftenerEffect, detail::FaceRetouchEffect> {
 public:
  static constexpr std::string_view kId = "VORNFaceSkinSoftenerEffect";
  static constexpr DeclaredParameter kParameters[] = {{"Amount", 0, 100, 0}};

 protected:
  bool isIdentity() const override;
  Retouch retouch() const override;
};

}  // namespace vorn
