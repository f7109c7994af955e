#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vorn/effects/effect.h"

namespace vorn {

/// The registry that turns an effect identifier into a new effect; built once, then read-only.
class EffectFactory {
 public:
  using Creator = std::shared_ptr<Effect> (*)();

  /// The process-wide registry, built on first use.
  static const EffectFactory& instance();
  /// Builds the registry and the tables effect families share, so that no render pays for
  /// them; vornInit calls it, and calling it again does nothing.
  static void initializeEffects();

  EffectFactory(const EffectFactory&) = default;
  EffectFactory(EffectFactory&&) = default;
  EffectFactory& operator=(const EffectFactory&) = default;
  EffectFactory& operator=(EffectFactory&&) = default;

  /// Every registered identifier, sorted byte-wise.
  const std::vector<std::string> supportedEffects() const { return identifiers_; }
  /// A new effect at its defaults; empty (and a line on standard error) for an unknown id.
  std::shared_ptr<Effect> makeEffectWithID(
      const std::string& id, std::shared_ptr<const EffectParametersContext> context = {}) const;

 private:
  EffectFactory();

  std::map<std::string, Creator> creators_;
  std::vector<std::string> identifiers_;
};

}  // namespace vorn
