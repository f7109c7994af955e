#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vorn/effects/effect.h"
#include "vorn/effects/point_effect.h"
#include "vorn/effects/stencil_effect.h"

namespace vorn::detail {

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
/// (kParameters) and Base is the family base that owns its render loop; construction follows
/// the fixed order base, defaults, identifier.
template <class Derived, class Base = Effect>
class DeclaredEffect : public Base {
 public:
  DeclaredEffect() {
    this->setParametersDefault();
    this->setId(std::string(Derived::kId));
  }
  std::vector<Parameter> declaredParameters() const override {
    return makeParameters(Derived::kParameters);
  }
};

/// An effect whose processing arrives later: it keeps its parameters and copies its input.
template <class Derived>
class PassThroughEffect : public DeclaredEffect<Derived, PointEffect> {
 protected:
  typename PointEffect::Kernel prepare(const RenderSetup&) const override { return nullptr; }
};

/// PassThroughEffect for effects that need detected faces.
template <class Derived>
class PassThroughFaceEffect : public PassThroughEffect<Derived> {
 public:
  bool needFaces() override { return true; }
};

}  // namespace vorn::detail
