#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <string>

#include "io/blob_builders.h"
#include "io/zlib_stream.h"
#include "vorn/io/image_compressor.h"

namespace vorn {
namespace {

using test::Bytes;
using Zlib = ImageCompressorLosslessZlib;
using detail::InflateEngine;
using detail::InflateTail;

// Expects `call` to throw CompressorException with exactly `message`.
template <typename Call>
void expectThrows(Call&& call, const std::string& message) {
  try {
    call();
    ADD_FAILURE() << "no exception, expected: " << message;
  } catch (const Zlib::CompressorException& error) {
    EXPECT_EQ(std::string(error.what()), message);
  }
}

const std::string kNoRoom = "there was not enough room in the output buffer";
const std::string kCorrupt = "the input data was corrupted or incomplete";

Bytes pattern(std::size_t n, unsigned seed = 7) {
  std::mt19937 random(seed);
  Bytes out(n);
  // Runs of repeated bytes mixed with noise, so the stream has matches and literals.
  for (std::size_t i = 0; i < n; ++i)
    out[i] = (i / 37) % 3 ? static_cast<std::uint8_t>(i / 50) : static_cast<std::uint8_t>(random());
  return out;
}

TEST(CompressorTracked, HeaderIsByteExactAndStreamIsZlibs) {
  const Bytes pixels = {0, 1, 2, 3, 4, 255};
  Bytes blob;
  Zlib::compressEx(pixels, blob, 3, 2, 4, 1, 7, 1, -1, 1, 0);
  const Bytes stream = test::zlibStream(pixels);
  Bytes expected = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1,    0,    0,    0,
                    0,    0,    0,    0,    1,    0,    0,    0,    3,    0,    0,    0,
                    2,    0,    0,    0,    4,    0,    0,    0,    1,    0,    0,    0,
                    7,    0,    0,    0,    1,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF};
  test::put64(expected, stream.size());
  expected.insert(expected.end(), stream.begin(), stream.end());
  EXPECT_EQ(blob, expected);

