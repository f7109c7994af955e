#include <cmath>
#include <filesystem>
#include <fstream>
#include <numbers>

#include "io/blob_header.h"
#include "presets/base64.h"
#include "vorn/effects/effect_factory.h"
#include "vorn/io/image_compressor.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/brush/brush_controller.h"
#include "vorn/pipeline/image_processor.h"
#include "vorn/presets/preset.h"

namespace vorn {
namespace {

namespace fs = std::filesystem;

// A tracked blob of a 100 MP mask is far smaller; a file beyond this is not a mask of ours.
constexpr std::uintmax_t kMaxMaskBlobBytes = std::uintmax_t(1) << 30;

std::vector<std::uint8_t> maskBlobBytes(const PresetMask& mask, const std::string& folder,
                                        const std::string& where) {
  if (!mask.blobBase64.empty()) {
    std::optional<std::vector<std::uint8_t>> bytes = detail::decodeBase64(mask.blobBase64);
    if (!bytes) throw PresetError(where + ": the inline mask blob is not valid base64");
    return std::move(*bytes);
  }
  const fs::path given(mask.blobFile);
  const fs::path path = given.is_absolute() ? given : fs::path(folder) / given;
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  if (error) throw PresetError(where + ": mask blob " + path.string() + " cannot be read");
  if (size > kMaxMaskBlobBytes)
    throw PresetError(where + ": mask blob " + path.string() + " is too large");
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
  std::ifstream in(path, std::ios::binary);
  if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size)))
    throw PresetError(where + ": mask blob " + path.string() + " cannot be read");
  return bytes;
}

// Either stored layout is accepted: the tracked one hosts write, the untracked float one.
std::shared_ptr<MaskImage> decodeMaskBlob(const std::vector<std::uint8_t>& bytes,
                                          const std::string& where) {
  try {
    if (bytes.size() > ImageCompressorLosslessZlib::kUntrackedHeaderSize)
      return detail::readVersion(bytes.data()).isUntrackedVersion()
                 ? ImageCompressorProxy::uncompressMask_untracked(bytes)
                 : ImageCompressorProxy::uncompressMask_1_0(bytes);
  } catch (const ImageCompressorLosslessZlib::CompressorException& e) {
    throw PresetError(where + ": the mask blob is corrupt (" + e.message() + ")");
  }
  throw PresetError(where + ": the mask blob is too short to be one");
}

std::shared_ptr<Effect> makeEffect(const PresetEffect& wanted, const std::string& where) {
  std::shared_ptr<Effect> effect = EffectFactory::instance().makeEffectWithID(wanted.id);
  if (!effect) throw PresetError(where + ": unknown effect \"" + wanted.id + "\"");
  for (Parameter& parameter : effect->parameters()) {
    if (const auto value = wanted.values.find(parameter.name()); value != wanted.values.end())
      parameter.setValue(value->second);
    if (const auto data = wanted.data.find(parameter.name()); data != wanted.data.end())
      parameter.setOptionalData(data->second);
  }
  return effect;
}

float radians(float degrees) {
  return degrees * std::numbers::pi_v<float> / 180.0f;
}

void paint(BrushController& brush, const PresetMaskStep& step) {
  using Kind = PresetMaskStep::Kind;
  switch (step.kind) {
    case Kind::Fill:
      brush.setFill();
      break;
    case Kind::Invert:
      brush.invert();
      break;
    case Kind::LinearGradient:
      brush.appendGradient(radians(step.angle), step.centre, step.width, step.invert, step.add);
      break;
    case Kind::RadialGradient:
      brush.appendRadialGradient(step.centre, step.radiusX, step.radiusY, radians(step.angle),
                                 step.feather, step.invert, step.add);
      break;
    case Kind::Stroke: {
      BrushSetting setting;
      setting.radius = step.brushRadius;
      setting.hardness = step.hardness;
      setting.spacing = step.spacing;
      setting.flow = step.flow;
      setting.opacity = step.brushOpacity;
      brush.setBrushMode(step.erase ? kBrushModeErase : kBrushModePaint);
      brush.startStroke();
      brush.stroke(step.points, setting);
      brush.finishStroke();
      break;
    }
  }
}

}  // namespace

std::vector<std::shared_ptr<AdjustmentLayer>> addPresetLayers(ImageProcessor& processor,
                                                              const Preset& preset,
                                                              const std::string& folder) {
  const _Size<int> canvas = processor.canvasSize();
  if (canvas.width <= 0 || canvas.height <= 0)
    throw PresetError("preset \"" + preset.name + "\": the document has no photo to apply it to");
  const auto& names = presetBlendModeNames();
  // Everything that can fail is made first, so a bad preset leaves the processor as it was.
  std::vector<std::shared_ptr<AdjustmentLayer>> made;
  std::vector<std::shared_ptr<MaskImage>> blobs;
  for (std::size_t i = 0; i < preset.layers.size(); ++i) {
    const PresetLayer& wanted = preset.layers[i];
    const std::string where = "preset \"" + preset.name + "\", layer " + std::to_string(i);
    auto layer = std::make_shared<AdjustmentLayer>(static_cast<std::size_t>(wanted.level));
    for (const PresetEffect& effect : wanted.effects)
      layer->pushBackEffect(makeEffect(effect, where));
    layer->setEnabled(wanted.enabled);
    layer->setOpacity(wanted.opacity);
    layer->setEffectAmount(wanted.effectAmount);
    const auto mode = std::find(names.begin(), names.end(), wanted.blend);
    if (mode == names.end())
      throw PresetError(where + ": unknown blend mode \"" + wanted.blend + "\"");
    layer->setBlendMode(static_cast<BlendModeType>(mode - names.begin()));
    const bool blob = !wanted.mask.blobFile.empty() || !wanted.mask.blobBase64.empty();
    blobs.push_back(blob ? decodeMaskBlob(maskBlobBytes(wanted.mask, folder, where), where)
                         : nullptr);
    made.push_back(std::move(layer));
  }
  for (std::size_t i = 0; i < made.size(); ++i) {
    const std::shared_ptr<AdjustmentLayer>& layer = made[i];
    const PresetMask& mask = preset.layers[i].mask;
    processor.addLayer(layer, processor.getLayersCount());
    if (blobs[i]) {
      layer->setMask(blobs[i]);
      processor.adjustMaskSizeForLayer(layer);
    }
    if (mask.steps.empty() && mask.feather <= 0.0f && mask.density >= 1.0f) continue;
    // Painted on the caller's thread: the layer's mask is final when this returns.
    BrushController brush(layer, canvas, true);
    if (!blobs[i] && !mask.steps.empty()) brush.clear();
    for (const PresetMaskStep& step : mask.steps) paint(brush, step);
    brush.setMaskSetting(MaskSetting{mask.feather, mask.density});
    brush.waitMask();
  }
  processor.validateLayers();
  return made;
}

}  // namespace vorn
