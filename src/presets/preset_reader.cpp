#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "presets/json_lines.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/presets/preset.h"

namespace vorn {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

// A preset is a few kilobytes; a brush-painted one a few hundred. Anything far larger is not
// ours and is refused before it is read.
constexpr std::uintmax_t kMaxFileBytes = 16u << 20;
constexpr int kMaxDepth = 16;
constexpr const char* kPresetFormat = "vorn preset";
constexpr const char* kDocumentFormat = "vorn document";

/// Reads the model out of a parsed file, naming the line and field of the first fault.
class Reader {
 public:
  Reader(const std::string& text, std::string origin)
      : origin_(std::move(origin)), lines_(text, origin_, kMaxDepth) {}

  const json& root() const { return lines_.root(); }

  void header(const std::string& format) {
    const json& top = object(root(), "");
    if (string(member(top, "", "format"), "/format") != format)
      fail("/format", "expected \"" + format + "\"");
    const json& version = member(top, "", "version");
    const double number = this->number(version, "/version", 1, 1e9);
    if (number != std::floor(number)) fail("/version", "must be a whole number");
    if (number > kPresetFormatVersion)
      fail("/version", "version " + std::to_string(static_cast<long long>(number)) +
                           " is newer than this program reads (" +
                           std::to_string(kPresetFormatVersion) + ")");
  }

  Preset preset(const json& node, const std::string& at, bool topLevel) {
    const json& top = object(node, at);
    allowOnly(top, at,
              topLevel ? std::vector<std::string>{"format", "version", "name", "layers"}
                       : std::vector<std::string>{"name", "layers"});
    Preset preset;
    if (const json* name = optional(top, "name")) preset.name = string(*name, at + "/name");
    const json& layers = array(member(top, at, "layers"), at + "/layers");
    for (std::size_t i = 0; i < layers.size(); ++i)
      preset.layers.push_back(layer(layers[i], at + "/layers/" + std::to_string(i)));
    return preset;
  }

  PresetDocument document(const fs::path& folder) {
    const json& top = object(root(), "");
    allowOnly(top, "",
              {"format", "version", "source", "preset", "presetFile", "crop", "orientation"});
    PresetDocument document;
    document.source = string(member(top, "", "source"), "/source");
    if (document.source.empty()) fail("/source", "must name the photo");
    const json* inline_ = optional(top, "preset");
    const json* file = optional(top, "presetFile");
    if ((inline_ != nullptr) == (file != nullptr))
      fail("", "needs exactly one of \"preset\" and \"presetFile\"");
    if (inline_) {
      document.preset = preset(*inline_, "/preset", false);
    } else {
      const fs::path path = string(*file, "/presetFile");
      try {
        document.preset = readPresetFile((path.is_absolute() ? path : folder / path).string());
      } catch (const PresetError& e) {
        fail("/presetFile", e.what());
      }
    }
    if (const json* crop = optional(top, "crop")) {
      const json& c = object(*crop, "/crop");
      allowOnly(c, "/crop", {"x", "y", "width", "height", "angle"});
      const auto field = [&](const char* key, int low) {
        return whole(member(c, "/crop", key), std::string("/crop/") + key, low, 1 << 20);
      };
      document.crop =
          _Rect<int>(field("x", 0), field("y", 0), field("width", 1), field("height", 1));
      if (const json* angle = optional(c, "angle"))
        document.cropAngle = static_cast<float>(number(*angle, "/crop/angle", -45, 45));
    }
    if (const json* orientation = optional(top, "orientation"))
      document.orientation = whole(*orientation, "/orientation", 1, 8);
    return document;
  }

 private:
  PresetLayer layer(const json& node, const std::string& at) {
    const json& o = object(node, at);
    allowOnly(o, at, {"name", "enabled", "opacity", "blend", "amount", "level", "effects", "mask"});
    PresetLayer layer;
    if (const json* v = optional(o, "name")) layer.name = string(*v, at + "/name");
    if (const json* v = optional(o, "enabled")) layer.enabled = boolean(*v, at + "/enabled");
    if (const json* v = optional(o, "opacity")) layer.opacity = fraction(*v, at + "/opacity");
    if (const json* v = optional(o, "amount")) layer.effectAmount = fraction(*v, at + "/amount");
    if (const json* v = optional(o, "level")) layer.level = whole(*v, at + "/level", 0, 64);
    if (const json* v = optional(o, "blend")) {
      layer.blend = string(*v, at + "/blend");
      const auto& names = presetBlendModeNames();
      if (std::find(names.begin(), names.end(), layer.blend) == names.end())
        fail(at + "/blend", "unknown blend mode \"" + layer.blend + "\"; known: " + list(names));
    }
    const json& effects = array(member(o, at, "effects"), at + "/effects");
    for (std::size_t i = 0; i < effects.size(); ++i)
      layer.effects.push_back(effect(effects[i], at + "/effects/" + std::to_string(i)));
    if (const json* v = optional(o, "mask")) layer.mask = mask(*v, at + "/mask");
    return layer;
  }

