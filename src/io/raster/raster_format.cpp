#include "io/raster/raster_format.h"

#include "vorn/core/file_utils.h"

namespace vorn::detail {

RasterFormat rasterFormatFromExtension(const std::string& path) {
  const RasterFormat format = imageFileFormatOfExtension(getFileExtension(path));
  return format == RasterFormat::Raw ? RasterFormat::Unknown : format;
}

RasterFormat rasterFormatFromSignature(const std::uint8_t* data, std::size_t size) {
  if (data == nullptr) return RasterFormat::Unknown;
  if (size >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) return RasterFormat::Jpeg;
  if (size >= 4 && ((data[0] == 'I' && data[1] == 'I' && data[2] == 42 && data[3] == 0) ||
                    (data[0] == 'M' && data[1] == 'M' && data[2] == 0 && data[3] == 42)))
    return RasterFormat::Tiff;
  return RasterFormat::Unknown;
}

const char* rasterFormatName(RasterFormat format) {
  switch (format) {
    case RasterFormat::Jpeg:
      return "JPEG";
    case RasterFormat::Tiff:
      return "TIFF";
    case RasterFormat::Raw:
    case RasterFormat::Unknown:
      break;
  }
  return "";
}

}  // namespace vorn::detail
