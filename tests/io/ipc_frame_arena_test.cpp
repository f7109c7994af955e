#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "io/ipc/ipc_channel.h"

namespace vorn::ipc {
namespace {

// The child grows the buffer while the host keeps an older, smaller mapping: the host sees the
// new size only when it asks for it, old bytes survive growth, and a notice claiming more than
// the buffer holds is refused instead of read past the end.
TEST(IpcFrameArena, HostViewFollowsTheChildsGrowthAndRefusesOversizedFrames) {
  FrameArena child;
  std::string error;
  ASSERT_TRUE(child.create(10, error)) << error;
  EXPECT_GE(child.fd(), 10);
  ASSERT_TRUE(child.reserve(4096, error)) << error;
  std::memset(child.data(), 0x5a, 4096);

  FrameArena host;
  ASSERT_TRUE(host.adopt(dup(child.fd()), error)) << error;
  ASSERT_TRUE(host.view(4096, error)) << error;
  EXPECT_EQ(host.data()[4095], 0x5a);
  EXPECT_FALSE(host.view(4097, error));
  EXPECT_NE(error.find("4097"), std::string::npos) << error;

  ASSERT_TRUE(child.reserve(std::size_t(8) << 20, error)) << error;
  child.data()[(std::size_t(8) << 20) - 1] = 0x33;
  ASSERT_TRUE(host.view(std::size_t(8) << 20, error)) << error;
  EXPECT_EQ(host.data()[0], 0x5a);
  EXPECT_EQ(host.data()[(std::size_t(8) << 20) - 1], 0x33);
  EXPECT_FALSE(child.reserve(0, error));
}

TEST(IpcFrameArena, AdoptRefusesWhatIsNoMemoryFile) {
  int pipeEnds[2];
  ASSERT_EQ(pipe(pipeEnds), 0);
  FrameArena arena;
  std::string error;
  EXPECT_FALSE(arena.adopt(pipeEnds[0], error));
  EXPECT_FALSE(arena.adopt(-1, error));
  EXPECT_FALSE(arena.view(1, error));
  close(pipeEnds[0]);
  close(pipeEnds[1]);
}

}  // namespace
}  // namespace vorn::ipc
