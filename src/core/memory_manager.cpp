#include "vorn/core/memory_manager.h"

#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <list>
#include <mutex>
#include <unordered_map>

#include "core/log_failure.h"

namespace vorn {
namespace {

constexpr std::size_t kSmallAlignment = 64;
constexpr std::size_t kHugePage = std::size_t(2) << 20;
// Blocks this large are mapped 2 MiB-aligned and asked for huge pages: first touch of a
// fresh full-size frame on 4 KiB pages costs tens of times the copy that fills it.
constexpr std::size_t kHugeBlockFrom = std::size_t(8) << 20;
constexpr int kFreshAge = 5;

struct Mapping {
  void* base = nullptr;
  std::size_t length = 0;
};

std::uint8_t* systemAllocate(std::size_t bytes, Mapping& mapping) {
  if (bytes >= kHugeBlockFrom) {
    const std::size_t rounded = (bytes + kHugePage - 1) & ~(kHugePage - 1);
    const std::size_t length = rounded + kHugePage;
    void* base = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return nullptr;
    const auto addr = reinterpret_cast<std::uintptr_t>(base);
    const std::uintptr_t aligned = (addr + kHugePage - 1) & ~(std::uintptr_t(kHugePage) - 1);
    madvise(reinterpret_cast<void*>(aligned), rounded, MADV_HUGEPAGE);
    mapping = Mapping{base, length};
    return reinterpret_cast<std::uint8_t*>(aligned);
  }
  const std::size_t rounded = (bytes + kSmallAlignment - 1) & ~(kSmallAlignment - 1);
  mapping = Mapping{};
  return static_cast<std::uint8_t*>(std::aligned_alloc(kSmallAlignment, rounded));
}

void systemFree(std::uint8_t* block, const Mapping& mapping) {
  if (mapping.base) {
    munmap(mapping.base, mapping.length);
  } else {
    std::free(block);
  }
}

}  // namespace

class MemoryManager::MemoryManagerImpl {
 public:
  struct Record {
    std::uint8_t* ptr = nullptr;
    std::uint64_t size = 0;
    int age = kFreshAge;
    bool inUse = true;
    bool cached = false;
    Mapping mapping;
  };
  using List = std::list<Record>;

  std::uint8_t* allocate(std::size_t bytes, bool zero) {
    std::lock_guard lock(mutex_);
    List::iterator taken = records_.end();
    for (auto it = records_.begin(); it != records_.end();) {
      if (it->inUse) {
        ++it;
        continue;
      }
      const double request = static_cast<double>(bytes);
      const double capacity = static_cast<double>(it->size);
      if (request <= capacity && request > capacity * 0.5) {
        taken = it;
        break;
      }
      if (it->cached) --it->age;
      if (it->age < 1) {
        it = erase(it);
      } else {
        ++it;
      }
    }
    if (taken != records_.end()) {
      taken->age = kFreshAge;
      taken->inUse = true;
      if (zero) std::memset(taken->ptr, 0, bytes);
      return taken->ptr;
    }

    Record record;
    record.size = bytes;
    record.cached = cachingEnabled_;
    record.ptr = systemAllocate(bytes == 0 ? 1 : bytes, record.mapping);
    if (!record.ptr && !records_.empty()) {
      // Idle blocks are only a cache: give them back before declaring the system out of memory.
      releaseIdleLocked();
      record.ptr = systemAllocate(bytes == 0 ? 1 : bytes, record.mapping);
    }
    if (!record.ptr) {
      char text[96];
      std::snprintf(text, sizeof text, "Out of memory allocating %zu bytes", bytes);
      VORN_LOG_FAILURE(text);
      return nullptr;
    }
    if (zero) std::memset(record.ptr, 0, bytes);
    records_.push_front(record);
    index_.emplace(record.ptr, records_.begin());
    return record.ptr;
  }

  void free(std::uint8_t* block) {
    if (!block) return;
    std::lock_guard lock(mutex_);
    const auto found = index_.find(block);
    if (found == index_.end()) {
      VORN_LOG_FAILURE("Buffer isn't managed by MemoryManager");
      return;
    }
    const List::iterator record = found->second;
    if (!record->cached) {
      erase(record);
      return;
    }
    record->inUse = false;
  }

  void setCachingEnabled(bool enabled) {
    std::lock_guard lock(mutex_);
    cachingEnabled_ = enabled;
    if (!enabled) releaseIdleLocked();
  }

  bool cachingEnabled() const {
    std::lock_guard lock(mutex_);
    return cachingEnabled_;
  }

  void releaseIdle() {
    std::lock_guard lock(mutex_);
    releaseIdleLocked();
  }

  Stats stats() const {
    std::lock_guard lock(mutex_);
    Stats s;
    for (const Record& r : records_) {
      ++s.blocks;
      if (r.inUse) {
        ++s.blocksInUse;
        s.bytesInUse += r.size;
      } else {
        s.bytesIdle += r.size;
      }
    }
    return s;
  }

 private:
  List::iterator erase(List::iterator it) {
    index_.erase(it->ptr);
    systemFree(it->ptr, it->mapping);
    return records_.erase(it);
  }

  void releaseIdleLocked() {
    for (auto it = records_.begin(); it != records_.end();) {
      it = it->inUse ? std::next(it) : erase(it);
    }
  }

  mutable std::mutex mutex_;
  List records_;  // newest first
  std::unordered_map<std::uint8_t*, List::iterator> index_;
  // On by default: an editor reallocates the same frame sizes on every slider move.
  bool cachingEnabled_ = true;
};

MemoryManager::MemoryManager() : impl_(std::make_unique<MemoryManagerImpl>()) {}
MemoryManager::~MemoryManager() = default;

MemoryManager& MemoryManager::instance() {
  // Leaked on purpose: buffers may be freed by static destructors after main returns.
  static MemoryManager* manager = new MemoryManager();
  return *manager;
}

std::uint8_t* MemoryManager::allocate(std::size_t bytes, bool zero) {
  return impl_->allocate(bytes, zero);
}
void MemoryManager::free(std::uint8_t* block) { impl_->free(block); }
void MemoryManager::setCachingEnabled(bool enabled) { impl_->setCachingEnabled(enabled); }
bool MemoryManager::isCachingEnabled() const { return impl_->cachingEnabled(); }
void MemoryManager::releaseIdle() { impl_->releaseIdle(); }
MemoryManager::Stats MemoryManager::stats() const { return impl_->stats(); }

std::string MemoryManager::statusText() const {
  const Stats s = stats();
  char text[160];
  std::snprintf(text, sizeof text, "MemoryManager: %zu blocks (%zu in use), %llu MB in use, %llu MB idle",
                s.blocks, s.blocksInUse, static_cast<unsigned long long>(s.bytesInUse >> 20),
                static_cast<unsigned long long>(s.bytesIdle >> 20));
  return text;
}

}  // namespace vorn
