#include <utility>

#include "core/log_failure.h"
#include "io/ipc/frame_decode_ipc.h"
#include "io/raster/raster_open.h"
#include "io/raw/raw_open.h"
#include "vorn/io/image_reader.h"

namespace vorn {

OwnedFrame ImageReader::decodeFrame(const ImageFileClass& file, const FrameRequest& request) {
  const std::shared_ptr<bool> cancel = request.cancel;
  const auto stop = [cancel] { return raw::isCancelRequested(cancel); };
  OwnedFrame result;
  if (stop()) {
    result.errorCode = kImageReaderCancelled;
    return result;
  }
  if (file.raw && request.outOfProcess && !file.path.empty())
    return ipc::decodeRawFrameInChild(file, request);
  if (file.raw) {
    raw::DecodedRawFile decoded = raw::decodeRawFile(file, request.cover, request.failOn, stop);
    result.errorCode = decoded.code;
    result.frame = std::move(decoded.frame);
    result.metadata = std::move(decoded.metadata);
    return result;
  }
  detail::RasterDecodeRequest raster;
  raster.cover = request.cover;
  raster.failOn = request.failOn;
  raster.stop = stop;
  detail::DecodedRaster decoded;
  const detail::RasterStatus status = detail::decodeRasterFile(file, raster, decoded);
  result.errorCode = status.code;
  if (!status.ok()) {
    if (status.code != kImageReaderCancelled) VORN_LOG_FAILURE(status.describe(file.path).c_str());
    return result;
  }
  result.frame = std::move(decoded.frame);
  result.metadata = std::move(decoded.metadata);
  return result;
}

}  // namespace vorn
