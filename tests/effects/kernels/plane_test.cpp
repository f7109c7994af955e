#include <gtest/gtest.h>

#include <vector>

#include "effects/kernels/plane.h"
#include "vorn/core/memory_manager.h"

namespace vorn::detail {
namespace {

// A denoiser's noise estimate makes hundreds of tile-sized planes per render; through the pool
// each would age the idle frame-sized blocks, and the next render would fault them in afresh.
TEST(Plane, SmallScratchLeavesThePoolsIdleFramesAlone) {
  MemoryManager& memory = MemoryManager::instance();
  const bool before = memory.isCachingEnabled();
  memory.setCachingEnabled(true);
  const std::uint64_t idleBefore = memory.stats().bytesIdle;
  {
    Plane frame(1024, 1024);
    frame.row(1023)[1023] = 1.0f;
  }
  const std::uint64_t idleWithFrame = memory.stats().bytesIdle;
  ASSERT_GE(idleWithFrame, idleBefore + 1024u * 1024u * sizeof(float));

  for (int round = 0; round < 3; ++round) {
    std::vector<Plane> tiles;
    for (int i = 0; i < 8; ++i) {
      tiles.emplace_back(64, 64);
      tiles.back().row(63)[63] = static_cast<float>(i);
      EXPECT_EQ(tiles.back().row(63)[63], static_cast<float>(i));
    }
  }
  EXPECT_EQ(memory.stats().bytesIdle, idleWithFrame);

  // The frame's block is still there for the next plane of its size.
  const std::uint64_t inUseBefore = memory.stats().bytesInUse;
  {
    Plane again(1024, 1024);
    EXPECT_EQ(memory.stats().bytesIdle, idleWithFrame - 1024u * 1024u * sizeof(float));
    EXPECT_EQ(memory.stats().bytesInUse, inUseBefore + 1024u * 1024u * sizeof(float));
  }
  memory.setCachingEnabled(before);
}

}  // namespace
}  // namespace vorn::detail
