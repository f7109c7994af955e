#pragma once

#include <memory>

#include "io/source_processing.h"
#include "vorn/io/image.h"
#include "vorn/io/image_file_class.h"

namespace vorn::detail {

/// Opens a classified file in this thread. A JPEG or TIFF is decoded, turned upright with its
/// profile and resized; a raw file starts its loaders and, for a size, waits for a frame that
/// covers it. `stop` is asked between those stages (the loaders read `cancel` themselves); a
/// stop ends the open with code 5 and no image. `size` as ImageReader::open_sync takes it.
ImageResult openClassified(const ImageFileClass& file, const _Size<int>& size,
                           std::shared_ptr<bool> cancel, const StopCheck& stop);
/// The result resized to `size` with its -1 sides worked out from the image's aspect.
ImageResult resizeToRequested(const ImageResult& result, const _Size<int>& size);

}  // namespace vorn::detail
