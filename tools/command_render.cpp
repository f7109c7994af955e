#include <filesystem>
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
  std::string source;
  const LayeredEdit edit = layeredEditOf(document, options.input, source);
  options.input = source;
  return applyToFile("vorn render", options, {}, edit, out, err);
}

}  // namespace vorn::cli
