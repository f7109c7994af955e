#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vorn/effects/effect.h"

namespace vorn {

/// How a chain of effects ended.
enum class EffectChainStatus {
  Done,
  /// An effect failed (its processImageWrapper logged why) or memory ran out.
  Failed,
  /// The call's cancel flag was set; the destination holds no complete result.
  Cancelled,
};

struct EffectChainResult {
  EffectChainStatus status = EffectChainStatus::Done;
  /// The identifier of the effect that failed, when one did.
  std::string failedEffect;
};

/// Runs the effects that need processing, in order, from call.source into call.destination over
/// call.roi (the whole image when all-zero): each effect renders the part of the region that
/// the effects after it read. Point effects run in place; the others alternate between the
/// destination and one pooled scratch buffer, so a chain never holds more than two frames
/// beside its source. An empty destination is made with the source's size and profile; the
/// destination may be the source itself. Every effect sees the call's reference (global
/// measures of a region render come from it), image and cancel flag.
EffectChainResult runEffectChain(const std::vector<std::shared_ptr<Effect>>& effects,
                                 EffectCallContext& call);

}  // namespace vorn
