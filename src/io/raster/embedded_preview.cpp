#include "io/raster/embedded_preview.h"

#include <exiv2/exiv2.hpp>

#include <exception>

#include "io/raster/exif_metadata.h"
#include "io/raster/exiv2_environment.h"
#include "io/raster/orientation.h"
#include "vorn/core/log.h"

namespace vorn::detail {

RasterStatus readMetadataAndPreview(const std::uint8_t* data, std::size_t size,
                                    const std::string& name, const PreviewChooser& choose,
                                    std::shared_ptr<ImageMetadata>& metadata,
                                    EmbeddedPreview& preview) {
  ensureExiv2Environment();
  Exiv2FileScope scope(name);
  metadata = std::make_shared<ImageMetadata>();
  preview = EmbeddedPreview{};
  std::unique_ptr<Exiv2::Image> image;
  try {
    image = openExiv2Memory(data, size);
  } catch (const std::exception& error) {
    return RasterStatus::failure(kImageReaderFailed, "metadata", error.what());
  }
  try {
    fillImageMetadata(image->exifData(), image->xmpData(), *metadata);
    const Exiv2::PreviewManager manager(*image);
    std::vector<Exiv2::PreviewProperties> usable;
    std::vector<_Size<int>> sizes;
    for (const Exiv2::PreviewProperties& p : manager.getPreviewProperties()) {
      if (p.mimeType_ != "image/jpeg" && p.mimeType_ != "image/tiff") continue;
      if (p.width_ == 0 || p.height_ == 0 || p.width_ > 65535 || p.height_ > 65535) continue;
      usable.push_back(p);
      sizes.push_back(
          orientedSize(_Size<int>(static_cast<int>(p.width_), static_cast<int>(p.height_)),
                       metadata->mutableParameters.orientation));
    }
    const int chosen = sizes.empty() ? -1 : choose(sizes);
    if (chosen < 0 || chosen >= static_cast<int>(usable.size())) return RasterStatus::success();
    const Exiv2::PreviewImage picked =
        manager.getPreviewImage(usable[static_cast<std::size_t>(chosen)]);
    if (picked.size() == 0 || picked.pData() == nullptr) return RasterStatus::success();
    preview.bytes.assign(picked.pData(), picked.pData() + picked.size());
    const Exiv2::PreviewProperties& props = usable[static_cast<std::size_t>(chosen)];
    preview.size = _Size<int>(static_cast<int>(props.width_), static_cast<int>(props.height_));
  } catch (const std::exception& error) {
    // A broken preview directory costs the preview, not the thumbnail.
    LogWarning("%s: embedded preview dropped: %s", name.c_str(), error.what());
    preview = EmbeddedPreview{};
    return RasterStatus::success();
  }
  return RasterStatus::success();
}

}  // namespace vorn::detail
