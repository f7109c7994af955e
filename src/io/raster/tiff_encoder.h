#pragma once

#include <string>
#include <vector>

#include "io/raster/export_metadata.h"
#include "io/raster/export_rows.h"

namespace vorn::detail {

/// Encodes the pages into the empty file `fd` as a deflated TIFF with the predictor that suits
/// the samples; strips of a band are compressed in parallel. The first page carries the
/// metadata; each page embeds its profile. False with a reason from the encoder.
bool encodeTiff(int fd, const std::vector<const ExportRows*>& pages, const ExportMetadata& metadata,
                const std::string& name, std::string& reason);

}  // namespace vorn::detail
