#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vorn/core/crop_description.h"
#include "vorn/effects/effect.h"
#include "vorn/io/image_reader.h"
#include "vorn/presets/preset.h"

namespace vorn {

/// What a render through the image processor adds to a photo: preset layers (each with the
/// folder its mask blobs are found in), then the command line's effects as one more layer, and
/// a document's crop and orientation.
struct LayeredEdit {
  std::vector<std::pair<Preset, std::string>> presets;
  std::optional<CropDescription> crop;
  int orientation = 1;
  bool needsProcessor() const { return !presets.empty() || crop || orientation != 1; }
};

/// A document read from `documentPath` as an edit: its preset with its mask blobs looked up
/// beside the document, its crop and orientation; `source` gets the photo's path, resolved
/// against the document's folder when relative.
LayeredEdit layeredEditOf(const PresetDocument& document, const std::string& documentPath,
                          std::string& source);

/// Reads `--preset` files; false and `error` naming the file, line and field on the first fault.
bool readPresets(const std::vector<std::string>& paths, LayeredEdit& edit, std::string& error);

/// Renders the decoded photo through the image processor with the edit's layers on top and
/// `effects` as the last layer; null and `error` on failure or when `stop` turns true.
std::shared_ptr<const ImageDataRGBf> renderLayered(
    const OwnedFrame& decoded, const LayeredEdit& edit,
    const std::vector<std::shared_ptr<Effect>>& effects, std::string& error,
    std::shared_ptr<bool> stop = {});

}  // namespace vorn
