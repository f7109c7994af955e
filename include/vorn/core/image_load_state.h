#pragma once

#include <cstdint>

namespace vorn {

/// How far a frame has loaded; a newly built frame is FULL_LOADED.
enum ImageLoadState : std::int32_t {
  LOAD_ERROR = 0,
  THUMBNAIL = 1,
  QUARTER_LOADED = 2,
  FULL_LOADED = 3,
};

/// "LOAD_ERROR", "THUMBNAIL", "QUARTER_LOADED", "FULL_LOADED", or "UNKNOWN".
const char* imageLoadStateName(ImageLoadState state);

}  // namespace vorn
