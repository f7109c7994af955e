#include "vorn/io/image_magick_reader.h"

#include <algorithm>

#include "io/raster/raster_open.h"

namespace vorn {

ImageReaderErrorCode ImageMagickReader::openImage(const std::string& path, _Size<int> size) {
  image_.reset();
  detail::RasterDecodeRequest request;
  request.cover = _Size<int>(std::max(size.width, 0), std::max(size.height, 0));
  const ImageResult opened = detail::openRasterImage(classifyImageFile(path), request);
  image_ = opened.image;
  return opened.errorCode;
}

}  // namespace vorn
