#pragma once

#include "vorn/io/image.h"
#include "vorn/io/image_source_raw.h"

namespace vorn::bench {

/// Waits for an opened raw file's quarter or full frame; false when the open gave no raw source,
/// no frame or an error.
inline bool waitForRawFrame(const ImageResult& result, bool quarterOnly) {
  auto* source =
      result.image ? dynamic_cast<ImageSourceRawBase*>(result.image->source().get()) : nullptr;
  if (!source) return false;
  if (quarterOnly)
    source->waitForQuarterFrame();
  else
    source->waitForFullRaw();
  return source->getImageData() != nullptr && source->errorCode() == kImageReaderOk;
}

}  // namespace vorn::bench
