#include "vorn/io/raster_info.h"

#include <new>

#include "core/log_failure.h"
#include "io/raster/exif_metadata.h"
#include "io/raster/file_bytes.h"
#include "io/raster/jpeg_decoder.h"
#include "io/raster/jpeg_markers.h"
#include "io/raster/magick_decoder.h"
#include "io/raster/orientation.h"
#include "io/raster/raster_decode.h"

namespace vorn {
namespace {

// What the header of a JPEG or TIFF file says, without decoding its pixels.
struct RasterHeader {
  _Size<int> stored;
  int orientation = 1;
  int declaredDepth = 0;
};

bool readRasterHeader(const std::string& path, RasterHeader& header) {
  const detail::RasterFormat expected = detail::rasterFormatFromExtension(path);
  detail::FileBytes bytes;
  if (expected == detail::RasterFormat::Unknown || !detail::readWholeFile(path, bytes).ok())
    return false;
  if (detail::rasterFormatFromSignature(bytes.data.get(), bytes.size) != expected) return false;
  if (expected == detail::RasterFormat::Jpeg) {
    detail::JpegMarkers markers;
    detail::JpegHeader jpeg;
    if (!detail::readJpegMarkers(bytes.data.get(), bytes.size, markers) ||
        !detail::readJpegHeader(bytes.data.get(), bytes.size, jpeg).ok())
      return false;
    header.stored = jpeg.size;
    header.declaredDepth = markers.precision;
  } else {
    detail::MagickHeader tiff;
    if (!detail::pingWithMagick(bytes.data.get(), bytes.size, expected, path, tiff).ok())
      return false;
    header.stored = tiff.size;
    header.declaredDepth = tiff.depth;
  }
  header.orientation =
      detail::metadataFromBytes(bytes.data.get(), bytes.size, path)->mutableParameters.orientation;
  return true;
}

}  // namespace

_Size<int> rasterImageSize(const std::string& path) {
  RasterHeader header;
  if (!readRasterHeader(path, header)) return {0, 0};
  return detail::orientedSize(header.stored, header.orientation);
}

int rasterColorDepth(const std::string& path) {
  RasterHeader header;
  if (!readRasterHeader(path, header) || header.declaredDepth <= 0) return 0;
  if (header.declaredDepth <= 8) return 8;
  return header.declaredDepth <= 16 ? 16 : 32;
}

int rasterPreciseColorDepth(const std::string& path) {
  RasterHeader header;
  return readRasterHeader(path, header) ? header.declaredDepth : 0;
}

ImageResult openRasterFromMemory(const void* data, std::uint64_t length) {
  ImageResult result;
  detail::RasterDecodeRequest request;
  request.data = static_cast<const std::uint8_t*>(data);
  request.size = static_cast<std::size_t>(length);
  request.name = "image in memory";
  detail::DecodedRaster decoded;
  const detail::RasterStatus status = detail::decodeRaster(request, decoded);
  result.errorCode = status.code;
  if (!status.ok()) {
    VORN_LOG_FAILURE(status.describe(request.name).c_str());
    return result;
  }
  try {
    result.image =
        std::make_shared<Image>(std::make_shared<ImageSource>(decoded.frame, decoded.metadata));
  } catch (const std::bad_alloc&) {
    result.errorCode = kImageReaderFailed;
    VORN_LOG_FAILURE("image in memory: image: out of memory");
  }
  return result;
}

}  // namespace vorn
