#pragma once

#include <memory>

#include "io/raw/raw_decoder.h"
#include "vorn/io/image.h"
#include "vorn/io/image_file_class.h"

namespace vorn::raw {

/// The EXIF record where it says something, the raw decoder's values where it does not.
std::shared_ptr<const ImageMetadata> mergeMetadata(std::shared_ptr<const ImageMetadata> exif,
                                                   const ImageMetadata& decoder);
/// Identifies the input and starts an ImageSourceRaw over it; one log line on failure ("DNG is
/// not raw" for a file named .dng that the decoder does not take).
ImageResult startRawSource(std::shared_ptr<const RawInput> input,
                           std::shared_ptr<const ImageMetadata> exif, std::shared_ptr<bool> cancel,
                           bool dngByName);
/// Starts the background load of a classified raw file; code 5 without touching the contents
/// when `cancel` is already set.
ImageResult startRawLoad(const ImageFileClass& file, std::shared_ptr<bool> cancel);

}  // namespace vorn::raw
