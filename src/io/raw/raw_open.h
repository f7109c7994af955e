#pragma once

#include <functional>
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

/// A raw file decoded in the caller's thread, with nothing else holding its frame.
struct DecodedRawFile {
  std::shared_ptr<ImageFrame> frame;
  std::shared_ptr<const ImageMetadata> metadata;
  ImageReaderErrorCode code = kImageReaderFailed;
};

/// Decodes a classified raw file once, at half size when that still covers `cover` (upright; a
/// side of 0 is free, (0, 0) asks for the full size), else at full size; one log line on
/// failure other than a stop.
DecodedRawFile decodeRawFile(const ImageFileClass& file, _Size<int> cover, FailOn failOn,
                             const std::function<bool()>& stop);

}  // namespace vorn::raw