  // Every word lands at its own offset: distinct values show a swapped or misplaced field.
  Bytes other;
  Zlib::compressEx(pixels, other, 2, 3, 0x11223344u, 5, 2, 6, 9, 1, 0);
  ASSERT_GE(other.size(), 56u);
  EXPECT_EQ(Bytes(other.begin() + 20, other.begin() + 48),
            Bytes({2, 0, 0, 0, 3, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 5, 0,
                   0, 0, 2, 0, 0, 0, 6, 0, 0,    0,    9,    0,    0, 0}));
}

TEST(CompressorTracked, WritesNothingForZeroSidesOrAnotherVersion) {
  const Bytes pixels(12, 9);
  const Bytes sentinel = {42};
  for (auto [w, h, e, f] :
       {std::array<unsigned, 4>{0, 3, 1, 0}, {4, 0, 1, 0}, {4, 3, 2, 0}, {4, 3, 1, 1}}) {
    Bytes blob = sentinel;
    Zlib::compressEx(pixels, blob, w, h, 4, 1, 7, 1, -1, e, f);
    EXPECT_EQ(blob, sentinel) << w << " " << h << " " << e << " " << f;
  }
  Bytes blob = sentinel;
  expectThrows([&] { Zlib::compressEx(pixels, blob, 5, 3, 4, 1, 7, 1, -1, 1, 0); },
               "The source holds fewer bytes than width x height");
  expectThrows([&] { Zlib::compressEx(pixels, blob, 4, 3, 4, 1, 7, 1, 10, 1, 0); },
               "Invalid zlib compression level 10");
  EXPECT_EQ(blob, sentinel);
}

TEST(CompressorTracked, ReadsBackAndKeepsTheTailAfterAShortStream) {
  const Bytes pixels = pattern(3000);
  Bytes blob;
  Zlib::compressEx(pixels, blob, 60, 50, 4, 1, 7, 1, -1, 1, 0);
  for (InflateEngine engine : test::kEngines) {
    test::EngineScope scope(engine);
    Bytes out(3000);
    Zlib::uncompressEx(blob, out, out.size(), 1, 0);
    EXPECT_EQ(out, pixels);

    Bytes longer(3100, 0xAB);
    Zlib::uncompressEx(blob, longer, longer.size(), 1, 0);
    EXPECT_TRUE(std::equal(pixels.begin(), pixels.end(), longer.begin()));
    EXPECT_EQ(std::count(longer.begin() + 3000, longer.end(), 0xAB), 100);

    Bytes small(2999, 0);
    expectThrows([&] { Zlib::uncompressEx(blob, small, small.size(), 1, 0); }, kNoRoom);
    Bytes corrupt = blob;
    corrupt[corrupt.size() - 1] ^= 0x40;  // the Adler-32 no longer matches
    expectThrows([&] { Zlib::uncompressEx(corrupt, out, out.size(), 1, 0); }, kCorrupt);
  }
  Bytes out(3000, 0xCD);
  Zlib::uncompressEx({}, out, 3000, 1, 0);
  Zlib::uncompressEx(blob, out, 0, 1, 0);
  Zlib::uncompressEx(blob, out, 3000, 0, 0);
  Zlib::uncompressEx(blob, out, 3000, 1, 1);
  EXPECT_EQ(out, Bytes(3000, 0xCD));
  expectThrows([&] { Zlib::uncompressEx(Bytes(blob.begin(), blob.begin() + 55), out, 20, 1, 0); },
               "The blob is shorter than its 56-byte header");
  expectThrows([&] { Zlib::uncompressEx(blob, out, 3001, 1, 0); },
               "The destination is smaller than the expected length");
}

TEST(CompressorUntracked, InflatesFromOffsetEight) {
  const std::vector<float> values = {0.0f, 0.25f, 1.0f, -2.0f, 0.5f, 3.5f};
  const Bytes blob = test::untrackedBlob(3, 2, test::zlibStream(values.data(), 24));
  std::vector<float> out(7, 9.0f);
  Zlib::uncompress(blob, out.data(), 28);
  EXPECT_EQ(out, std::vector<float>({0.0f, 0.25f, 1.0f, -2.0f, 0.5f, 3.5f, 9.0f}));

  Zlib::uncompress(blob, nullptr, 28);
  Zlib::uncompress({}, out.data(), 28);
  Zlib::uncompress(blob, out.data(), 0);
  // A blob cut inside its header holds an empty stream, which zlib calls corrupt.
  expectThrows([&] { Zlib::uncompress(Bytes(blob.begin(), blob.begin() + 5), out.data(), 28); },
               kCorrupt);
  expectThrows([&] { Zlib::uncompress(blob, out.data(), 20); }, kNoRoom);
}

TEST(CompressorSimple, RoundTripAndExactLength) {
  std::vector<PixelRGB<float>> pixels(500);
  for (std::size_t i = 0; i < pixels.size(); ++i)
    pixels[i] = PixelRGB<float>(static_cast<float>(i % 7), 0.5f, static_cast<float>(i) / 500.0f);
  const std::size_t bytes = pixels.size() * sizeof(PixelRGB<float>);
  Bytes blob;
  Zlib::compressSimple(pixels.data(), blob, bytes, 6);
  EXPECT_EQ(blob, test::zlibStream(pixels.data(), bytes, 6));

  for (InflateEngine engine : test::kEngines) {
    test::EngineScope scope(engine);
    std::vector<PixelRGB<float>> out(pixels.size() + 1);
    Zlib::decompressSimple(blob, out.data(), bytes);
    EXPECT_TRUE(std::equal(pixels.begin(), pixels.end(), out.begin()));
    expectThrows([&] { Zlib::decompressSimple(blob, out.data(), bytes + 12); },
                 "Incorrect decompression");
    expectThrows([&] { Zlib::decompressSimple(blob, out.data(), bytes - 12); }, kNoRoom);
    expectThrows(
        [&] { Zlib::decompressSimple(Bytes(blob.begin(), blob.begin() + 10), out.data(), bytes); },
        kCorrupt);
  }
  expectThrows([&] { Zlib::compressSimple(nullptr, blob, 12, -1); },
               "There are no pixels to compress");
}

// Each engine against zlib's uncompress() itself: status, bytes written and every byte of
// the destination, tail included.
void expectEnginesAgree(const Bytes& stream, std::size_t capacity, const std::string& what) {
  Bytes byZlib(capacity + 1, 0x5A);
  uLongf zlibLength = capacity;
  const int zlibStatus = uncompress(byZlib.data(), &zlibLength, stream.data(), stream.size());
  for (InflateEngine engine : test::kEngines) {
    Bytes ours(capacity + 1, 0x5A);
    const auto result = detail::inflateInto(stream.data(), stream.size(), ours.data(), capacity,
                                            InflateTail::Preserve, engine);
    ASSERT_EQ(result.status, zlibStatus) << what;
    if (zlibStatus != Z_OK) continue;
    EXPECT_EQ(result.written, zlibLength) << what;
    EXPECT_EQ(ours, byZlib) << what;
  }
}

// Cutting the Adler-32 off is Z_BUF_ERROR when the output had just filled and Z_DATA_ERROR
// otherwise; the sweep holds both engines to zlib on that and on every other cut.
TEST(CompressorInflate, LibdeflateAgreesWithZlibOnEveryCutAndFlip) {
  const Bytes content = pattern(600, 3);
  const Bytes stream = test::zlibStream(content);
  for (std::size_t capacity : {content.size() - 1, content.size(), content.size() + 40}) {
    expectEnginesAgree(stream, capacity, "whole, capacity " + std::to_string(capacity));
    for (std::size_t cut = 0; cut < stream.size(); ++cut)
      expectEnginesAgree(Bytes(stream.begin(), stream.begin() + cut), capacity,
                         "cut at " + std::to_string(cut));
    for (std::size_t at = 0; at < stream.size(); ++at) {
      Bytes flipped = stream;
      flipped[at] ^= 0x21;
      expectEnginesAgree(flipped, capacity, "flip at " + std::to_string(at));
    }
  }
  Bytes trailing = stream;
  trailing.insert(trailing.end(), {1, 2, 3});
  expectEnginesAgree(trailing, content.size(), "trailing bytes");
}

TEST(CompressorInflate, RatioBoundHoldsForTheMostCompressibleInput) {
  const Bytes zeros(std::size_t(8) << 20, 0);
  const Bytes stream = test::zlibStream(zeros.data(), zeros.size(), 9);
  EXPECT_GE(detail::maxInflatedBytes(stream.size()), zeros.size());
  EXPECT_LT(detail::maxInflatedBytes(stream.size()), zeros.size() * 2);  // the bound is tight
  EXPECT_EQ(detail::maxInflatedBytes(UINT64_MAX / 2), UINT64_MAX);
}

}  // namespace
}  // namespace vorn
