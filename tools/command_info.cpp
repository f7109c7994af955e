#include <ostream>

#include "cli.h"
#include "info_format.h"
#include "vorn/io/photo_info.h"

namespace vorn::cli {

int runInfo(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  std::string path;
  bool json = false;
  for (const std::string& arg : args) {
    if (arg == "--json") {
      json = true;
    } else if (!arg.empty() && arg[0] == '-' && arg != "-") {
      err << "vorn info: unknown option " << arg << "\nusage: vorn info FILE [--json]\n";
      return kExitUsage;
    } else if (path.empty()) {
      path = arg;
    } else {
      path.clear();
      break;
    }
  }
  if (path.empty()) {
    err << "usage: vorn info FILE [--json]\n";
    return kExitUsage;
  }
  PhotoInfo info;
  std::string error;
  if (!describePhoto(path, info, error)) {
    err << "vorn info: " << error << '\n';
    return kExitFailed;
  }
  out << (json ? formatInfoJson(info) : formatInfoText(info));
  return kExitOk;
}

}  // namespace vorn::cli
