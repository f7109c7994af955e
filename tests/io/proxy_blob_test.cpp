#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>

#include "io/blob_builders.h"
#include "io/input_limits.h"
#include "support/log_capture.h"
#include "support/scoped_setting.h"
#include "vorn/io/image_compressor.h"

namespace vorn {
namespace {

using test::Bytes;
using Frame = _ImageData<PixelRGB<float>>;
using Proxy = ImageCompressorProxy;

// Smooth content, as a proxy of a photograph is; JPEG keeps it within a few levels.
std::shared_ptr<Frame> smoothFrame(int w, int h, std::shared_ptr<ColorProfile> profile) {
  auto frame = std::make_shared<Frame>(_Size<int>(w, h), std::move(profile));
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      frame->at(x, y) = PixelRGB<float>(static_cast<float>(x) / static_cast<float>(w),
                                        static_cast<float>(y) / static_cast<float>(h),
                                        0.5f + 0.3f * std::sin(static_cast<float>(x + y) / 9.0f));
  return frame;
}

TEST(ProxyBlob, RoundTripWithinJpegToleranceForEveryProfileCode) {
  const std::pair<std::shared_ptr<ColorProfile>, std::uint32_t> profiles[] = {
      {ColorProfileType::sRGB(), 0},
      {ColorProfileType::sRGBLinear(), 1},
      {ColorProfileType::melissaRGB(), 2},
      {ColorProfileType::proPhotoRGB(), 3},
      {ColorProfileType::None(), 7}};
  for (const auto& [profile, code] : profiles) {
    const auto frame = smoothFrame(67, 45, profile);
    Bytes blob;
    Proxy::compress(*frame, blob);
    ASSERT_GT(blob.size(), 15u);
    Bytes header;
    for (std::uint32_t word : {67u, 45u, code}) test::put32(header, word);
    EXPECT_EQ(Bytes(blob.begin(), blob.begin() + 12), header);
    EXPECT_EQ(Bytes(blob.begin() + 12, blob.begin() + 15), Bytes({0xFF, 0xD8, 0xFF}));

    std::shared_ptr<Frame> read;
    Proxy::uncompress(blob, read);
    ASSERT_TRUE(read) << code;
    ASSERT_EQ(read->size(), frame->size());
    EXPECT_EQ(read->colorProfile, profile) << code;
    double worst = 0.0, total = 0.0;
    for (int y = 0; y < 45; ++y)
      for (int x = 0; x < 67; ++x)
        for (int c = 0; c < 3; ++c) {
          const double error = std::abs((&read->at(x, y).r)[c] - (&frame->at(x, y).r)[c]);
          worst = std::max(worst, error);
          total += error;
        }
    EXPECT_LT(worst, 0.05) << code;
    EXPECT_LT(total / (67 * 45 * 3), 0.01) << code;
  }
}

TEST(ProxyBlob, WriterRefusesWhatItCannotCode) {
  Bytes blob = {9};
  try {
    Proxy::compress(*smoothFrame(8, 8, ColorProfileType::adobeRGB()), blob);
    ADD_FAILURE() << "an Adobe RGB frame was coded";
  } catch (const ImageCompressorLosslessZlib::CompressorException& error) {
    EXPECT_EQ(std::string(error.what()), "Undefined to_colorProfileCode() conversion");
  }
  Proxy::compress(Frame(_Size<int>(0, 5)), blob);
  EXPECT_EQ(blob, Bytes({9}));
  // Past ImageMagick's size limits (which follow the pixel cap) its encoder would abort the
  // process; such a frame is refused first.
  try {
    const test::ScopedSetting cap(detail::kMaxPixelsSetting, "1000");
    Proxy::compress(Frame(_Size<int>(1001, 1), PixelRGB<float>(0.5f)), blob);
    ADD_FAILURE() << "a frame wider than the limit was coded";
  } catch (const ImageCompressorLosslessZlib::CompressorException& error) {
    EXPECT_EQ(std::string(error.what()),
              "Proxy image 1001 x 1 is wider than ImageMagick's limit of 1000 pixels");
  }
  EXPECT_EQ(blob, Bytes({9}));

  // NaN and out-of-range values are clamped on the way in, never handed to the encoder.
  auto frame = smoothFrame(16, 16, ColorProfileType::sRGB());
  frame->at(3, 3) = PixelRGB<float>(std::numeric_limits<float>::quiet_NaN(), 7.0f, -3.0f);
  Proxy::compress(*frame, blob);
  std::shared_ptr<Frame> read;
  Proxy::uncompress(blob, read);
  ASSERT_TRUE(read);
  ASSERT_EQ(read->size(), frame->size());
  EXPECT_TRUE(std::isfinite(read->at(3, 3).r));
}

TEST(ProxyBlob, CorruptBlobsLeaveThePointerAndLogOneLine) {
  Bytes good;
  Proxy::compress(*smoothFrame(32, 24, ColorProfileType::sRGB()), good);
  const auto withHeader = [&](std::uint32_t w, std::uint32_t h, std::uint32_t code) {
    Bytes blob;
    for (std::uint32_t word : {w, h, code}) test::put32(blob, word);
    blob.insert(blob.end(), good.begin() + 12, good.end());
    return blob;
  };
  Bytes notJpeg = good;
  notJpeg[12] = 0x89;
  const std::pair<Bytes, std::string> cases[] = {
      {Bytes(good.begin(), good.begin() + 11), "Proxy blob is shorter than its 12-byte header"},
      {withHeader(0, 24, 0), "Proxy blob has a zero side: 0 x 24"},
      {withHeader(0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu),
       "Proxy blob claims 4294967295 x 4294967295 pixels, more than the limit"},
      {withHeader(32, 24, 4), "Proxy blob names no known colour profile: code 4"},
      {notJpeg, "Proxy blob holds no JPEG image"},
      {Bytes(good.begin(), good.begin() + 14), "Proxy blob holds no JPEG image"},
      {withHeader(33, 24, 0), "Proxy JPEG is 32 x 24, its header says 33 x 24"},
      {Bytes(good.begin(), good.begin() + static_cast<long>(good.size() / 2)), ""},
  };
  for (const auto& [blob, reason] : cases) {
    test::LogCapture log;
    auto original = std::make_shared<Frame>(_Size<int>(1, 1));
    std::shared_ptr<Frame> image = original;
    Proxy::uncompress(blob, image);
    EXPECT_EQ(image, original) << reason;
    EXPECT_EQ(log.countContaining("ImageCompressorProxy::uncompress"), 1u) << reason;
    if (!reason.empty()) {
      EXPECT_EQ(log.countEndingWith(" " + reason), 1u) << reason;
    }
  }
}

TEST(ProxyBlob, ConcurrentRoundTripsShareOneImageMagickSetUp) {
  std::vector<std::thread> threads;
  std::vector<int> ok(4, 0);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, &ok] {
      const auto frame = smoothFrame(40 + t, 30, ColorProfileType::sRGB());
      Bytes blob;
      Proxy::compress(*frame, blob);
      std::shared_ptr<Frame> read;
      Proxy::uncompress(blob, read);
      ok[static_cast<std::size_t>(t)] = read && read->size() == frame->size();
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(ok, std::vector<int>(4, 1));
}

}  // namespace
}  // namespace vorn
