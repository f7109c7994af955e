#include "vorn/io/raster_info.h"

#include "core/log_failure.h"
#include "io/raster/exif_metadata.h"
#include "io/raster/jpeg_decoder.h"
#include "io/raster/jpeg_markers.h"
#include "io/raster/magick_decoder.h"
#include "io/raster/orientation.h"
#include "io/raster/raster_decode.h"
#include "io/source_processing.h"

namespace vorn {
namespace {

// What the header of a JPEG or TIFF file says, without decoding its pixels.
struct RasterHeader {
  _Size<int> stored;
  int orientation = 1;
  int declaredDepth = 0;
};

bool readRasterHeader(const ImageFileClass& file, RasterHeader& header) {
  const bool raster = file.format == ImageFileFormat::Jpeg || file.format == ImageFileFormat::Tiff;
  if (!raster || !file.isRead() || file.signature != file.format) return false;
  const std::uint8_t* data = file.bytes.get();
  if (file.format == ImageFileFormat::Jpeg) {
    detail::JpegMarkers markers;
    detail::JpegHeader jpeg;
    if (!detail::readJpegMarkers(data, file.size, markers) ||
        !detail::readJpegHeader(data, file.size, jpeg).ok())
      return false;
    header.stored = jpeg.size;
    header.declaredDepth = markers.precision;
  } else {
    detail::MagickHeader tiff;
    if (!detail::pingWithMagick(data, file.size, file.format, file.path, tiff).ok()) return false;
    header.stored = tiff.size;
    header.declaredDepth = tiff.depth;
  }
  header.orientation =
      detail::metadataFromBytes(data, file.size, file.path)->mutableParameters.orientation;
  return true;
}

}  // namespace

_Size<int> rasterImageSize(const ImageFileClass& file) {
  RasterHeader header;
  if (!readRasterHeader(file, header)) return {0, 0};
  return detail::orientedSize(header.stored, header.orientation);
}

int rasterColorDepth(const ImageFileClass& file) {
  RasterHeader header;
  if (!readRasterHeader(file, header) || header.declaredDepth <= 0) return 0;
  if (header.declaredDepth <= 8) return 8;
  return header.declaredDepth <= 16 ? 16 : 32;
}

int rasterPreciseColorDepth(const ImageFileClass& file) {
  RasterHeader header;
  return readRasterHeader(file, header) ? header.declaredDepth : 0;
}

ImageResult openRasterFromMemory(const void* data, std::uint64_t length) {
  ImageResult result;
  detail::RasterDecodeRequest request;
  request.data = static_cast<const std::uint8_t*>(data);
  request.size = static_cast<std::size_t>(length);
  request.name = "image in memory";
  detail::DecodedRaster decoded;
  const detail::RasterStatus status = detail::decodeRaster(request, decoded);
  if (status.ok()) return detail::finishedImage(decoded.frame, decoded.metadata, request.name);
  VORN_LOG_FAILURE(status.describe(request.name).c_str());
  result.errorCode = status.code;
  return result;
}

}  // namespace vorn
