#pragma once

#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "vorn/core/geometry.h"

// Presets and documents as files: what a host or the command line keeps between sessions. The
// model holds names and numbers only; effects are made from it when a preset is applied.
namespace vorn {

/// One effect of a layer's chain: its identifier, values by parameter name, optional data.
struct PresetEffect {
  std::string id;
  std::map<std::string, float> values;
  std::map<std::string, std::string> data;  ///< a parameter's optional data, e.g. a LUT file
  bool operator==(const PresetEffect&) const = default;
};

/// One step that paints a layer's mask, in the units of the brush controller: points and
/// centres in canvas coordinates scaled to 0...1, radii and widths in shorter-side units.
struct PresetMaskStep {
  enum class Kind { Fill, Invert, LinearGradient, RadialGradient, Stroke };
  Kind kind = Kind::Fill;
  _Point<float> centre{0.5f, 0.5f};
  float angle = 0.0f;  ///< degrees
  float width = 0.0f;  ///< linear ramp width
  float radiusX = 0.0f, radiusY = 0.0f, feather = 0.0f;
  bool invert = false;
  bool add = true;
  bool erase = false;  ///< a stroke that removes coverage
  float brushRadius = 0.05f, hardness = 0.5f, spacing = 0.0f, flow = 1.0f, brushOpacity = 1.0f;
  std::vector<_Point<float>> points;
  bool operator==(const PresetMaskStep&) const = default;
};

/// A layer's mask: painted steps, or a stored mask blob (a file beside the preset, or inline).
struct PresetMask {
  std::vector<PresetMaskStep> steps;
  std::string blobFile;  ///< relative to the preset's folder
  std::string blobBase64;
  float feather = 0.0f;
  float density = 1.0f;
  bool empty() const { return steps.empty() && blobFile.empty() && blobBase64.empty(); }
  bool operator==(const PresetMask&) const = default;
};

/// One adjustment layer: its chain and how it is blended.
struct PresetLayer {
  std::string name;
  bool enabled = true;
  float opacity = 1.0f;  ///< 0...1
  std::string blend = "Normal";
  float effectAmount = 1.0f;  ///< 0...1
  int level = 0;
  std::vector<PresetEffect> effects;
  PresetMask mask;
  bool operator==(const PresetLayer&) const = default;
};

/// An ordered stack of adjustment layers, bottom first.
struct Preset {
  std::string name;
  std::vector<PresetLayer> layers;
  bool operator==(const Preset&) const = default;
};

/// A photo with its edit: the source file, the preset, the crop and the orientation.
struct PresetDocument {
  std::string source;  ///< relative to the document's folder, or absolute
  Preset preset;
  std::optional<_Rect<int>> crop;  ///< in pixels of the upright photo (after orientation)
  float cropAngle = 0.0f;          ///< degrees, turning the crop about its centre
  int orientation = 1;             ///< the EXIF orientation code, 1...8
  bool operator==(const PresetDocument&) const = default;
};

/// A preset or document that cannot be used; what() names the file, the line and the field.
class PresetError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The version files are written with; readers refuse newer ones.
inline constexpr int kPresetFormatVersion = 1;

/// Reads a preset file (or a document's preset); throws PresetError before anything is decoded.
Preset readPresetFile(const std::string& path);
/// The same from text; `origin` names it in errors.
Preset parsePreset(const std::string& text, const std::string& origin);
PresetDocument readDocumentFile(const std::string& path);
PresetDocument parseDocument(const std::string& text, const std::string& origin);

/// Formatted JSON, two-space indented, keys in a fixed order.
std::string presetText(const Preset& preset);
std::string documentText(const PresetDocument& document);
/// Writes through a temporary file and a rename, so a failure never leaves half a file; throws
/// PresetError naming the path.
void writeTextFileAtomically(const std::string& path, const std::string& text);

class ImageProcessor;
class AdjustmentLayer;

/// Adds the preset's layers on top of the processor's stack (which must hold a photo), with
/// their effects, blend settings and masks; mask blob files are found relative to `folder`.
/// Throws PresetError, before the processor is changed, for a mask blob that is missing or
/// corrupt; returns the layers made, bottom first.
std::vector<std::shared_ptr<AdjustmentLayer>> addPresetLayers(ImageProcessor& processor,
                                                              const Preset& preset,
                                                              const std::string& folder);

/// The blend mode names files use ("Normal", "Multiply", ...), in the order of BlendModeType.
const std::vector<std::string>& presetBlendModeNames();

}  // namespace vorn
