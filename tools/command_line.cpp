#include <algorithm>
#include <ostream>

#include "cli.h"
#include "vorn/core/library.h"

namespace vorn::cli {
namespace {

void printHelp(std::ostream& out) {
  out << "vorn " << vornVersionString() << " - the photo engine on the command line\n\n"
      << "  vorn info FILE [--json]              camera, capture date, size and exposure\n"
      << "  vorn effects [ID...]                 effect identifiers and their parameters\n"
      << "  vorn apply IN OUT [--preset FILE.json]... [--effect ID[:Name=value,...]]...\n"
      << "             [--quality 1-100] [--depth 8|16|32] [--long-side PIXELS]\n"
      << "             [--profile srgb|adobe|prophoto|working]\n"
      << "             [--subsampling auto|444|422|420] [--progressive] [--optimize-huffman]\n"
      << "             [--fail-on none|truncated|error]\n"
      << "                                       run presets, then effects, and write JPEG or "
         "TIFF\n"
      << "  vorn render DOCUMENT.json OUT [output options as for apply]\n"
      << "                                       a photo with its layers, crop and orientation\n"
      << "  vorn thumbnail IN OUT [--size PIXELS] an upright JPEG or TIFF thumbnail (256)\n"
      << "  vorn batch INPUT... -o DIR [--preset FILE.json]... [-j N] [--name TEMPLATE]\n"
      << "             [--recursive] [--overwrite | --skip-existing] [--format jpg|tif]\n"
      << "             [--shard K/N] [--json] [--quality 1-100]\n"
      << "                                       many files, several at once, never replacing\n\n"
      << "Example: vorn apply in.jpg out.jpg --effect \"VORNExposureEffect:Exposure=30\"\n"
      << "Name.data=TEXT gives a parameter its optional data, e.g. a LUT file (a bare name is\n"
      << "looked for in the data folder's LUTs): "
         "\"VORNLUTMappingEffect:Amount.data=warm_film.cube\"\n";
}

// Asking a command for help is not a usage error; its value-taking options never take "-h".
bool asksForHelp(const std::vector<std::string>& args) {
  return std::any_of(args.begin(), args.end(),
                     [](const std::string& arg) { return arg == "--help" || arg == "-h"; });
}

}  // namespace

int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  if (args.empty()) {
    printHelp(err);
    return kExitUsage;
  }
  const std::string& command = args.front();
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (asksForHelp(rest)) {
    printHelp(out);
    return kExitOk;
  }
  if (command == "info") return runInfo(rest, out, err);
  if (command == "effects") return runEffects(rest, out, err);
  if (command == "apply") return runApply(rest, out, err);
  if (command == "render") return runRender(rest, out, err);
  if (command == "thumbnail") return runThumbnail(rest, out, err);
  if (command == "batch") return runBatch(rest, out, err);
  if (command == "help" || command == "--help" || command == "-h") {
    printHelp(out);
    return kExitOk;
  }
  if (command == "--version") {
    out << "vorn " << vornVersionString() << '\n';
    return kExitOk;
  }
  err << "vorn: unknown command \"" << command << "\"\n\n";
  printHelp(err);
  return kExitUsage;
}

}  // namespace vorn::cli
