#include <cmath>
#include <filesystem>
#include <numbers>
#include <ostream>

#include "apply_options.h"
#include "cli.h"
#include "vorn/presets/layered_edit.h"

namespace vorn::cli {

int runRender(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  ApplyOptions options;
  std::string error;
  if (!parseApplyOptions(args, options, error) || !options.effects.empty() ||
      !options.presets.empty()) {
    err << "vorn render: " << (error.empty() ? "--effect and --preset belong to vorn apply" : error)
        << '\n'
        << kRenderUsage;
    return kExitUsage;
  }
  PresetDocument document;
  try {
    document = readDocumentFile(options.input);
  } catch (const PresetError& e) {
    err << "vorn render: " << e.what() << '\n';
    return std::filesystem::exists(options.input) ? kExitUsage : kExitFailed;
  }
  // The photo and any mask blob files are named relative to the document's own folder.
  const std::filesystem::path folder = std::filesystem::path(options.input).parent_path();
  const std::filesystem::path source(document.source);
  options.input = source.is_absolute() ? source.string() : (folder / source).string();
  LayeredEdit edit;
  edit.presets.emplace_back(document.preset, folder.string());
  edit.orientation = document.orientation;
  if (document.crop)
    edit.crop =
        CropDescription(document.cropAngle * std::numbers::pi_v<float> / 180.0f, *document.crop);
  return applyToFile("vorn render", options, {}, edit, out, err);
}

}  // namespace vorn::cli
