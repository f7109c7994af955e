// The camera-profile reader on arbitrary bytes: it either refuses with DcpFormatError or returns
// a profile whose tables match their dimensions and hold only finite values.
#include <cmath>
#include <cstdint>
#include <string>

#include "effects/raw/dcp_profile.h"

namespace {

bool usable(const vorn::detail::DcpHueSatMap& map) {
  if (map.empty()) return true;
  if (map.data.size() != 3 * map.hues * map.saturations * map.values) return false;
  if (map.saturations < 2 || map.data.size() > 3 * vorn::detail::kMaxDcpMapEntries) return false;
  for (const float v : map.data)
    if (!std::isfinite(v)) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size copy, so AddressSanitizer sees any read past the end of the bytes.
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  try {
    const vorn::detail::DcpProfile p = vorn::detail::parseDcp(bytes);
    if (!p.colorMatrix1) __builtin_trap();
    for (const auto* m : {&p.colorMatrix1, &p.colorMatrix2, &p.forwardMatrix1, &p.forwardMatrix2})
      if (*m)
        for (const double v : **m)
          if (!std::isfinite(v)) __builtin_trap();
    if (!usable(p.hueSatMap1) || !usable(p.hueSatMap2) || !usable(p.lookTable)) __builtin_trap();
    for (const auto& point : p.toneCurve)
      if (!(point[0] >= 0.0f && point[0] <= 1.0f && point[1] >= 0.0f && point[1] <= 1.0f))
        __builtin_trap();
  } catch (const vorn::detail::DcpFormatError&) {
  }
  return 0;
}
