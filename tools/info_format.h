#pragma once

#include <string>

#include "vorn/io/photo_info.h"

namespace vorn::cli {

/// One "Label: value" line per field the photo has, for a person to read.
std::string formatInfoText(const PhotoInfo& info);
/// One JSON object with snake_case keys, absent fields left out and numbers as numbers.
std::string formatInfoJson(const PhotoInfo& info);

}  // namespace vorn::cli
