#include "vorn/io/image_file_class.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "io/raster/exif_metadata.h"
#include "io/raster/file_bytes.h"
#include "io/raster/raster_format.h"
#include "vorn/core/file_utils.h"
#include "vorn/core/log.h"
#include "vorn/io/image_reader.h"

namespace vorn {
namespace {

// Kodak's DCS bodies (and the Canon-Kodak hybrids) store their raw data in TIFF files named
// .tif; no other camera's TIFF needs the raw decoder.
constexpr std::array<const char*, 2> kRawTiffModels = {"eos d2000c", "eos d6000c"};
constexpr const char* kRawTiffModelFragment = "dcs";

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool isRawTiffModel(const std::string& model) {
  return std::find(kRawTiffModels.begin(), kRawTiffModels.end(), model) != kRawTiffModels.end() ||
         model.find(kRawTiffModelFragment) != std::string::npos;
}

void readContents(ImageFileClass& file) {
  detail::FileBytes contents;
  const detail::RasterStatus status = detail::readWholeFile(file.path, contents);
  file.readCode = status.code;
  file.readError = status.reason;
  if (!status.ok()) return;
  file.size = contents.size;
  file.bytes = std::move(contents.data);
  file.signature = detail::rasterFormatFromSignature(file.bytes.get(), file.size);
  if (file.format != ImageFileFormat::Tiff) return;
  file.cameraModel =
      lowerCase(detail::cameraModelFromBytes(file.bytes.get(), file.size, file.path));
  if (file.cameraModel.empty()) return;
  LogComment("%s camera model: %s", __PRETTY_FUNCTION__, file.cameraModel.c_str());
  file.raw = isRawTiffModel(file.cameraModel);
}

ImageFileClass classifyByName(const std::string& path) {
  ImageFileClass file;
  file.path = path;
  file.extension = getFileExtension(path);
  file.format = imageFileFormatOfExtension(file.extension);
  file.raw = file.format == ImageFileFormat::Raw;
  file.readError = "the contents were not read";
  return file;
}

}  // namespace

ImageFileClass classifyImageFile(const std::string& path) {
  ImageFileClass file = classifyByName(path);
  readContents(file);
  return file;
}

ImageFileClass classifyImageFileByName(const std::string& path) {
  ImageFileClass file = classifyByName(path);
  if (file.format == ImageFileFormat::Tiff) readContents(file);
  return file;
}

}  // namespace vorn
