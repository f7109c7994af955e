#include "io/memory_limit.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>

#include "core/log_failure.h"
#include "io/input_limits.h"
#include "vorn/core/data_store.h"
#include "vorn/core/pixel.h"

namespace vorn::detail {
namespace {

std::uint64_t parsePositive(const std::string& text) {
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, value);
  return parsed.ec == std::errc() && parsed.ptr == end ? value : 0;
}

std::uint64_t usableMemory() {
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long pageSize = ::sysconf(_SC_PAGE_SIZE);
  std::uint64_t bytes = pages > 0 && pageSize > 0 ? static_cast<std::uint64_t>(pages) *
                                                        static_cast<std::uint64_t>(pageSize)
                                                  : std::uint64_t(4) << 30;
  // A container's limit (cgroup v2) ends the process long before the machine runs out.
  std::ifstream limit("/sys/fs/cgroup/memory.max");
  std::string text;
  if (limit >> text) {
    if (const std::uint64_t cgroup = parsePositive(text); cgroup > 0)
      bytes = std::min(bytes, cgroup);
  }
  return bytes;
}

std::string mebibytes(std::uint64_t bytes) {
  return std::to_string((bytes + (std::uint64_t(1) << 20) - 1) >> 20) + " MiB";
}

}  // namespace

std::uint64_t maxWorkingBytes() {
  const std::uint64_t mib = parsePositive(DataStore::instance().getString(kMaxMemorySetting, {}));
  if (mib > 0) return mib > (UINT64_MAX >> 20) ? UINT64_MAX : mib << 20;
  static const std::uint64_t fallback = usableMemory() / 4 * 3;
  return fallback;
}

std::string checkWorkingBytes(std::uint64_t bytes, const std::string& what) {
  const std::uint64_t bound = maxWorkingBytes();
  if (bytes <= bound) return {};
  return what + " needs " + mebibytes(bytes) + ", more than the memory bound of " +
         mebibytes(bound) + " (" + kMaxMemorySetting + ")";
}

std::string checkFrameAllocation(_Size<int> size, const std::string& what,
                                 std::uint64_t alongside) {
  const std::string sizeText = std::to_string(size.width) + " x " + std::to_string(size.height);
  if (size.width <= 0 || size.height <= 0) return what + ": no pixels in " + sizeText;
  const std::uint64_t pixels =
      static_cast<std::uint64_t>(size.width) * static_cast<std::uint64_t>(size.height);
  if (pixels > maxImagePixels())
    return what + ": " + sizeText + " exceeds the pixel cap of " +
           std::to_string(maxImagePixels()) + " (" + kMaxPixelsSetting + ")";
  return checkWorkingBytes(pixels * sizeof(PixelRGB<float>) + alongside,
                           what + " (" + sizeText + ")");
}

bool frameAllocationAllowed(_Size<int> size, const std::string& what) {
  const std::string reason = checkFrameAllocation(size, what);
  if (!reason.empty()) VORN_LOG_FAILURE(reason.c_str());
  return reason.empty();
}

}  // namespace vorn::detail
