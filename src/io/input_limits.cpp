#include "io/input_limits.h"

#include <charconv>
#include <string>

#include "vorn/core/data_store.h"

namespace vorn::detail {

std::uint64_t maxImagePixels() {
  const std::string text = DataStore::instance().getString(kMaxPixelsSetting, {});
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, value);
  if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end || value == 0)
    return kDefaultMaxPixels;
  return value;
}

}  // namespace vorn::detail
