#include "io/open_stages.h"

#include <string>
#include <utility>

#include "core/log_failure.h"
#include "io/raster/raster_open.h"
#include "io/raw/raw_open.h"
#include "vorn/io/image_reader.h"

namespace vorn::detail {

// An unusable request keeps the image's size.
ImageResult resizeToRequested(const ImageResult& result, const _Size<int>& size) {
  const _Size<int> target = ImageReader::requestedSize(size, result.image->size());
  if (target.width < 1 || target.height < 1) {
    VORN_LOG_FAILURE(("Requested size " + std::to_string(size.width) + "x" +
                      std::to_string(size.height) + " is invalid; the image keeps its own size")
                         .c_str());
    return result;
  }
  return resizeImage(result, target);
}

namespace {

ImageResult openRaw(const ImageFileClass& file, const _Size<int>& size,
                    std::shared_ptr<bool> cancel, const StopCheck& stop) {
  const ImageResult started = raw::startRawLoad(file, std::move(cancel));
  if (!started.image || size == ImageReader::kNoResizeSize) return started;
  // Dropping the started image on the way out stops its loaders.
  stopIfRequested(stop);
  ImageResult resized = resizeToRequested(started, size);
  if (resized.errorCode == kImageReaderCancelled) throw ProcessingCancelled{};
  return resized;
}

ImageResult openRaster(const ImageFileClass& file, const _Size<int>& size, const StopCheck& stop) {
  stopIfRequested(stop);
  RasterDecodeRequest request;
  request.stop = stop;
  const ImageResult decoded = openRasterImage(file, request);
  if (decoded.errorCode == kImageReaderCancelled) throw ProcessingCancelled{};
  if (!decoded.image || size == ImageReader::kNoResizeSize) return decoded;
  stopIfRequested(stop);
  return resizeToRequested(decoded, size);
}

}  // namespace

ImageResult openClassified(const ImageFileClass& file, const _Size<int>& size,
                           std::shared_ptr<bool> cancel, const StopCheck& stop) {
  if (file.raw)
    return processSource(SourceKind::Raw, [&] { return openRaw(file, size, cancel, stop); });
  return processSource(SourceKind::Plain, [&] { return openRaster(file, size, stop); });
}

}  // namespace vorn::detail
