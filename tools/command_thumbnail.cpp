#include <charconv>
#include <ostream>

#include "cli.h"
#include "vorn/batch.h"

namespace vorn::cli {
namespace {

constexpr const char* kThumbnailUsage =
    "usage: vorn thumbnail IN OUT.jpg|OUT.tif [--size PIXELS] [--in-process]\n";

bool parseSize(const std::string& text, int& size) {
  const char* end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, size);
  return status == std::errc() && stop == end && size >= 1 && size <= 65535;
}

}  // namespace

int runThumbnail(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  std::vector<std::string> paths;
  int size = 256;
  bool inProcess = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--size") {
      if (i + 1 == args.size() || !parseSize(args[i + 1], size)) {
        err << "vorn thumbnail: --size needs a whole number of pixels from 1 to 65535"
            << (i + 1 < args.size() ? ", not \"" + args[i + 1] + "\"" : std::string()) << '\n'
            << kThumbnailUsage;
        return kExitUsage;
      }
      ++i;
    } else if (args[i] == "--in-process") {
      inProcess = true;
    } else if (args[i].size() > 1 && args[i][0] == '-') {
      err << "vorn thumbnail: unknown option " << args[i] << '\n' << kThumbnailUsage;
      return kExitUsage;
    } else {
      paths.push_back(args[i]);
    }
  }
  if (paths.size() != 2) {
    err << kThumbnailUsage;
    return kExitUsage;
  }
  VornBatchOptions options;
  vornBatchDefaultOptions(&options);
  options.longSide = size;
  options.inProcess = inProcess ? 1 : 0;
  // The library's call, so that a host and this command make the same thumbnail.
  char message[1024] = {};
  const int code = generateThumbnail(paths[0].c_str(), paths[1].c_str(), &options, nullptr, nullptr,
                                     nullptr, nullptr, message, sizeof message);
  if (code != VORN_BATCH_OK) {
    err << "vorn thumbnail: " << message << '\n';
    return code == VORN_BATCH_BAD_ARGUMENT ? kExitUsage : kExitFailed;
  }
  out << paths[1] << '\n';
  return kExitOk;
}

}  // namespace vorn::cli
