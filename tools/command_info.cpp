#include <filesystem>
#include <ostream>
#include <sstream>

#include "cli.h"
#include "vorn/core/file_utils.h"
#include "vorn/io/image_reader.h"

namespace vorn::cli {
namespace {

std::string kindOf(const std::string& path) {
  if (ImageReader::isDngImageFile(path)) return "raw (DNG)";
  if (ImageReader::isRawImageFile(path)) return "raw";
  const std::string extension = getFileExtension(path);
  if (extension == "jpg" || extension == "jpeg") return "JPEG";
  return "TIFF";
}

}  // namespace

int runInfo(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  if (args.size() != 1) {
    err << "usage: vorn info FILE\n";
    return kExitUsage;
  }
  const std::string& path = args.front();
  if (!std::filesystem::is_regular_file(path)) {
    err << "vorn info: " << path << ": no such file\n";
    return kExitFailed;
  }
  const auto& formats = ImageReader::allSupportedFormats();
  if (!formats.count(getFileExtension(path))) {
    err << "vorn info: " << path << ": not a supported image file\n";
    return kExitFailed;
  }
  const _Size<int> size = ImageReader::getImageSize(path);
  if (size.width <= 0 || size.height <= 0) {
    err << "vorn info: " << path << ": the file cannot be read (damaged or not an image)\n";
    return kExitFailed;
  }
  out << "file: " << path << '\n'
      << "kind: " << kindOf(path) << '\n'
      << "size: " << size.width << " x " << size.height << '\n'
      << "bit depth: " << ImageReader::getPreciseColorDepth(path) << '\n';
  if (const auto metadata = ImageReader::readMetadata(path)) {
    std::istringstream lines(metadata->print());
    for (std::string line; std::getline(lines, line);) out << "  " << line << '\n';
  }
  return kExitOk;
}

}  // namespace vorn::cli
