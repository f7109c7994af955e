#pragma once

#include "io/raster/raster_decode.h"
#include "vorn/io/image_file_class.h"

namespace vorn::detail {

/// Decodes a classified JPEG or TIFF from the contents it holds, with the scaling and stop of
/// `request` (its data, name and expected format are the file's); code 4 at stage "open" when
/// the file is neither or was not read.
RasterStatus decodeRasterFile(const ImageFileClass& file, RasterDecodeRequest request,
                              DecodedRaster& decoded);
/// decodeRasterFile as a finished Image; a failure other than a stop writes its one log line.
ImageResult openRasterImage(const ImageFileClass& file, const RasterDecodeRequest& request);

}  // namespace vorn::detail
