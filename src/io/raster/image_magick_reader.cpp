#include "vorn/io/image_magick_reader.h"

#include <algorithm>
#include <new>

#include "core/log_failure.h"
#include "io/raster/file_bytes.h"
#include "io/raster/raster_decode.h"

namespace vorn {

namespace {

detail::RasterStatus decodeFile(const std::string& path, _Size<int> size,
                                detail::DecodedRaster& decoded) {
  detail::RasterDecodeRequest request;
  request.name = path;
  request.expected = detail::rasterFormatFromExtension(path);
  if (request.expected == detail::RasterFormat::Unknown)
    return detail::RasterStatus::failure(kImageReaderFailed, "open",
                                         "not a jpg, jpeg, tif or tiff file");
  detail::FileBytes bytes;
  if (auto status = detail::readWholeFile(path, bytes); !status.ok()) return status;
  request.data = bytes.data.get();
  request.size = bytes.size;
  request.cover = _Size<int>(std::max(size.width, 0), std::max(size.height, 0));
  return detail::decodeRaster(request, decoded);
}

}  // namespace

ImageReaderErrorCode ImageMagickReader::openImage(const std::string& path, _Size<int> size) {
  image_.reset();
  detail::DecodedRaster decoded;
  detail::RasterStatus status = decodeFile(path, size, decoded);
  if (status.ok()) {
    try {
      image_ =
          std::make_shared<Image>(std::make_shared<ImageSource>(decoded.frame, decoded.metadata));
    } catch (const std::bad_alloc&) {
      status = detail::RasterStatus::failure(kImageReaderFailed, "image", "out of memory");
    }
  }
  if (!status.ok()) VORN_LOG_FAILURE(status.describe(path).c_str());
  return status.code;
}

}  // namespace vorn
