#pragma once

#include <cstddef>

#include "core/dispatch.h"

namespace vorn::detail {

/// body(i) for every i below count, cloned for the wider vector units: a body of plain
/// arithmetic on arrays then vectorises with them, not only with the baseline's. Bodies capture
/// pointers by value: through a reference, a store may alias the pointer and stop vectorising.
template <typename Body>
VORN_DISPATCH_TEMPLATE void clonedLoop(const Body& body, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) body(i);
}

/// clonedLoop for bodies that read tables at computed places (gathers): the caller promises that
/// no iteration writes what another reads, which the vectoriser cannot check for a gather.
template <typename Body>
VORN_DISPATCH_TEMPLATE void clonedTableLoop(const Body& body, std::size_t count) {
  VORN_IVDEP
  for (std::size_t i = 0; i < count; ++i) body(i);
}

}  // namespace vorn::detail
