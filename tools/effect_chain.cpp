#include "effect_chain.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <sstream>
#include <string_view>

#include "vorn/effects/effect_chain.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/effects/point_effect.h"

namespace vorn::cli {
namespace {

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool equalIgnoringCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool parseFloat(const std::string& text, float& value) {
  const char* end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, value);
  return status == std::errc() && stop == end && std::isfinite(value);
}

std::string parameterNames(const Effect& effect) {
  std::string names;
  for (const Parameter& parameter : effect.parameters()) {
    names += (names.empty() ? "\"" : ", \"") + parameter.name() + "\"";
  }
  return names.empty() ? "none" : names;
}

std::string formatted(float value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

}  // namespace

bool parseEffectRequest(const std::string& text, EffectRequest& request, std::string& error) {
  request = {};
  const auto colon = text.find(':');
  request.id = trimmed(text.substr(0, colon));
  if (request.id.empty()) {
    error = "effect \"" + text + "\" has no identifier";
    return false;
  }
  if (colon == std::string::npos) return true;
  std::istringstream assignments(text.substr(colon + 1));
  for (std::string assignment; std::getline(assignments, assignment, ',');) {
    const auto equals = assignment.find('=');
    std::string name = trimmed(assignment.substr(0, equals));
    if (equals == std::string::npos || name.empty()) {
      error = "effect \"" + request.id + "\": expected Name=value, got \"" + assignment + "\"";
      return false;
    }
    request.values.emplace_back(std::move(name), trimmed(assignment.substr(equals + 1)));
  }
  return true;
}

std::shared_ptr<Effect> makeRequestedEffect(const EffectRequest& request, std::string& error,
                                            std::vector<std::string>& warnings) {
  const EffectFactory& factory = EffectFactory::instance();
  const std::vector<std::string> ids = factory.supportedEffects();
  if (!std::binary_search(ids.begin(), ids.end(), request.id)) {
    error = "unknown effect \"" + request.id + "\"";
    const auto similar = std::find_if(ids.begin(), ids.end(), [&](const std::string& id) {
      return equalIgnoringCase(id, request.id);
    });
    error += similar != ids.end() ? " (did you mean \"" + *similar + "\"?)"
                                  : "; 'vorn effects' lists them";
    return nullptr;
  }
  std::shared_ptr<Effect> effect = factory.makeEffectWithID(request.id);
  // Named, not a structured binding: clang before 16 cannot capture those in the lambda below.
  for (const auto& assignment : request.values) {
    // "Name.data=TEXT" hands TEXT (a LUT file, say) to the parameter's optional data.
    constexpr std::string_view kDataSuffix = ".data";
    const bool isData =
        assignment.first.size() > kDataSuffix.size() && assignment.first.ends_with(kDataSuffix);
    const std::string name =
        isData ? assignment.first.substr(0, assignment.first.size() - kDataSuffix.size())
               : assignment.first;
    const std::string& text = assignment.second;
    auto& parameters = effect->parameters();
    const auto parameter = std::find_if(parameters.begin(), parameters.end(), [&](const auto& p) {
      return equalIgnoringCase(p.name(), name);
    });
    if (parameter == parameters.end()) {
      error = "effect \"" + request.id + "\" has no parameter \"" + name +
              "\"; its parameters: " + parameterNames(*effect);
      return nullptr;
    }
    if (isData) {
      parameter->setOptionalData(text);
      continue;
    }
    float value = 0.0f;
    if (!parseFloat(text, value)) {
      error = "effect \"" + request.id + "\": \"" + parameter->name() +
              "\" needs a finite number, got \"" + text + "\"";
      return nullptr;
    }
    parameter->setValue(value);
    if (parameter->value() != value) {
      warnings.push_back("effect \"" + request.id + "\": \"" + parameter->name() + "\" " + text +
                         " is outside [" + formatted(parameter->minValue()) + ", " +
                         formatted(parameter->maxValue()) + "] and was clamped to " +
                         formatted(parameter->value()));
    }
  }
  effect->setNeedRecompute(true);
  return effect;
}

namespace {

bool anyNeedsProcessing(const std::vector<std::shared_ptr<Effect>>& effects) {
  return std::any_of(effects.begin(), effects.end(),
                     [](const auto& effect) { return effect->isNeedProcessing(); });
}

void shareContext(const std::vector<std::shared_ptr<Effect>>& effects, _Size<int> imageSize) {
  auto context = std::make_shared<EffectContext>();
  context->imageSize = imageSize;
  for (const std::shared_ptr<Effect>& effect : effects) effect->setContext(context);
}

bool chainSucceeded(const EffectChainResult& result, std::string& error) {
  if (result.status == EffectChainStatus::Done) return true;
  error = result.failedEffect.empty() ? "the effects could not be applied (out of memory)"
                                      : "effect \"" + result.failedEffect + "\" failed";
  return false;
}

}  // namespace

bool applyEffects(const std::shared_ptr<_ImageData<PixelRGB<float>>>& frame,
                  const std::vector<std::shared_ptr<Effect>>& effects, std::string& error) {
  if (!frame) {
    error = "there is no image to process";
    return false;
  }
  if (!anyNeedsProcessing(effects)) return true;
  shareContext(effects, frame->size());
  EffectCallContext call(frame, frame, nullptr, {}, nullptr, nullptr);
  return chainSucceeded(runEffectChain(effects, call), error);
}

bool effectsRunBandByBand(const std::vector<std::shared_ptr<Effect>>& effects) {
  return std::all_of(effects.begin(), effects.end(), [](const auto& effect) {
    const auto* point = dynamic_cast<const PointEffect*>(effect.get());
    return !effect->isNeedProcessing() || (point && !point->measuresPicture());
  });
}

BandProcessor effectsOnBands(const std::vector<std::shared_ptr<Effect>>& effects,
                             _Size<int> imageSize, std::string& error) {
  const bool idle = !anyNeedsProcessing(effects);
  if (!idle) shareContext(effects, imageSize);
  return [&effects, &error, idle](ImageFrame& band, int, int rows) {
    if (idle) return true;
    // The band is borrowed for the call: an aliasing pointer that owns nothing.
    const std::shared_ptr<ImageFrame> view(std::shared_ptr<ImageFrame>(), &band);
    EffectCallContext call(view, view, nullptr, _Rect<int>(0, 0, band.width, rows), nullptr,
                           nullptr);
    return chainSucceeded(runEffectChain(effects, call), error);
  };
}

}  // namespace vorn::cli
