#include <charconv>
#include <nlohmann/json.hpp>
#include <string>

#include "io/raster/atomic_file.h"
#include "vorn/presets/preset.h"

namespace vorn {
namespace {

using json = nlohmann::ordered_json;

// The shortest decimal that reads back as the same float: files stay readable (0.8, not
// 0.800000011920929) and a round trip is exact.
json number(float value) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  double shortest = 0.0;
  std::from_chars(text, end, shortest);  // unlike stod, never reads the C locale's decimal point
  return json(shortest);
}

json point(_Point<float> p) {
  return json::array({number(p.x), number(p.y)});
}

json stepJson(const PresetMaskStep& step) {
  json o;
  using Kind = PresetMaskStep::Kind;
  switch (step.kind) {
    case Kind::Fill:
      o["type"] = "fill";
      return o;
    case Kind::Invert:
      o["type"] = "invert";
      return o;
    case Kind::LinearGradient:
      o["type"] = "linear";
      o["centre"] = point(step.centre);
      o["angle"] = number(step.angle);
      o["width"] = number(step.width);
      break;
    case Kind::RadialGradient:
      o["type"] = "radial";
      o["centre"] = point(step.centre);
      o["radii"] = json::array({number(step.radiusX), number(step.radiusY)});
      o["angle"] = number(step.angle);
      o["feather"] = number(step.feather);
      break;
    case Kind::Stroke: {
      o["type"] = "stroke";
      o["erase"] = step.erase;
      o["radius"] = number(step.brushRadius);
      o["hardness"] = number(step.hardness);
      o["spacing"] = number(step.spacing);
      o["flow"] = number(step.flow);
      o["opacity"] = number(step.brushOpacity);
      json points = json::array();
      for (const _Point<float>& p : step.points) points.push_back(point(p));
      o["points"] = std::move(points);
      return o;
    }
  }
  o["invert"] = step.invert;
  o["add"] = step.add;
  return o;
}

json maskJson(const PresetMask& mask) {
  json o;
  o["feather"] = number(mask.feather);
  o["density"] = number(mask.density);
  if (!mask.blobFile.empty()) o["blob"] = mask.blobFile;
  if (!mask.blobBase64.empty()) o["blobBase64"] = mask.blobBase64;
  if (!mask.steps.empty()) {
    json steps = json::array();
    for (const PresetMaskStep& step : mask.steps) steps.push_back(stepJson(step));
    o["steps"] = std::move(steps);
  }
  return o;
}

json layerJson(const PresetLayer& layer) {
  json o;
  if (!layer.name.empty()) o["name"] = layer.name;
  o["enabled"] = layer.enabled;
  o["opacity"] = number(layer.opacity);
  o["blend"] = layer.blend;
  o["amount"] = number(layer.effectAmount);
  o["level"] = layer.level;
  json effects = json::array();
  for (const PresetEffect& effect : layer.effects) {
    json e;
    e["id"] = effect.id;
    if (!effect.values.empty()) {
      json values = json::object();
      for (const auto& [name, value] : effect.values) values[name] = number(value);
      e["values"] = std::move(values);
    }
    if (!effect.data.empty()) e["data"] = effect.data;
    effects.push_back(std::move(e));
  }
  o["effects"] = std::move(effects);
  if (!layer.mask.empty()) o["mask"] = maskJson(layer.mask);
  return o;
}

json presetJson(const Preset& preset) {
  json o;
  if (!preset.name.empty()) o["name"] = preset.name;
  json layers = json::array();
  for (const PresetLayer& layer : preset.layers) layers.push_back(layerJson(layer));
  o["layers"] = std::move(layers);
  return o;
}

}  // namespace

std::string presetText(const Preset& preset) {
  json o;
  o["format"] = "vorn preset";
  o["version"] = kPresetFormatVersion;
  o.update(presetJson(preset));
  return o.dump(2) + "\n";
}

std::string documentText(const PresetDocument& document) {
  json o;
  o["format"] = "vorn document";
  o["version"] = kPresetFormatVersion;
  o["source"] = document.source;
  o["preset"] = presetJson(document.preset);
  if (document.crop) {
    const _Rect<int>& c = *document.crop;
    o["crop"] = {{"x", c.x},
                 {"y", c.y},
                 {"width", c.width},
                 {"height", c.height},
                 {"angle", number(document.cropAngle)}};
  }
  o["orientation"] = document.orientation;
  return o.dump(2) + "\n";
}

void writeTextFileAtomically(const std::string& path, const std::string& text) {
  detail::PendingFile file;
  std::string reason;
  if (!file.open(path, reason) || !detail::writeAll(file.fd(), text.data(), text.size()) ||
      !file.commit(reason))
    throw PresetError(path + ": cannot be written" + (reason.empty() ? "" : " (" + reason + ")"));
}

}  // namespace vorn
