#pragma once

#include <memory>
#include <string>

#include "vorn/io/image.h"

namespace vorn::detail {

/// getThumbnailBySide whose raw decode, when no embedded preview serves, runs in the loader
/// child: a host that asked for out-of-process decoding never meets the raw decoder itself.
std::shared_ptr<ImageFrame> thumbnailBySideOutOfProcess(const std::string& path, int side,
                                                        bool highQuality,
                                                        std::shared_ptr<bool> cancel);

}  // namespace vorn::detail