  PresetEffect effect(const json& node, const std::string& at) {
    const json& o = object(node, at);
    allowOnly(o, at, {"id", "values", "data"});
    PresetEffect effect;
    effect.id = string(member(o, at, "id"), at + "/id");
    const EffectFactory& factory = EffectFactory::instance();
    const std::vector<std::string> ids = factory.supportedEffects();
    if (!std::binary_search(ids.begin(), ids.end(), effect.id))
      fail(at + "/id", "unknown effect \"" + effect.id + "\"");
    const std::shared_ptr<Effect> made = factory.makeEffectWithID(effect.id);
    if (!made) fail(at + "/id", "effect \"" + effect.id + "\" cannot be made");
    const auto parameterNamed = [&](const std::string& name, const std::string& where) {
      const auto& parameters = made->parameters();
      const auto found = std::find_if(parameters.begin(), parameters.end(),
                                      [&](const Parameter& p) { return p.name() == name; });
      if (found == parameters.end()) {
        std::vector<std::string> names;
        for (const Parameter& p : parameters) names.push_back(p.name());
        fail(where, "effect \"" + effect.id + "\" has no parameter \"" + name +
                        "\"; its parameters: " + list(names));
      }
      return *found;
    };
    if (const json* values = optional(o, "values")) {
      const std::string valuesAt = at + "/values";
      for (const auto& [name, value] : object(*values, valuesAt).items()) {
        const std::string where = valuesAt + "/" + detail::pointerStep(name);
        const Parameter& parameter = parameterNamed(name, where);
        effect.values[name] =
            static_cast<float>(number(value, where, parameter.minValue(), parameter.maxValue()));
      }
    }
    if (const json* data = optional(o, "data")) {
      const std::string dataAt = at + "/data";
      for (const auto& [name, value] : object(*data, dataAt).items()) {
        const std::string where = dataAt + "/" + detail::pointerStep(name);
        parameterNamed(name, where);
        effect.data[name] = string(value, where);
      }
    }
    return effect;
  }

  PresetMask mask(const json& node, const std::string& at) {
    const json& o = object(node, at);
    allowOnly(o, at, {"feather", "density", "steps", "blob", "blobBase64"});
    PresetMask mask;
    if (const json* v = optional(o, "feather")) mask.feather = fraction(*v, at + "/feather");
    if (const json* v = optional(o, "density")) mask.density = fraction(*v, at + "/density");
    if (const json* v = optional(o, "blob")) mask.blobFile = string(*v, at + "/blob");
    if (const json* v = optional(o, "blobBase64")) mask.blobBase64 = string(*v, at + "/blobBase64");
    if (!mask.blobFile.empty() && !mask.blobBase64.empty())
      fail(at, "gives both \"blob\" and \"blobBase64\"");
    if (const json* steps = optional(o, "steps")) {
      const json& list = array(*steps, at + "/steps");
      for (std::size_t i = 0; i < list.size(); ++i)
        mask.steps.push_back(step(list[i], at + "/steps/" + std::to_string(i)));
    }
    return mask;
  }

  PresetMaskStep step(const json& node, const std::string& at) {
    const json& o = object(node, at);
    PresetMaskStep step;
    const std::string type = string(member(o, at, "type"), at + "/type");
    const auto point = [&](const json& value, const std::string& where) {
      const json& pair = array(value, where);
      if (pair.size() != 2) fail(where, "expected [x, y]");
      return _Point<float>(static_cast<float>(number(pair[0], where, -100, 100)),
                           static_cast<float>(number(pair[1], where, -100, 100)));
    };
    const auto flag = [&](const char* key, bool fallback) {
      const json* v = optional(o, key);
      return v ? boolean(*v, at + "/" + key) : fallback;
    };
    const auto size = [&](const char* key, double low, double high, float fallback) {
      const json* v = optional(o, key);
      return v ? static_cast<float>(number(*v, at + "/" + key, low, high)) : fallback;
    };
    if (type == "fill" || type == "invert") {
      allowOnly(o, at, {"type"});
      step.kind = type == "fill" ? PresetMaskStep::Kind::Fill : PresetMaskStep::Kind::Invert;
    } else if (type == "linear") {
      allowOnly(o, at, {"type", "centre", "angle", "width", "invert", "add"});
      step.kind = PresetMaskStep::Kind::LinearGradient;
      step.centre = point(member(o, at, "centre"), at + "/centre");
      step.angle = size("angle", -360, 360, 0.0f);
      step.width = size("width", 0, 100, 0.0f);
    } else if (type == "radial") {
      allowOnly(o, at, {"type", "centre", "radii", "angle", "feather", "invert", "add"});
      step.kind = PresetMaskStep::Kind::RadialGradient;
      step.centre = point(member(o, at, "centre"), at + "/centre");
      const _Point<float> radii = point(member(o, at, "radii"), at + "/radii");
      if (!(radii.x > 0 && radii.y > 0)) fail(at + "/radii", "radii must be positive");
      step.radiusX = radii.x;
      step.radiusY = radii.y;
      step.angle = size("angle", -360, 360, 0.0f);
      step.feather = size("feather", 0, 1, 0.0f);
    } else if (type == "stroke") {
      allowOnly(o, at,
                {"type", "erase", "radius", "hardness", "spacing", "flow", "opacity", "points"});
      step.kind = PresetMaskStep::Kind::Stroke;
      step.erase = flag("erase", false);
      step.brushRadius = size("radius", 1e-4, 1, step.brushRadius);
      step.hardness = size("hardness", 0, 1, step.hardness);
      step.spacing = size("spacing", 0, 100, step.spacing);
      step.flow = size("flow", 0, 1, step.flow);
      step.brushOpacity = size("opacity", 0, 1, step.brushOpacity);
      const json& points = array(member(o, at, "points"), at + "/points");
      if (points.empty()) fail(at + "/points", "a stroke needs at least one point");
      step.points.reserve(points.size());
      for (std::size_t i = 0; i < points.size(); ++i)
        step.points.push_back(point(points[i], at + "/points"));
    } else {
      fail(at + "/type",
           "unknown mask step \"" + type + "\"; known: fill, invert, linear, radial, stroke");
    }
    step.invert = flag("invert", false);
    step.add = flag("add", true);
    return step;
  }

