#pragma once

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vorn::detail {

/// Runs body(firstRow, endRow) over [0, rows) on TBB's workers; kernels stay thread-agnostic.
template <typename Body>
void parallelRows(int rows, Body&& body) {
  if (rows <= 0) return;
  tbb::parallel_for(tbb::blocked_range<int>(0, rows),
                    [&](const tbb::blocked_range<int>& r) { body(r.begin(), r.end()); });
}

/// Runs body(first, end) over [0, count) elements in chunks of at least `grain`.
template <typename Body>
void parallelChunks(std::size_t count, std::size_t grain, Body&& body) {
  if (count == 0) return;
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count, std::max<std::size_t>(grain, 1)),
                    [&](const tbb::blocked_range<std::size_t>& r) { body(r.begin(), r.end()); });
}

/// memcpy split over the workers: one core cannot saturate the memory bus on its own.
inline void parallelCopy(void* dst, const void* src, std::size_t bytes) {
  constexpr std::size_t kSerialBelow = std::size_t(1) << 20;
  if (bytes < kSerialBelow) {
    if (bytes) std::memcpy(dst, src, bytes);
    return;
  }
  parallelChunks(bytes, std::size_t(256) << 10, [&](std::size_t first, std::size_t end) {
    std::memcpy(static_cast<std::uint8_t*>(dst) + first,
                static_cast<const std::uint8_t*>(src) + first, end - first);
  });
}

}  // namespace vorn::detail
