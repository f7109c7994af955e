#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "vorn/core/memory_manager.h"

namespace vorn::detail {

/// Scratch bytes from the pixel pool, so repeated reads of big blobs reuse warm pages.
class PooledBytes {
 public:
  explicit PooledBytes(std::size_t size)
      : data_(size ? MemoryManager::instance().allocate(size, false) : nullptr), size_(size) {
    if (size && !data_) throw std::bad_alloc();
  }
  ~PooledBytes() { MemoryManager::instance().free(data_); }
  PooledBytes(const PooledBytes&) = delete;
  PooledBytes& operator=(const PooledBytes&) = delete;

  std::uint8_t* data() { return data_; }
  const std::uint8_t* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  std::uint8_t* data_;
  std::size_t size_;
};

}  // namespace vorn::detail
