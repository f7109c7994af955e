#pragma once

#include <string>

#include "io/raster/export_metadata.h"
#include "io/raster/export_rows.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn::detail {

/// The chroma subsampling an export gets: an explicit choice, else 4:4:4 from quality 90 up
/// (where halved colour resolution shows at the edges of saturated detail) and 4:2:0 below.
JpegSubsampling effectiveSubsampling(const ExportParameters& parameters);

/// Encodes the 8-bit rows into `fd` band by band, with the profile, EXIF and XMP embedded;
/// false with a reason from the encoder.
bool encodeJpeg(int fd, const ExportRows& rows, const ExportParameters& parameters,
                const ExportMetadata& metadata, std::string& reason);

}  // namespace vorn::detail