  [[noreturn]] void fail(const std::string& pointer, const std::string& message) const {
    throw PresetError(origin_ + ":" + std::to_string(lines_.lineOf(pointer)) + ": " +
                      detail::fieldName(pointer) + ": " + message);
  }

  const json& object(const json& node, const std::string& at) const {
    if (!node.is_object()) fail(at, "expected an object");
    return node;
  }
  const json& array(const json& node, const std::string& at) const {
    if (!node.is_array()) fail(at, "expected a list");
    return node;
  }
  std::string string(const json& node, const std::string& at) const {
    if (!node.is_string()) fail(at, "expected text");
    return node.get<std::string>();
  }
  bool boolean(const json& node, const std::string& at) const {
    if (!node.is_boolean()) fail(at, "expected true or false");
    return node.get<bool>();
  }
  double number(const json& node, const std::string& at, double low, double high) const {
    if (!node.is_number()) fail(at, "expected a number");
    const double value = node.get<double>();
    if (!(value >= low && value <= high)) {
      std::ostringstream range;
      range << "value " << value << " is outside " << low << " ... " << high;
      fail(at, range.str());
    }
    return value;
  }
  float fraction(const json& node, const std::string& at) const {
    return static_cast<float>(number(node, at, 0, 1));
  }
  int whole(const json& node, const std::string& at, int low, int high) const {
    const double value = number(node, at, low, high);
    if (value != std::floor(value)) fail(at, "must be a whole number");
    return static_cast<int>(value);
  }
  const json* optional(const json& o, const char* key) const {
    const auto found = o.find(key);
    return found == o.end() ? nullptr : &*found;
  }
  const json& member(const json& o, const std::string& at, const char* key) const {
    const json* found = optional(o, key);
    if (!found) fail(at, std::string("missing \"") + key + "\"");
    return *found;
  }
  // Unknown keys are refused: a misspelt field would otherwise be dropped without a word.
  void allowOnly(const json& o, const std::string& at, const std::vector<std::string>& keys) const {
    for (const auto& [key, value] : o.items()) {
      if (std::find(keys.begin(), keys.end(), key) == keys.end())
        fail(at + "/" + detail::pointerStep(key), "unknown field; expected one of " + list(keys));
    }
  }
  static std::string list(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
  }

  std::string origin_;
  detail::JsonLines lines_;
};

std::string readText(const std::string& path) {
  std::error_code error;
  const std::uintmax_t bytes = fs::file_size(path, error);
  if (error) throw PresetError(path + ": cannot be read (" + error.message() + ")");
  if (bytes > kMaxFileBytes)
    throw PresetError(path + ": " + std::to_string(bytes) + " bytes is too large for a preset");
  std::ifstream in(path, std::ios::binary);
  std::string text(static_cast<std::size_t>(bytes), '\0');
  if (!in.read(text.data(), static_cast<std::streamsize>(text.size())))
    throw PresetError(path + ": cannot be read");
  return text;
}

}  // namespace

Preset parsePreset(const std::string& text, const std::string& origin) {
  if (text.size() > kMaxFileBytes) throw PresetError(origin + ": too large for a preset");
  Reader reader(text, origin);
  reader.header(kPresetFormat);
  return reader.preset(reader.root(), "", true);
}

Preset readPresetFile(const std::string& path) {
  return parsePreset(readText(path), path);
}

PresetDocument parseDocument(const std::string& text, const std::string& origin) {
  if (text.size() > kMaxFileBytes) throw PresetError(origin + ": too large for a document");
  Reader reader(text, origin);
  reader.header(kDocumentFormat);
  return reader.document(fs::path(origin).parent_path());
}

PresetDocument readDocumentFile(const std::string& path) {
  return parseDocument(readText(path), path);
}

const std::vector<std::string>& presetBlendModeNames() {
  static const std::vector<std::string> names = {
      "Normal",    "Multiply", "ColorBurn",  "Screen",   "Overlay",    "SoftLight", "Darken",
      "HardLight", "Lighten",  "Difference", "Subtract", "Luminosity", "Hue",       "Color"};
  return names;
}

}  // namespace vorn
