#pragma once

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_reduce.h>
#if defined(__SANITIZE_THREAD__)
#include <thread>
#endif

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace vorn::detail {

#if defined(__SANITIZE_THREAD__)
/// The thread-sanitizer build splits loops over plain threads instead: Debian's TBB is not
/// instrumented, so its hand-offs (and its own bookkeeping on the caller's stack) would read as
/// races, while thread start and join are seen. Bodies still run concurrently and are checked.
template <typename Index, typename Body>
void forkJoin(Index count, Index grain, const Body& body) {
  const Index threads = static_cast<Index>(std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
  const Index parts = std::max<Index>(1, std::min<Index>(threads, (count + grain - 1) / grain));
  const auto bounds = [&](Index part) { return count * part / parts; };
  std::vector<std::thread> helpers;
  for (Index part = 1; part < parts; ++part)
    helpers.emplace_back([&, part] { body(bounds(part), bounds(part + 1)); });
  body(bounds(0), bounds(1));
  for (std::thread& helper : helpers) helper.join();
}
#endif

/// Runs body(firstRow, endRow) over [0, rows) on TBB's workers; kernels stay thread-agnostic.
template <typename Body>
void parallelRows(int rows, Body&& body) {
  if (rows <= 0) return;
#if defined(__SANITIZE_THREAD__)
  forkJoin(rows, 1, body);
#else
  tbb::parallel_for(tbb::blocked_range<int>(0, rows),
                    [&](const tbb::blocked_range<int>& r) { body(r.begin(), r.end()); });
#endif
}

/// Runs body(first, end) over [0, count) elements in chunks of at least `grain`.
template <typename Body>
void parallelChunks(std::size_t count, std::size_t grain, Body&& body) {
  if (count == 0) return;
#if defined(__SANITIZE_THREAD__)
  forkJoin(count, std::max<std::size_t>(grain, 1), body);
#else
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count, std::max<std::size_t>(grain, 1)),
                    [&](const tbb::blocked_range<std::size_t>& r) { body(r.begin(), r.end()); });
#endif
}

/// Reduces body(first, end, value) over [0, count) in chunks of `grain`, joining the partial
/// values in a fixed tree so that the result is the same to the last bit on any thread count.
template <typename Value, typename Body, typename Join>
Value deterministicReduce(int count, int grain, Value identity, const Body& body,
                          const Join& join) {
  if (count <= 0) return identity;
#if defined(__SANITIZE_THREAD__)
  // Chunk partials joined left to right: deterministic too, though not bit-equal to the tree.
  const int chunks = (count + grain - 1) / grain;
  std::vector<Value> partial(static_cast<std::size_t>(chunks), identity);
  forkJoin(chunks, 1, [&](int first, int end) {
    for (int c = first; c < end; ++c)
      partial[static_cast<std::size_t>(c)] =
          body(c * grain, std::min(count, (c + 1) * grain), identity);
  });
  Value total = identity;
  for (const Value& value : partial) total = join(total, value);
  return total;
#else
  return tbb::parallel_deterministic_reduce(
      tbb::blocked_range<int>(0, count, grain), identity,
      [&](const tbb::blocked_range<int>& r, Value value) {
        return body(r.begin(), r.end(), value);
      },
      [&](const Value& a, const Value& b) { return join(a, b); });
#endif
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
