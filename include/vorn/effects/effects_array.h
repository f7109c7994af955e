#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "vorn/effects/effect.h"

namespace vorn {

/// A chain of inner effects presented as one effect. Its parameters are either the inner
/// effects' lists one after another, or a list of its own routed onto inner parameters.
class EffectsArrayBase : public Effect {
 public:
  /// Sends group parameter `parameter` to parameter `innerParameter` of inner effect `inner`,
  /// multiplied by `scale`.
  struct Route {
    std::size_t parameter;
    std::size_t inner;
    std::size_t innerParameter;
    float scale;
  };

  bool processImage(EffectCallContext& call) override;
  std::vector<Parameter> declaredParameters() const override;
  void clearCache() override;
  _Rect<int> getInRectForOutRect(_Rect<int> outRect) override;
  _Rect<int> getOutRectForInRect(_Rect<int> inRect) override;
  void setContext(std::shared_ptr<EffectContext> context) override;
  bool needFaces() override;

  /// Identifiers of the inner effects in the order they run.
  std::vector<std::string> innerEffectIds() const;
  /// The inner effects configured from the current parameters, in running order.
  std::vector<std::shared_ptr<Effect>> configuredInnerEffects() const;

 protected:
  EffectsArrayBase(const std::string& id, const std::vector<std::string>& innerIds,
                   std::vector<Parameter> ownParameters = {}, std::vector<Route> routes = {});

 private:
  std::vector<std::shared_ptr<Effect>> inner_;
  std::vector<Parameter> ownParameters_;
  std::vector<Route> routes_;
};

/// A group of exactly N inner effects.
template <std::size_t N>
class EffectsArray : public EffectsArrayBase {
 public:
  static constexpr std::size_t kSize = N;

 protected:
  EffectsArray(const std::string& id, const std::array<std::string, N>& innerIds,
               std::vector<Parameter> ownParameters = {}, std::vector<Route> routes = {})
      : EffectsArrayBase(id, std::vector<std::string>(innerIds.begin(), innerIds.end()),
                         std::move(ownParameters), std::move(routes)) {}
};

}  // namespace vorn
