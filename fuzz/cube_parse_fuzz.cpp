// The .cube table reader on arbitrary text: it either refuses with CubeFormatError or returns a
// table whose size, entry count and domain are usable by the interpolators.
#include <cmath>
#include <cstdint>
#include <string>

#include "effects/lut/cube_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size copy, so AddressSanitizer sees any read past the end of the text.
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    const vorn::detail::CubeLut lut = vorn::detail::parseCube(text);
    const auto side = static_cast<std::size_t>(lut.size);
    const int limit = lut.is3D ? vorn::detail::kMaxCube3DSize : vorn::detail::kMaxCube1DSize;
    if (lut.size < 2 || lut.size > limit) __builtin_trap();
    if (lut.values.size() != 3 * (lut.is3D ? side * side * side : side)) __builtin_trap();
    for (const float v : lut.values)
      if (!std::isfinite(v)) __builtin_trap();
    for (std::size_t c = 0; c < 3; ++c)
      if (!(lut.domainMin[c] < lut.domainMax[c])) __builtin_trap();
  } catch (const vorn::detail::CubeFormatError&) {
  }
  return 0;
}
