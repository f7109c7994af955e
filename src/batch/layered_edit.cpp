#include "vorn/presets/layered_edit.h"

#include <filesystem>
#include <numbers>

#include "vorn/io/image.h"
#include "vorn/pipeline/adjustment_layer.h"
#include "vorn/pipeline/image_layer.h"
#include "vorn/pipeline/image_processor.h"

namespace vorn {

LayeredEdit layeredEditOf(const PresetDocument& document, const std::string& documentPath,
                          std::string& source) {
  // The photo and any mask blob files are named relative to the document's own folder.
  const std::filesystem::path folder = std::filesystem::path(documentPath).parent_path();
  const std::filesystem::path named(document.source);
  source = named.is_absolute() ? named.string() : (folder / named).string();
  LayeredEdit edit;
  edit.presets.emplace_back(document.preset, folder.string());
  edit.orientation = document.orientation;
  if (document.crop)
    edit.crop =
        CropDescription(document.cropAngle * std::numbers::pi_v<float> / 180.0f, *document.crop);
  return edit;
}

bool readPresets(const std::vector<std::string>& paths, LayeredEdit& edit, std::string& error) {
  for (const std::string& path : paths) {
    try {
      edit.presets.emplace_back(readPresetFile(path),
                                std::filesystem::path(path).parent_path().string());
    } catch (const PresetError& e) {
      error = e.what();
      return false;
    }
  }
  return true;
}

std::shared_ptr<const ImageDataRGBf> renderLayered(
    const OwnedFrame& decoded, const LayeredEdit& edit,
    const std::vector<std::shared_ptr<Effect>>& effects, std::string& error,
    std::shared_ptr<bool> stop) {
  std::shared_ptr<const ImageMetadata> metadata =
      decoded.metadata ? decoded.metadata : std::make_shared<const ImageMetadata>();
  auto image = std::make_shared<Image>(std::make_shared<ImageSource>(decoded.frame, metadata));
  ImageProcessor processor;
  processor.addLayer(std::make_shared<ImageLayer>(image), 0);
  try {
    for (const auto& [preset, folder] : edit.presets) addPresetLayers(processor, preset, folder);
  } catch (const PresetError& e) {
    error = e.what();
    return nullptr;
  }
  if (!effects.empty()) {
    auto layer = std::make_shared<AdjustmentLayer>(0);
    for (const auto& effect : effects) layer->pushBackEffect(effect);
    processor.addLayer(layer, processor.getLayersCount());
  }
  processor.validateLayers();
  if (edit.crop) processor.setCropDescription(*edit.crop);
  processor.setImageOrientation(edit.orientation);
  ImageProcessorSettings settings;
  settings.exportMode = true;
  settings.applyCrop = edit.crop.has_value();
  settings.useCache = false;  // one render: nothing is asked for twice
  settings.stopProcessing = stop;
  processor.startProcessing(settings);
  std::shared_ptr<const ImageDataRGBf> result = processor.getLastResult();
  if (!result) error = "the layers could not be rendered (see the log)";
  return result;
}

}  // namespace vorn
