#pragma once

#include <memory>
#include <string>

#include "vorn/core/geometry.h"
#include "vorn/core/image_load_state.h"
#include "vorn/io/image.h"

namespace vorn {

// Every thumbnail is upright and no larger than asked. `highQuality` takes the file's embedded
// preview only when it covers the asked size (else the image is decoded, DCT-scaled for JPEG);
// without it any embedded preview is taken as the fast path. Null (and the log line
// "Can't open image at path: " + path) when the file cannot be read; null without a line when
// `cancel` turns true.

/// A thumbnail fitted inside `size` (aspect kept; -1 or 0 leaves a side free).
std::shared_ptr<ImageFrame> getThumbnailBySize(
    const std::string& path, _Size<int> size, bool highQuality,
    std::shared_ptr<const ImageMetadata>* metadata = nullptr, std::shared_ptr<bool> cancel = {});
/// A thumbnail whose longer side is `side` (or the image's own, when that is smaller).
std::shared_ptr<ImageFrame> getThumbnailBySide(
    const std::string& path, int side, bool highQuality,
    std::shared_ptr<const ImageMetadata>* metadata = nullptr, std::shared_ptr<bool> cancel = {});
/// The largest preview or 1/2..1/8 DCT decode that fits inside `size` as it is, without
/// resampling; resampled only when none fits.
std::shared_ptr<ImageFrame> getThumbnailNative(
    const std::string& path, _Size<int> size, bool highQuality,
    std::shared_ptr<const ImageMetadata>* metadata = nullptr, std::shared_ptr<bool> cancel = {});
/// getThumbnailBySize wrapped as an Image whose frame carries `state`.
ImageResult openThumbnailAsImage(const std::string& path, _Size<int> size, ImageReaderOpenFlag flag,
                                 std::shared_ptr<bool> cancel, ImageLoadState state);

}  // namespace vorn
