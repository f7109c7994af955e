#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vorn/effects/effect.h"

namespace vorn::detail {

/// The pass-through and identity path: the destination becomes a copy of the source (made
/// first with the source's size and profile when empty); false for an empty source.
bool copySourceToDestination(EffectCallContext& call);

/// One declared parameter: the single place its name, bounds, default and visibility live.
struct DeclaredParameter {
  std::string_view name;
  float min;
  float max;
  float defaultValue;
  bool hidden = false;
};

inline std::vector<Parameter> makeParameters(std::span<const DeclaredParameter> declarations) {
  std::vector<Parameter> parameters;
  parameters.reserve(declarations.size());
  for (const DeclaredParameter& declaration : declarations) {
    parameters.emplace_back(std::string(declaration.name), declaration.min, declaration.max,
                            declaration.defaultValue, declaration.hidden);
  }
  return parameters;
}

/// Base of every concrete effect: Derived names its identifier (kId) and its parameter table
/// (kParameters); construction follows the fixed order base, defaults, identifier.
template <class Derived>
class DeclaredEffect : public Effect {
 public:
  DeclaredEffect() {
    setParametersDefault();
    setId(std::string(Derived::kId));
  }
  std::vector<Parameter> declaredParameters() const override {
    return makeParameters(Derived::kParameters);
  }
};

/// An effect whose processing arrives later: it keeps its parameters and copies its input.
template <class Derived>
class PassThroughEffect : public DeclaredEffect<Derived> {
 public:
  bool processImage(EffectCallContext& call) override { return copySourceToDestination(call); }
};

/// PassThroughEffect for effects that need detected faces.
template <class Derived>
class PassThroughFaceEffect : public PassThroughEffect<Derived> {
 public:
  bool needFaces() override { return true; }
};

}  // namespace vorn::detail
