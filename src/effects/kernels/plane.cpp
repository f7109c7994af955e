#include "effects/kernels/plane.h"

#include <cstdlib>
#include <new>

#include "vorn/core/memory_manager.h"

namespace vorn::detail {

namespace {

// Small planes (noise-estimate tiles, row scratch) come from the heap, which reuses its memory
// without fresh pages. Through the pool each would age every idle frame-sized block it passes,
// and a denoiser's thousand tiles per render would expire the very planes the next render needs.
constexpr std::size_t kPooledPlaneBytes = 256 * 1024;
constexpr std::size_t kHeapAlignment = 64;

}  // namespace

Plane::Plane(int planeWidth, int planeHeight) : width_(planeWidth), height_(planeHeight) {
  if (size() == 0) return;
  const std::size_t bytes = size() * sizeof(float);
  if (bytes < kPooledPlaneBytes) {
    const std::size_t rounded = (bytes + kHeapAlignment - 1) & ~(kHeapAlignment - 1);
    void* block = std::aligned_alloc(kHeapAlignment, rounded);
    if (!block) throw std::bad_alloc();
    values_ = std::unique_ptr<float, PlaneFree>(static_cast<float*>(block), PlaneFree{false});
    return;
  }
  auto* block = MemoryManager::instance().allocate(bytes, false);
  if (!block) throw std::bad_alloc();
  values_ = std::unique_ptr<float, PlaneFree>(reinterpret_cast<float*>(block), PlaneFree{true});
}

void PlaneFree::operator()(float* block) const {
  if (pooled) {
    MemoryManager::instance().free(reinterpret_cast<std::uint8_t*>(block));
  } else {
    std::free(block);
  }
}

}  // namespace vorn::detail
