#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "effects/effect_test_support.h"
#include "effects/raw/dcp_profile.h"

namespace vorn {
namespace {

using detail::DcpFormatError;
using detail::parseDcp;

/// Writes DCP bytes: a header, one directory and each tag's values after it.
class DcpWriter {
 public:
  explicit DcpWriter(bool bigEndian = false) : big_(bigEndian) {}

  /// Values stored as the given TIFF type (3 short, 4 long, 10 signed rational, 11 float).
  DcpWriter& tag(std::uint16_t id, std::uint16_t type, std::vector<double> values) {
    tags_.push_back({id, type, std::move(values), {}});
    return *this;
  }
  DcpWriter& text(std::uint16_t id, const std::string& s) {
    tags_.push_back({id, 2, {}, s + '\0'});
    return *this;
  }
  DcpWriter& matrix(std::uint16_t id, const std::array<double, 9>& m) {
    return tag(id, 10, std::vector<double>(m.begin(), m.end()));
  }

  std::string bytes() const {
    std::string out = big_ ? "MMCR" : "IIRC";
    put(out, 8, 4);
    put(out, tags_.size(), 2);
    std::string data;
    const std::size_t dataStart = 8 + 2 + 12 * tags_.size() + 4;
    for (const Tag& t : tags_) {
      std::string values = t.ascii;
      for (const double v : t.values) {
        if (t.type == 3) put(values, static_cast<std::uint64_t>(v), 2);
        if (t.type == 4) put(values, static_cast<std::uint64_t>(v), 4);
        if (t.type == 10) {
          put(values, static_cast<std::uint32_t>(static_cast<std::int32_t>(std::lround(v * 10000))),
              4);
          put(values, 10000, 4);
        }
        if (t.type == 11) {
          const auto f = static_cast<float>(v);
          std::uint32_t bits;
          std::memcpy(&bits, &f, 4);
          put(values, bits, 4);
        }
      }
      const std::size_t size = t.type == 10 ? 8 : t.type == 3 ? 2 : t.type == 2 ? 1 : 4;
      put(out, t.id, 2);
      put(out, t.type, 2);
      put(out, values.size() / size, 4);
      if (values.size() <= 4) {
        out += values + std::string(4 - values.size(), '\0');
      } else {
        put(out, dataStart + data.size(), 4);
        data += values;
      }
    }
    put(out, 0, 4);
    return out + data;
  }

