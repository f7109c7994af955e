#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "io/raster/raster_status.h"

namespace vorn::detail {

/// A whole file read into memory.
struct FileBytes {
  std::unique_ptr<std::uint8_t[]> data;
  std::size_t size = 0;
};

/// Reads the whole file; code 4 at stage "open" when it is missing, unreadable or a folder.
RasterStatus readWholeFile(const std::string& path, FileBytes& bytes);

}  // namespace vorn::detail
