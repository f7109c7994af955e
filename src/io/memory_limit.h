#pragma once

#include <cstdint>
#include <string>

#include "vorn/core/geometry.h"

namespace vorn::detail {

/// The setting that replaces the memory bound, in MiB.
inline constexpr const char* kMaxMemorySetting = "ImageReader.MaxMemoryMiB";

/// The most pixel memory one image step may ask for at once: "ImageReader.MaxMemoryMiB" when it
/// holds a positive whole number, else three quarters of the memory this process may use (the
/// machine's, or its control group's limit when that is lower), so a step too large for the
/// machine is refused up front instead of being killed half-way.
std::uint64_t maxWorkingBytes();

/// Empty when `bytes` fit the memory bound, else a reason naming what needs them, how much and
/// the bound.
std::string checkWorkingBytes(std::uint64_t bytes, const std::string& what);

/// Empty when a float RGB frame of `size` is within the pixel cap and, with `alongside` more
/// bytes that the same step holds, within the memory bound; else a reason naming the limit.
/// Every decode, copy and resize in io asks before it allocates a frame.
std::string checkFrameAllocation(_Size<int> size, const std::string& what,
                                 std::uint64_t alongside = 0);
/// checkFrameAllocation for callers that answer with an empty result: a refusal is logged.
bool frameAllocationAllowed(_Size<int> size, const std::string& what);

}  // namespace vorn::detail