 private:
  struct Tag {
    std::uint16_t id, type;
    std::vector<double> values;
    std::string ascii;
  };
  void put(std::string& out, std::uint64_t v, int size) const {
    for (int i = 0; i < size; ++i) {
      const int shift = 8 * (big_ ? size - 1 - i : i);
      out += static_cast<char>((v >> shift) & 0xff);
    }
  }
  bool big_;
  std::vector<Tag> tags_;
};

constexpr std::array<double, 9> kIdentity{1, 0, 0, 0, 1, 0, 0, 0, 1};

/// A profile of identity matrices calibrated under A and D65, with the given extra tags.
DcpWriter identityProfile(bool big = false) {
  DcpWriter w(big);
  w.matrix(50721, kIdentity).matrix(50722, kIdentity).tag(50778, 3, {17}).tag(50779, 3, {21});
  w.matrix(50964, kIdentity).matrix(50965, kIdentity).text(50936, "Test profile");
  return w;
}

/// A hue x saturation x value table whose every entry is (hueShift, satScale, valScale).
std::vector<double> uniformMap(std::size_t entries, double hue, double sat, double val) {
  std::vector<double> v;
  for (std::size_t i = 0; i < entries; ++i) v.insert(v.end(), {hue, sat, val});
  return v;
}

/// The profile's bytes in a temporary file, removed on destruction.
struct TempDcp {
  explicit TempDcp(const std::string& bytes, const std::string& name) {
    path = (std::filesystem::temp_directory_path() / name).string();
    std::ofstream(path, std::ios::binary) << bytes;
  }
  ~TempDcp() { std::filesystem::remove(path); }
  std::string path;
};

std::shared_ptr<test::ImageRGBf> developWith(const std::string& dcp, float strength,
                                             std::shared_ptr<const test::ImageRGBf> source) {
  auto effect = test::makeEffect("VORNRawDevelopEffect", {0, 0, strength});
  effect->parameters()[2].setOptionalData(dcp);
  return test::renderOrFail(*effect, std::move(source));
}

TEST(DcpParseTest, ReadsTagsInBothByteOrders) {
  for (const bool big : {false, true}) {
    DcpWriter w = identityProfile(big);
    w.tag(50937, 4, {4, 2, 1}).tag(50938, 11, uniformMap(8, 10, 0.5, 1));
    w.tag(50940, 11, {0, 0, 0.5, 0.6, 1, 1}).tag(50941, 4, {3});
    const detail::DcpProfile p = parseDcp(w.bytes());
    EXPECT_EQ(p.name, "Test profile");
    EXPECT_EQ(p.illuminant1, 17);
    EXPECT_EQ(p.illuminant2, 21);
    EXPECT_EQ(p.embedPolicy, 3);
    ASSERT_TRUE(p.colorMatrix2 && p.forwardMatrix1);
    EXPECT_EQ(*p.forwardMatrix1, kIdentity);
    EXPECT_EQ(p.hueSatMap1.hues, 4u);
    EXPECT_EQ(p.hueSatMap1.saturations, 2u);
    ASSERT_EQ(p.hueSatMap1.data.size(), 24u);
    EXPECT_FLOAT_EQ(p.hueSatMap1.data[3], 10.0f);
    EXPECT_FLOAT_EQ(p.hueSatMap1.data[4], 0.5f);
    EXPECT_TRUE(p.hueSatMap2.empty());
    ASSERT_EQ(p.toneCurve.size(), 3u);
    EXPECT_FLOAT_EQ(p.toneCurve[1][1], 0.6f);
  }
  EXPECT_EQ(detail::illuminantKelvin(23), 5003.0);
  EXPECT_EQ(detail::illuminantKelvin(99), 0.0);
}

TEST(DcpParseTest, HostileFilesAreRefusedWithAnError) {
  const std::string good =
      identityProfile().tag(50937, 4, {4, 2, 1}).tag(50938, 11, uniformMap(8, 0, 1, 1)).bytes();
  // Every truncation either parses (the tail held nothing needed) or is refused.
  for (std::size_t n = 0; n < good.size(); ++n) {
    try {
      parseDcp(good.substr(0, n));
    } catch (const DcpFormatError&) {
    }
  }
  EXPECT_THROW(parseDcp(good.substr(0, good.size() - 1)), DcpFormatError);
  const auto refused = [](const std::string& bytes) {
    EXPECT_THROW(parseDcp(bytes), DcpFormatError);
  };
  refused("");
  refused("II*\0\x08\0\0\0" + good.substr(8));
  refused(DcpWriter().tag(50722, 10, {1, 0, 0, 0, 1, 0, 0, 0, 1}).bytes());  // no ColorMatrix1
  refused(DcpWriter().tag(50721, 11, {1, 0, 0, 0, NAN, 0, 0, 0, 1}).bytes());
  refused(DcpWriter().tag(50721, 10, {1, 0, 0, 0, 1, 0}).bytes());  // a 3 x 2 matrix
  refused(DcpWriter().text(50721, "not numbers").bytes());
  refused(
      identityProfile().tag(50937, 4, {4, 2, 1}).tag(50938, 11, uniformMap(7, 0, 1, 1)).bytes());
  refused(identityProfile().tag(50937, 4, {4096, 4096, 4096}).tag(50938, 11, {0, 1, 1}).bytes());
  refused(identityProfile().tag(50937, 4, {0, 2, 1}).tag(50938, 11, {0, 1, 1}).bytes());
  refused(identityProfile().tag(50938, 11, uniformMap(8, 0, 1, 1)).bytes());  // no dimensions
  refused(identityProfile().tag(50940, 11, {0, 0, 0.6, 0.5, 0.4, 0.7, 1, 1}).bytes());
  refused(identityProfile().tag(50940, 11, {0, 0, 1}).bytes());
  // A count that reaches past the file, and a directory offset past it.
  std::string huge = identityProfile().bytes();
  huge[8 + 2 + 4] = '\xff';
  huge[8 + 2 + 5] = '\xff';
  huge[8 + 2 + 6] = '\xff';
  refused(huge);
  std::string lost = good;
  lost[4] = '\x70';
  lost[5] = '\x70';
  refused(lost);
  EXPECT_THROW(detail::readDcpFile("/nonexistent/profile.dcp"), DcpFormatError);
}

TEST(DcpRenderTest, IdentityProfileChangesNothingAndMapsActAsTheyPromise) {
  const auto scene = test::makeSceneImage(40, 24);
  const TempDcp identity(identityProfile().bytes(), "vorn_identity_test.dcp");
  EXPECT_EQ(test::maxDifference(*developWith(identity.path, 100, scene), *scene), 0.0f);

  // A neutral hue/saturation map and a straight tone curve: only rounding is left.
  const TempDcp neutral(identityProfile()
                            .tag(50937, 4, {6, 3, 2})
                            .tag(50938, 11, uniformMap(36, 0, 1, 1))
                            .tag(50940, 11, {0, 0, 0.5, 0.5, 1, 1})
                            .bytes(),
                        "vorn_neutral_test.dcp");
  EXPECT_LT(test::maxDifference(*developWith(neutral.path, 100, scene), *scene), 2e-4f);

  // Saturation scaled to 0: greys at full strength, half-way at 50.
  const TempDcp grey(
      identityProfile().tag(50937, 4, {6, 3, 1}).tag(50938, 11, uniformMap(18, 0, 0, 1)).bytes(),
      "vorn_grey_test.dcp");
  const auto full = developWith(grey.path, 100, scene);
  const auto half = developWith(grey.path, 50, scene);
  for (int x = 0; x < scene->width; x += 3) {
    const PixelRGB<float>& p = full->at(x, 5);
    EXPECT_NEAR(p.r, p.g, 1e-4f);
    EXPECT_NEAR(p.b, p.g, 1e-4f);
    const float before = std::max({scene->at(x, 5).r, scene->at(x, 5).g, scene->at(x, 5).b}) -
                         std::min({scene->at(x, 5).r, scene->at(x, 5).g, scene->at(x, 5).b});
    const PixelRGB<float>& q = half->at(x, 5);
    const float after = std::max({q.r, q.g, q.b}) - std::min({q.r, q.g, q.b});
    if (before > 0.05f) {
      EXPECT_LT(after, before);
      EXPECT_GT(after, 0.0f);
    }
  }

  // Hostile pixels through the table stay finite.
  auto hostile = std::make_shared<test::ImageRGBf>(_Size<int>(3, 1), PixelRGB<float>(0.5f));
  hostile->at(0, 0) = PixelRGB<float>(INFINITY, 0.2f, 0.1f);
  hostile->at(1, 0) = PixelRGB<float>(std::nanf(""), 0.4f, 0.3f);
  hostile->at(2, 0) = PixelRGB<float>(-0.4f, 0.6f, 1.8f);
  const auto safe = developWith(grey.path, 100, hostile);
  for (int x = 0; x < 3; ++x)
    EXPECT_TRUE(std::isfinite(safe->at(x, 0).r + safe->at(x, 0).g + safe->at(x, 0).b)) << x;

  // A forward matrix unlike the colour matrix changes colours but keeps greys grey.
  DcpWriter mixing;
  mixing.matrix(50721, kIdentity).tag(50778, 3, {23});
  mixing.matrix(50964, {0.8, 0.15, 0.05, 0.25, 0.7, 0.05, 0.05, 0.1, 0.85});
  const TempDcp forward(mixing.bytes(), "vorn_forward_test.dcp");
  auto greys = std::make_shared<test::ImageRGBf>(_Size<int>(3, 1), PixelRGB<float>(0.4f));
  greys->at(1, 0) = PixelRGB<float>(0.9f);
  greys->at(2, 0) = PixelRGB<float>(0.8f, 0.3f, 0.2f);
  const auto out = developWith(forward.path, 100, greys);
  for (int x = 0; x < 2; ++x) {
    EXPECT_NEAR(out->at(x, 0).r, greys->at(x, 0).r, 1e-3f);
    EXPECT_NEAR(out->at(x, 0).b, greys->at(x, 0).b, 1e-3f);
  }
  EXPECT_GT(std::fabs(out->at(2, 0).r - 0.8f) + std::fabs(out->at(2, 0).g - 0.3f), 0.01f);

  // A broken file leaves the picture alone.
  const TempDcp broken("IIRC\x08\0\0\0", "vorn_broken_test.dcp");
  EXPECT_EQ(test::maxDifference(*developWith(broken.path, 100, scene), *scene), 0.0f);
  EXPECT_EQ(test::maxDifference(*developWith("/nonexistent/p.dcp", 100, scene), *scene), 0.0f);
}

}  // namespace
}  // namespace vorn
