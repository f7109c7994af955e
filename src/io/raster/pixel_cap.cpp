#include "io/raster/pixel_cap.h"

#include <cstdint>
#include <string>

#include "io/magick_environment.h"

namespace vorn::detail {

RasterStatus checkPixelCap(_Size<int> stored) {
  const std::uint64_t pixels =
      static_cast<std::uint64_t>(stored.width) * static_cast<std::uint64_t>(stored.height);
  if (pixels <= maxImagePixels()) return RasterStatus::success();
  return RasterStatus::failure(kImageReaderTooLarge, "limit",
                               std::to_string(stored.width) + " x " +
                                   std::to_string(stored.height) + " exceeds the pixel cap of " +
                                   std::to_string(maxImagePixels()));
}

}  // namespace vorn::detail
