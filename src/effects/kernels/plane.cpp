#include "effects/kernels/plane.h"

#include <new>

#include "vorn/core/memory_manager.h"

namespace vorn::detail {

Plane::Plane(int planeWidth, int planeHeight) : width_(planeWidth), height_(planeHeight) {
  if (size() == 0) return;
  auto* block = MemoryManager::instance().allocate(size() * sizeof(float), false);
  if (!block) throw std::bad_alloc();
  values_.reset(reinterpret_cast<float*>(block));
}

void Plane::PoolFree::operator()(float* block) const {
  MemoryManager::instance().free(reinterpret_cast<std::uint8_t*>(block));
}

}  // namespace vorn::detail
