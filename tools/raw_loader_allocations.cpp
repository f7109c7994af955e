// The loader's allocation functions: glibc's own, noting every refusal. A decoder meets its
// address-space limit wherever it happens to allocate and reports that as anything from "too
// large" to "damaged data"; the loader instead ends the load as the fault it is. Only this
// executable defines them, so no host process is affected.
#include "raw_loader_allocations.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define VORN_LOADER_WATCHES_ALLOCATIONS 1
#endif

namespace vorn::loader {
namespace {

std::atomic<bool> gRefused{false};

[[maybe_unused]] void* noted(void* block, std::size_t bytes) {
  if (!block && bytes > 0) gRefused.store(true, std::memory_order_relaxed);
  return block;
}

}  // namespace

bool allocationRefused() {
  return gRefused.load(std::memory_order_relaxed);
}

}  // namespace vorn::loader

#ifdef VORN_LOADER_WATCHES_ALLOCATIONS
extern "C" {

void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t bytes);
void* __libc_memalign(std::size_t alignment, std::size_t bytes);

void* malloc(std::size_t bytes) {
  return vorn::loader::noted(__libc_malloc(bytes), bytes);
}

void* calloc(std::size_t count, std::size_t size) {
  return vorn::loader::noted(__libc_calloc(count, size), count * size);
}

void* realloc(void* block, std::size_t bytes) {
  return vorn::loader::noted(__libc_realloc(block, bytes), bytes);
}

void* memalign(std::size_t alignment, std::size_t bytes) {
  return vorn::loader::noted(__libc_memalign(alignment, bytes), bytes);
}

void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
  return vorn::loader::noted(__libc_memalign(alignment, bytes), bytes);
}

int posix_memalign(void** out, std::size_t alignment, std::size_t bytes) {
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  void* block = vorn::loader::noted(__libc_memalign(alignment, bytes), bytes);
  if (!block && bytes > 0) return ENOMEM;
  *out = block;
  return 0;
}

void* mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) {
  const long mapped = syscall(SYS_mmap, address, length, protection, flags, fd, offset);
  if (mapped == -1) {
    if (errno == ENOMEM) vorn::loader::noted(nullptr, length);
    return MAP_FAILED;
  }
  return reinterpret_cast<void*>(mapped);
}

void* mmap64(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) {
  return mmap(address, length, protection, flags, fd, offset);
}

}  // extern "C"
#endif
