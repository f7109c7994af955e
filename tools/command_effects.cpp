#include <algorithm>
#include <memory>
#include <ostream>

#include "cli.h"
#include "vorn/effects/effect_factory.h"

namespace vorn::cli {

int runEffects(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  const EffectFactory& factory = EffectFactory::instance();
  const std::vector<std::string> all = factory.supportedEffects();
  const std::vector<std::string>& shown = args.empty() ? all : args;
  for (const std::string& id : shown) {
    if (!std::binary_search(all.begin(), all.end(), id)) {
      err << "vorn effects: unknown effect \"" << id << "\"\n";
      return kExitUsage;
    }
  }
  for (const std::string& id : shown) {
    out << id << '\n';
    const std::shared_ptr<Effect> effect = factory.makeEffectWithID(id);
    for (const Parameter& parameter : effect->parameters()) {
      out << "  " << parameter.name() << " = " << parameter.defaultValue() << "  ["
          << parameter.minValue() << ", " << parameter.maxValue() << "]"
          << (parameter.isHidden() ? "  (hidden)" : "") << '\n';
    }
  }
  return kExitOk;
}

}  // namespace vorn::cli
