#include "vorn/core/image_load_state.h"

namespace vorn {

const char* imageLoadStateName(ImageLoadState state) {
  switch (state) {
    case LOAD_ERROR:
      return "LOAD_ERROR";
    case THUMBNAIL:
      return "THUMBNAIL";
    case QUARTER_LOADED:
      return "QUARTER_LOADED";
    case FULL_LOADED:
      return "FULL_LOADED";
  }
  return "UNKNOWN";
}

}  // namespace vorn
