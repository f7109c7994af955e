#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "io/blob_builders.h"
#include "io/magick_environment.h"
#include "support/log_capture.h"
#include "vorn/core/data_store.h"
#include "vorn/core/memory_manager.h"
#include "vorn/io/image_compressor.h"

namespace vorn {
namespace {

using test::Bytes;
using Proxy = ImageCompressorProxy;
using Zlib = ImageCompressorLosslessZlib;

// What a stored byte reads back as: the product taken in double and rounded once to float.
float readBack(std::uint8_t byte) {
  return static_cast<float>(byte * 0.003921569);
}

Bytes inflateAll(const Bytes& blob, std::size_t size) {
  Bytes out(size);
  Zlib::uncompressEx(blob, out, size, 1, 0);
  return out;
}

TEST(MaskBlobWrite, AllOnesStoreAs255AndReadBackAsTheQuantisedValue) {
  MaskImage mask(_Size<int>(5, 3), 1.0f);
  Bytes blob;
  Proxy::compressMask(mask, blob);
  Bytes expected = test::trackedBlob(5, 3, test::zlibStream(Bytes(15, 255)));
  EXPECT_EQ(blob, expected);

  std::shared_ptr<MaskImage> read;
  Proxy::uncompressMask(blob, read);
  ASSERT_TRUE(read);
  ASSERT_EQ(read->size(), _Size<int>(5, 3));
  EXPECT_EQ(read->at(4, 2), readBack(255));
  EXPECT_NE(read->at(0, 0), 1.0f);
  EXPECT_EQ(read->colorProfile, nullptr);
}

TEST(MaskBlobWrite, QuantisationClampsAndTruncates) {
  const float values[] = {-0.5f, 1.7f, std::numeric_limits<float>::quiet_NaN(), 0.999f, 1.0f, 0.5f};
  MaskImage mask(values, _Size<int>(3, 2));
  Bytes blob;
  Proxy::compressMask(mask, blob);
  EXPECT_EQ(inflateAll(blob, 6), Bytes({0, 255, 0, 254, 255, 127}));

  Bytes untouched = {1, 2, 3};
  Proxy::compressMask(MaskImage(_Size<int>(0, 4)), untouched);
  EXPECT_EQ(untouched, Bytes({1, 2, 3}));
}

TEST(MaskBlobRoundTrip, BothEnginesReadWhatTheWriterWrote) {
  std::mt19937 random(11);
  std::uniform_real_distribution<float> value(-0.2f, 1.2f);
  MaskImage mask(_Size<int>(137, 61));
  for (int y = 0; y < mask.height; ++y)
    for (int x = 0; x < mask.width; ++x) mask.at(x, y) = x < 40 ? 0.0f : value(random);
  Bytes blob;
  Proxy::compressMask(mask, blob);
  std::vector<std::uint8_t> bytes;
  discretizeMask(mask, bytes);
  for (auto engine : test::kEngines) {
    test::EngineScope scope(engine);
    std::shared_ptr<MaskImage> read;
    Proxy::uncompressMask(blob, read);
    ASSERT_TRUE(read);
    for (std::size_t i = 0; i < bytes.size(); ++i)
      ASSERT_EQ(read->data[i], readBack(bytes[i])) << "sample " << i;
  }
}

TEST(MaskBlobRead, UntrackedLayoutInflatesTheStoredFloatsAsTheyAre) {
  const float values[] = {0.0f, 0.125f, 1.0f, 0.75f, std::numeric_limits<float>::quiet_NaN(), 2.0f};
  std::shared_ptr<MaskImage> read;
  Proxy::uncompressMask(test::untrackedBlob(2, 3, test::zlibStream(values, sizeof values)), read);
  ASSERT_TRUE(read);
  ASSERT_EQ(read->size(), _Size<int>(2, 3));
  // Bit for bit what was stored: nothing is clamped, not even NaN or a value above 1.
  EXPECT_EQ(std::memcmp(read->data, values, sizeof values), 0);
}

TEST(MaskBlobRead, EitherVersionWordAllOnesMeansTracked) {
  const Bytes stream = test::zlibStream(Bytes({0, 255, 51, 102}));
  // Read as untracked, these blobs would claim a 4294967295-wide mask and be refused.
  for (auto [first, second] :
       {std::pair<std::uint32_t, std::uint32_t>{0xFFFFFFFFu, 2u}, {2u, 0xFFFFFFFFu}}) {
    std::shared_ptr<MaskImage> read;
    Proxy::uncompressMask(test::trackedBlob(2, 2, stream, first, second), read);
    ASSERT_TRUE(read) << first << " " << second;
    EXPECT_EQ(read->at(1, 0), readBack(255));
    EXPECT_EQ(read->at(1, 1), readBack(102));
  }
  EXPECT_TRUE((STrackVersionFormat{2, 3}.isUntrackedVersion()));
  EXPECT_FALSE((STrackVersionFormat{-1, 3}.isUntrackedVersion()));
  EXPECT_FALSE((STrackVersionFormat{3, -1}.isUntrackedVersion()));
}

TEST(MaskBlobRead, ShortStreamLeavesZerosBehindIt) {
  for (auto engine : test::kEngines) {
    test::EngineScope scope(engine);
    std::shared_ptr<MaskImage> read;
    Proxy::uncompressMask(test::trackedBlob(3, 2, test::zlibStream(Bytes({255, 255}))), read);
    ASSERT_TRUE(read);
    EXPECT_EQ(std::vector<float>(read->data, read->data + 6),
              std::vector<float>({readBack(255), readBack(255), 0, 0, 0, 0}));
  }
}

TEST(MaskBlobRead, TinyBlobsAreIgnoredSilently) {
  test::LogCapture log;
  auto original = std::make_shared<MaskImage>(_Size<int>(2, 2), 0.5f);
  std::shared_ptr<MaskImage> mask = original;
  Proxy::uncompressMask({}, mask);
  Proxy::uncompressMask(Bytes(8, 0xFF), mask);
  EXPECT_EQ(mask, original);
  EXPECT_EQ(log.countContaining("uncompressMask"), 0u);
}

// The message the lower-level reader throws for a blob, or "read" when it reads it.
std::string readerError(const Bytes& blob, bool tracked) {
  try {
    tracked ? Proxy::uncompressMask_1_0(blob) : Proxy::uncompressMask_untracked(blob);
    return "read";
  } catch (const Zlib::CompressorException& error) {
    return error.what();
  }
}

std::uint64_t pooledBytes() {
  const MemoryManager::Stats stats = MemoryManager::instance().stats();
  return stats.bytesInUse + stats.bytesIdle;
}

// uncompressMask leaves the pointer and logs one line; the reader below it throws the reason.
void expectRefused(const Bytes& blob, bool tracked, const std::string& reason) {
  test::LogCapture log;
  auto original = std::make_shared<MaskImage>(_Size<int>(1, 1), 0.25f);
  std::shared_ptr<MaskImage> mask = original;
  Proxy::uncompressMask(blob, mask);
  EXPECT_EQ(mask, original) << reason;
  EXPECT_EQ(log.countContaining("ImageCompressorProxy::uncompressMask"), 1u) << reason;
  EXPECT_EQ(log.countEndingWith(" " + reason), 1u) << reason;
  EXPECT_EQ(readerError(blob, tracked), reason);
}

TEST(MaskBlobRead, HostileHeadersAreRefusedBeforeAnyAllocation) {
  const Bytes tiny = test::zlibStream(Bytes(4, 0));
  const Bytes small = test::trackedBlob(2, 2, tiny);
  // With caching on, a block drawn below stays counted after it is freed; idle blocks of earlier
  // tests are let go first, so ageing them out cannot make the pool shrink meanwhile.
  ASSERT_TRUE(MemoryManager::instance().isCachingEnabled());
  MemoryManager::instance().releaseIdle();
  const std::uint64_t before = pooledBytes();
  expectRefused(test::trackedBlob(10000, 10000, tiny), true,
                "Mask blob claims 10000 x 10000 pixels, more than its 12-byte stream can hold");
  expectRefused(test::trackedBlob(20000, 20000, tiny), true,
                "Mask blob claims 20000 x 20000 pixels, more than the limit of 268402689");
  expectRefused(
      Bytes(80, 0xFF), true,
      "Mask blob claims 4294967295 x 4294967295 pixels, more than the limit of 268402689");
  expectRefused(Bytes(small.begin(), small.begin() + 40), true,
                "Tracked mask blob is shorter than its 56-byte header");
  expectRefused(test::trackedBlob(0, 7, tiny), true, "Mask blob has a zero side: 0 x 7");
  expectRefused(test::trackedBlob(3, 3, {}), true,
                "Mask blob claims 3 x 3 pixels, more than its 0-byte stream can hold");
  expectRefused(test::untrackedBlob(9000, 9000, tiny), false,
                "Mask blob claims 9000 x 9000 pixels, more than its 12-byte stream can hold");
  expectRefused(test::untrackedBlob(5, 0, tiny), false, "Mask blob has a zero side: 5 x 0");
  // Only the 1 x 1 masks made above were drawn from the pool, none of the claimed sizes.
  EXPECT_LT(pooledBytes(), before + (std::uint64_t(1) << 20));
}

TEST(MaskBlobRead, CorruptStreamIsLoggedWithZlibsMessage) {
  const Bytes stream = test::zlibStream(Bytes(4, 0));
  Bytes corrupt = stream;
  ASSERT_GT(corrupt.size(), 4u);
  corrupt[corrupt.size() - 1] ^= 1;  // the Adler-32 no longer matches
  expectRefused(test::trackedBlob(2, 2, corrupt), true,
                "the input data was corrupted or incomplete");
  expectRefused(test::trackedBlob(1, 2, stream), true,
                "there was not enough room in the output buffer");
}

TEST(MaskBlobRead, PixelCapFollowsThePositiveSetting) {
  DataStore& settings = DataStore::instance();
  const Bytes blob = test::trackedBlob(20000, 20000, test::zlibStream(Bytes(4, 0)));
  EXPECT_EQ(detail::maxImagePixels(), 268402689u);
  settings.set(detail::kMaxPixelsSetting, "400000000");
  EXPECT_EQ(detail::maxImagePixels(), 400000000u);
  EXPECT_EQ(readerError(blob, true),
            "Mask blob claims 20000 x 20000 pixels, more than its 12-byte stream can hold");
  settings.set(detail::kMaxPixelsSetting, "1000");
  EXPECT_EQ(detail::maxImagePixels(), 1000u);
  EXPECT_EQ(readerError(test::trackedBlob(40, 40, test::zlibStream(Bytes(1600, 0))), true),
            "Mask blob claims 40 x 40 pixels, more than the limit of 1000");
  for (const char* bad : {"0", "-5", "lots", ""}) {
    settings.set(detail::kMaxPixelsSetting, bad);
    EXPECT_EQ(detail::maxImagePixels(), 268402689u) << bad;
  }
  settings.set(detail::kMaxPixelsSetting, "lots");
  EXPECT_EQ(detail::maxImagePixels(), 268402689u);
  settings.clear();
}

}  // namespace
}  // namespace vorn
