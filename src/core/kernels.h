#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn::detail {

// Hot loops compiled for several instruction sets and picked at load time; the library
// itself targets the x86-64 baseline.

/// v = v > 0 ? v : 0, then min(v, 1): NaN becomes 0.
void clampFloats(float* values, std::size_t count);
/// dst[i] = clamp(src[i]).
void clampCopyFloats(float* dst, const float* src, std::size_t count);
/// out[i] = round(clamp(values[i]) * 255): NaN becomes 0.
void quantizeToBytes(const float* values, std::size_t count, std::uint8_t* out);
/// out[i] = round(clamp(values[i]) * 65535): NaN becomes 0.
void quantizeToWords(const float* values, std::size_t count, std::uint16_t* out);
/// acc[i] += weight * row[i].
void accumulateScaledFloats(float* acc, const float* row, float weight, std::size_t count);

}  // namespace vorn::detail
