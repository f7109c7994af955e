#include "io/raster/raster_open.h"

#include "core/log_failure.h"
#include "io/source_processing.h"

namespace vorn::detail {

RasterStatus decodeRasterFile(const ImageFileClass& file, RasterDecodeRequest request,
                              DecodedRaster& decoded) {
  if (file.format != ImageFileFormat::Jpeg && file.format != ImageFileFormat::Tiff)
    return RasterStatus::failure(kImageReaderFailed, "open", "not a jpg, jpeg, tif or tiff file");
  if (!file.isRead()) return RasterStatus::failure(file.readCode, "open", file.readError);
  request.data = file.bytes.get();
  request.size = file.size;
  request.name = file.path;
  request.expected = file.format;
  return decodeRaster(request, decoded);
}

ImageResult openRasterImage(const ImageFileClass& file, const RasterDecodeRequest& request) {
  DecodedRaster decoded;
  const RasterStatus status = decodeRasterFile(file, request, decoded);
  if (status.ok()) return finishedImage(decoded.frame, decoded.metadata, file.path);
  if (status.code != kImageReaderCancelled) VORN_LOG_FAILURE(status.describe(file.path).c_str());
  ImageResult result;
  result.errorCode = status.code;
  return result;
}

}  // namespace vorn::detail
