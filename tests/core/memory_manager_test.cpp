#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "vorn/core/memory_manager.h"

namespace vorn {
namespace {

// The pool is shared by every test of one process: each test starts without idle blocks and
// leaves none behind, with the caching policy it found.
class MemoryManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    cachingBefore_ = pool.isCachingEnabled();
    pool.setCachingEnabled(true);
    pool.releaseIdle();
  }
  void TearDown() override {
    pool.releaseIdle();
    pool.setCachingEnabled(cachingBefore_);
  }
  MemoryManager& pool = MemoryManager::instance();

 private:
  bool cachingBefore_ = true;
};

TEST_F(MemoryManagerTest, ReusesOnlyForMoreThanHalfAndAtMostAll) {
  std::uint8_t* block = pool.allocate(1000, false);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0u);
  pool.free(block);

  std::uint8_t* small = pool.allocate(500, false);  // exactly half: not reused
  EXPECT_NE(small, block);
  std::uint8_t* big = pool.allocate(1001, false);  // larger: not reused
  EXPECT_NE(big, block);
  std::uint8_t* fit = pool.allocate(600, false);
  EXPECT_EQ(fit, block);
  for (auto* p : {small, big, fit}) pool.free(p);
}

TEST_F(MemoryManagerTest, IdleBlockIsReleasedAfterFivePassingAllocations) {
  std::uint8_t* block = pool.allocate(1000, false);
  pool.free(block);
  std::vector<std::uint8_t*> others;
  for (int i = 0; i < 4; ++i) others.push_back(pool.allocate(100, false));
  EXPECT_EQ(pool.stats().bytesIdle, 1000u);  // four passes: still kept
  others.push_back(pool.allocate(100, false));
  EXPECT_EQ(pool.stats().bytesIdle, 0u);  // the fifth releases it
  for (auto* p : others) pool.free(p);
}

TEST_F(MemoryManagerTest, ReuseResetsTheAgeAndZeroClears) {
  std::uint8_t* block = pool.allocate(256, false);
  ASSERT_NE(block, nullptr);
  for (int i = 0; i < 256; ++i) block[i] = 0xAB;
  pool.free(block);
  std::uint8_t* again = pool.allocate(200, true);
  ASSERT_EQ(again, block);
  for (int i = 0; i < 200; ++i) ASSERT_EQ(again[i], 0) << i;
  EXPECT_EQ(again[200], 0xAB);  // only the requested bytes are cleared
  pool.free(again);
}

TEST_F(MemoryManagerTest, DisabledCachingReleasesAtOnce) {
  std::uint8_t* cached = pool.allocate(4096, false);
  pool.free(cached);
  EXPECT_EQ(pool.stats().bytesIdle, 4096u);
  pool.setCachingEnabled(false);
  EXPECT_EQ(pool.stats().bytesIdle, 0u);  // turning it off drops idle blocks

  std::uint8_t* block = pool.allocate(4096, false);
  pool.free(block);
  EXPECT_EQ(pool.stats().blocks, 0u);
  EXPECT_FALSE(pool.isCachingEnabled());
}

TEST_F(MemoryManagerTest, UnknownBlockIsLoggedAndIgnored) {
  test::LogCapture log;
  std::uint8_t stray[16];
  pool.free(stray);
  pool.free(nullptr);
  EXPECT_EQ(log.countEndingWith(" Buffer isn't managed by MemoryManager"), 1u);
  EXPECT_EQ(pool.stats().blocks, 0u);
}

TEST_F(MemoryManagerTest, LargeBlocksAreHugePageAlignedAndRecycled) {
  const std::size_t bytes = std::size_t(40) << 20;
  std::uint8_t* block = pool.allocate(bytes, true);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % (std::size_t(2) << 20), 0u);
  EXPECT_EQ(block[bytes - 1], 0);
  block[bytes - 1] = 7;
  pool.free(block);
  std::uint8_t* again = pool.allocate(bytes - 100, false);
  EXPECT_EQ(again, block);
  pool.free(again);
}

TEST_F(MemoryManagerTest, ImpossibleRequestReturnsNull) {
  test::LogCapture log;
  EXPECT_EQ(pool.allocate(std::size_t(1) << 62, false), nullptr);
  EXPECT_EQ(log.countContaining("Out of memory"), 1u);
}

TEST_F(MemoryManagerTest, ConcurrentAllocateAndFreeKeepTheBooks) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 2000; ++i) {
        const std::size_t bytes = 64 + static_cast<std::size_t>((i * 37 + t * 11) % 4096);
        std::uint8_t* p = pool.allocate(bytes, false);
        if (p == nullptr) {
          ADD_FAILURE() << "allocation of " << bytes << " bytes failed";
          return;
        }
        p[0] = static_cast<std::uint8_t>(t);
        p[bytes - 1] = static_cast<std::uint8_t>(t);
        pool.free(p);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(pool.stats().blocksInUse, 0u);
  EXPECT_EQ(pool.stats().bytesInUse, 0u);
}

}  // namespace
}  // namespace vorn
