#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace vorn {

/// Process-wide pool of pixel arrays. Freed blocks are kept and handed out again for requests
/// of more than half and at most all of their size; an idle block survives five allocations
/// that pass over it. One mutex guards everything.
class MemoryManager {
 public:
  class MemoryManagerImpl;

  struct Stats {
    std::size_t blocks = 0;        ///< records in the list
    std::size_t blocksInUse = 0;
    std::uint64_t bytesInUse = 0;
    std::uint64_t bytesIdle = 0;   ///< cached blocks waiting for reuse
  };

  /// Created on first use, never destroyed.
  static MemoryManager& instance();

  /// At least `bytes` bytes, 64-byte aligned (2 MiB and huge pages for large blocks);
  /// cleared when `zero` is set. Null (and a log line) when the system has no memory left.
  std::uint8_t* allocate(std::size_t bytes, bool zero);
  /// Returns a block that allocate gave out; null is ignored, an unknown block is logged.
  void free(std::uint8_t* block);
  /// Policy for blocks allocated from now on; turning it off releases every idle block.
  void setCachingEnabled(bool enabled);
  bool isCachingEnabled() const;
  /// Releases every idle cached block.
  void releaseIdle();
  Stats stats() const;
  /// One line for debug overlays: block counts and megabytes in use and idle.
  std::string statusText() const;

 private:
  MemoryManager();
  ~MemoryManager();
  std::unique_ptr<MemoryManagerImpl> impl_;
};

}  // namespace vorn
