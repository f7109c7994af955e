#include <filesystem>
#include <ostream>
#include <sstream>

#include "cli.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_reader.h"

namespace vorn::cli {
namespace {

std::string kindOf(const ImageFileClass& file) {
  if (file.isDng()) return "raw (DNG)";
  if (file.raw) return "raw";
  return file.format == ImageFileFormat::Jpeg ? "JPEG" : "TIFF";
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
  // Read once; every question below is answered from these contents.
  const ImageFileClass file = classifyImageFile(path);
  if (file.format == ImageFileFormat::Unknown) {
    err << "vorn info: " << path << ": not a supported image file\n";
    return kExitFailed;
  }
  const _Size<int> size = ImageReader::getImageSize(file);
  if (size.width <= 0 || size.height <= 0) {
    err << "vorn info: " << path << ": the file cannot be read (damaged or not an image)\n";
    return kExitFailed;
  }
  out << "file: " << path << '\n'
      << "kind: " << kindOf(file) << '\n'
      << "size: " << size.width << " x " << size.height << '\n'
      << "bit depth: " << ImageReader::getPreciseColorDepth(file) << '\n';
  if (const auto metadata = ImageReader::readMetadata(file)) {
    std::istringstream lines(metadata->print());
    for (std::string line; std::getline(lines, line);) out << "  " << line << '\n';
  }
  return kExitOk;
}

}  // namespace vorn::cli
