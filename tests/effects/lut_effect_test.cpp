// The .cube reader and the LUT mapping effect: what is accepted, what is refused and why, and
// interpolation results worked out by hand.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "effects/effect_test_support.h"
#include "effects/lut/cube_file.h"
#include "effects/lut/lut_kernels.h"
#include "support/log_capture.h"

namespace vorn {
namespace {

namespace fs = std::filesystem;
using detail::CubeFormatError;
using detail::CubeLut;
using detail::parseCube;
using test::ImageRGBf;

/// A folder of its own for the test's files, removed afterwards.
class LutFiles : public testing::Test {
 protected:
  void SetUp() override {
    folder_ =
        fs::temp_directory_path() / ("vorn_lut_" + std::to_string(::getpid()) + "_" +
                                     testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(folder_);
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::string write(const std::string& name, const std::string& text) const {
    const fs::path path = folder_ / name;
    std::ofstream(path, std::ios::binary) << text;
    return path.string();
  }

  fs::path folder_;
};

/// A 3D table of the given side whose entry at lattice point (r, g, b) is f(r, g, b) / (n - 1).
template <typename F>
std::string cubeText(int n, F f, const std::string& head = "") {
  std::string text = head + "LUT_3D_SIZE " + std::to_string(n) + "\n";
  char line[96];
  for (int b = 0; b < n; ++b)
    for (int g = 0; g < n; ++g)
      for (int r = 0; r < n; ++r) {
        const auto [x, y, z] = f(static_cast<float>(r), static_cast<float>(g),
                                 static_cast<float>(b), static_cast<float>(n - 1));
        std::snprintf(line, sizeof line, "%.6f %.6f %.6f\n", static_cast<double>(x),
                      static_cast<double>(y), static_cast<double>(z));
        text += line;
      }
  return text;
}

struct Triple {
  float x, y, z;
};

Triple identityEntry(float r, float g, float b, float top) {
  return {r / top, g / top, b / top};
}

/// A smooth, clearly non-linear look: warm, with a crushed blue channel.
Triple lookEntry(float r, float g, float b, float top) {
  return {std::pow(r / top, 0.8f), 0.9f * g / top + 0.05f, (b / top) * (b / top)};
}

std::shared_ptr<Effect> lutEffect(const std::string& path, float amount = 100.0f) {
  auto effect = test::makeEffect("VORNLUTMappingEffect", {amount});
  effect->parameters()[0].setOptionalData(path);
  return effect;
}

TEST(CubeParserTest, ReadsTitleCommentsDomainAndBothTableKinds) {
  const detail::CubeLut cube = parseCube(
      "# made by hand\r\nTITLE \"Warm look\"\r\n\r\nLUT_3D_SIZE 2\r\nDOMAIN_MIN 0 0 -0.5\r\n"
      "DOMAIN_MAX 1 2 1.5   # wide blue\r\n0 0 0\r\n1 0 0\n0 1 0\n1 1 0\n0 0 1\n1 0 1\n0 1 1\n"
      "+1 1.0e0 1\n");
  EXPECT_EQ(cube.title, "Warm look");
  EXPECT_TRUE(cube.is3D);
  EXPECT_EQ(cube.size, 2);
  EXPECT_EQ(cube.domainMin[2], -0.5f);
  EXPECT_EQ(cube.domainMax[1], 2.0f);
  ASSERT_EQ(cube.values.size(), 24u);
  EXPECT_EQ(cube.values[3], 1.0f);  // red varies fastest
  EXPECT_FALSE(cube.identity) << "a wider domain is not the identity";

  const detail::CubeLut curve =
      parseCube("LUT_1D_SIZE 3\nLUT_1D_INPUT_RANGE 0 4\n0 0 0\n0.25 0.5 0.75\n1 1 1\n");
  EXPECT_FALSE(curve.is3D);
  EXPECT_EQ(curve.domainMax[1], 4.0f);
  EXPECT_EQ(curve.values.size(), 9u);

  EXPECT_TRUE(parseCube(cubeText(5, identityEntry)).identity);
  EXPECT_TRUE(parseCube("LUT_1D_SIZE 2\n0 0 0\n1 1 1\n").identity);
  EXPECT_FALSE(parseCube(cubeText(5, lookEntry)).identity);
}

TEST(CubeParserTest, RefusesEachMalformedFormNamingTheFault) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "no LUT_1D_SIZE or LUT_3D_SIZE"},
      {"TITLE \"only\"\n# nothing else\n", "no LUT_1D_SIZE or LUT_3D_SIZE"},
      {"LUT_3D_SIZE 1\n0 0 0\n", "not a size in 2 ... 256"},
      {"LUT_3D_SIZE 257\n", "not a size in 2 ... 256"},
      {"LUT_3D_SIZE 4000000000\n", "not a size"},
      {"LUT_1D_SIZE 2.5\n", "not a size"},
      {"LUT_3D_SIZE\n", "needs one whole number"},
      {"LUT_3D_SIZE 2\nLUT_1D_SIZE 2\n", "a second table size"},
      {"0 0 0\nLUT_1D_SIZE 2\n", "line 1: a table entry before"},
      {"LUT_1D_SIZE 2\n0 0\n1 1 1\n", "line 2: a table entry needs three numbers"},
      {"LUT_1D_SIZE 2\n0 0 0 0\n1 1 1\n", "needs three numbers"},
      {"LUT_1D_SIZE 2\n0 zero 0\n1 1 1\n", "\"zero\" is not a number"},
      {"LUT_1D_SIZE 2\nnan 0 0\n1 1 1\n", "\"nan\" is an unknown keyword"},
      {"LUT_1D_SIZE 2\n0 0 nan\n1 1 1\n", "\"nan\" is not a finite number"},
      {"LUT_1D_SIZE 2\n0 0 -inf\n1 1 1\n", "not a finite number"},
      {"LUT_1D_SIZE 2\n0 0 1e60\n1 1 1\n", "not a number"},
      {"LUT_3D_SIZE 2\n0 0 0\n1 0 0\n", "truncated: 2 of 8 table entries"},
      {"LUT_1D_SIZE 2\n0 0 0\n1 1 1\n1 1 1\n", "line 4: more table entries"},
      {"LUT_1D_SIZE 2\n0 0 0\nDOMAIN_MIN 0 0 0\n1 1 1\n", "keyword DOMAIN_MIN after"},
      {"LUT_1D_SIZE 2\nLUT_SHAPER yes\n0 0 0\n1 1 1\n", "\"LUT_SHAPER\" is an unknown keyword"},
      {"LUT_1D_SIZE 2\nDOMAIN_MIN 0 0\n0 0 0\n1 1 1\n", "DOMAIN_MIN needs three numbers"},
      {"LUT_1D_SIZE 2\nDOMAIN_MIN 0 1 0\nDOMAIN_MAX 1 1 1\n0 0 0\n1 1 1\n", "not below"},
      {"LUT_1D_SIZE 2\nLUT_1D_INPUT_RANGE 1\n0 0 0\n1 1 1\n", "needs two numbers"},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    try {
      parseCube(text);
      ADD_FAILURE() << "accepted";
    } catch (const CubeFormatError& e) {
      EXPECT_NE(std::string(e.what()).find(expected), std::string::npos) << e.what();
    }
  }
}

TEST_F(LutFiles, UnusableFilesAreLoggedOnceAndLeaveThePictureAlone) {
  test::LogCapture log;
  const std::string folder = folder_.string();
  const std::vector<std::pair<std::string, std::string>> files = {
      {folder + "/missing.cube", "cannot read " + folder + "/missing.cube: "},
      {folder, "cannot read " + folder + ": "},
      {write("truncated.cube", cubeText(9, lookEntry).substr(0, 2000)), "truncated.cube: "},
      {write("nan.cube", "LUT_1D_SIZE 2\n0 0 0\nnan 1 1\n"),
       "nan.cube: line 3: \"nan\" is an unknown keyword"}};
  const auto source = test::makeTestImage(40, 30);
  for (const auto& [path, reason] : files) {
    SCOPED_TRACE(path);
    EXPECT_THROW(detail::readCubeFile(path), CubeFormatError);
    for (int render = 0; render < 2; ++render) {
      const auto output = test::renderOrFail(*lutEffect(path), source);
      EXPECT_EQ(test::maxDifference(*source, *output), 0.0f);
    }
    Logger::LogInstance().Flush();
    EXPECT_EQ(log.countContaining(reason), 1u);
  }
}

TEST_F(LutFiles, AnIdentityTableReturnsTheInputBitForBit) {
  auto source = test::makeTestImage(64, 48);
  source->at(3, 4) = PixelRGB<float>(-0.25f, 1.75f, 0.333333343f);  // outside the domain
  for (const std::string& text : {cubeText(33, identityEntry), cubeText(2, identityEntry),
                                  std::string("LUT_1D_SIZE 4\n0 0 0\n0.333333 0.333333 "
                                              "0.333333\n0.666667 0.666667 0.666667\n1 1 1\n")}) {
    const auto output = test::renderOrFail(*lutEffect(write("identity.cube", text), 70), source);
    EXPECT_EQ(test::maxDifference(*source, *output), 0.0f);
  }
}

TEST_F(LutFiles, TetrahedralInterpolationMatchesHandComputedValuesInAllSixTetrahedra) {
  // Corners of a 2^3 table over the domain 0 ... 2, red varying fastest: 000, 100, 010, 110,
  // 001, 101, 011, 111. Not affine, so a wrong tetrahedron gives a wrong value.
  const std::string path = write("corners.cube",
                                 "DOMAIN_MAX 2 2 2\nLUT_3D_SIZE 2\n"
                                 "0 0 0\n0.9 0.1 0.2\n0.3 0.6 0.1\n0.7 0.8 0.3\n"
                                 "0.2 0.1 0.5\n0.8 0.3 0.9\n0.1 0.4 0.6\n1 1 1\n");
  struct Case {
    PixelRGB<float> in, expected;
  };
  // r > g > b: 0.1 * 000 + 0.3 * 100 + 0.4 * 110 + 0.2 * 111, and so on for each order.
  const Case cases[] = {{{1.8f, 1.2f, 0.4f}, {0.75f, 0.55f, 0.38f}},   // r > g > b
                        {{1.8f, 0.4f, 1.2f}, {0.79f, 0.35f, 0.62f}},   // r > b > g
                        {{1.2f, 0.4f, 1.8f}, {0.58f, 0.35f, 0.71f}},   // b > r > g
                        {{1.2f, 1.8f, 0.4f}, {0.57f, 0.70f, 0.35f}},   // g > r > b
                        {{0.4f, 1.8f, 1.2f}, {0.33f, 0.54f, 0.47f}},   // g > b > r
                        {{0.4f, 1.2f, 1.8f}, {0.30f, 0.39f, 0.59f}},   // b > g > r
                        {{0.6f, 0.6f, 0.6f}, {0.30f, 0.30f, 0.30f}},   // grey: the diagonal only
                        {{2.0f, 0.0f, 2.0f}, {0.80f, 0.30f, 0.90f}}};  // a corner, unchanged
  auto source = std::make_shared<ImageRGBf>(_Size<int>(static_cast<int>(std::size(cases)), 1));
  for (int x = 0; x < source->width; ++x) source->at(x, 0) = cases[x].in;
  const auto output = test::renderOrFail(*lutEffect(path), source);
  for (int x = 0; x < source->width; ++x) {
    SCOPED_TRACE(x);
    EXPECT_NEAR(output->at(x, 0).r, cases[x].expected.r, 1e-6f);
    EXPECT_NEAR(output->at(x, 0).g, cases[x].expected.g, 1e-6f);
    EXPECT_NEAR(output->at(x, 0).b, cases[x].expected.b, 1e-6f);
  }
  EXPECT_EQ(output->at(7, 0).b, 0.9f) << "lattice points are exact";
}

TEST_F(LutFiles, CurvesInterpolateLinearlyAndAmountMixesWithTheInput) {
  const std::string path = write("curve.cube", "LUT_1D_SIZE 3\n0 1 0\n0.25 0.5 0.5\n1 0 1\n");
  auto source = std::make_shared<ImageRGBf>(_Size<int>(1, 1), PixelRGB<float>(0.75f));
  const auto full = test::renderOrFail(*lutEffect(path), source);
  EXPECT_NEAR(full->at(0, 0).r, 0.625f, 1e-6f);
  EXPECT_NEAR(full->at(0, 0).g, 0.25f, 1e-6f);  // each channel has its own curve
  EXPECT_NEAR(full->at(0, 0).b, 0.75f, 1e-6f);
  const auto half = test::renderOrFail(*lutEffect(path, 50), source);
  EXPECT_NEAR(half->at(0, 0).r, 0.6875f, 1e-6f);
  EXPECT_NEAR(half->at(0, 0).g, 0.5f, 1e-6f);
}

TEST_F(LutFiles, RegionsMatchTheWholeRenderHostileInputStaysFiniteAndARewrittenFileIsReread) {
  const std::string path = write("look.cube", cubeText(17, lookEntry));
  const auto source = test::makeTestImage(120, 90);
  // Region rows end in a scalar tail, the whole frame runs almost all through the vector kernel.
  for (const float amount : {100.0f, 60.0f}) {
    const auto effect = lutEffect(path, amount);
    const auto whole = test::renderOrFail(*effect, source);
    EXPECT_GT(test::meanDifference(*source, *whole), 0.005f);
    const _Rect<int> region(37, 29, 41, 33);
    auto destination = std::make_shared<ImageRGBf>(source->size(), PixelRGB<float>(0.0f));
    EffectCallContext call(source, destination, nullptr, region, nullptr, nullptr);
    ASSERT_TRUE(effect->processImage(call));
    EXPECT_EQ(test::maxDifference(*whole, *destination, region), 0.0f) << amount;
  }

  // Non-finite input holds at the table's ends; the mix with the input is made finite.
  auto hostile = std::make_shared<ImageRGBf>(_Size<int>(3, 1));
  hostile->at(0, 0) = PixelRGB<float>(NAN, 0.5f, INFINITY);
  hostile->at(1, 0) = PixelRGB<float>(-INFINITY, NAN, 0.5f);
  hostile->at(2, 0) = PixelRGB<float>(1e30f, -1e30f, NAN);
  for (const float amount : {100.0f, 60.0f}) {
    const auto mapped = test::renderOrFail(*lutEffect(path, amount), hostile);
    for (int x = 0; x < 3; ++x) {
      const PixelRGB<float>& p = mapped->at(x, 0);
      EXPECT_TRUE(std::isfinite(p.r) && std::isfinite(p.g) && std::isfinite(p.b)) << x;
    }
  }

  write("look.cube", cubeText(17, identityEntry, "TITLE \"now plain\"\n"));
  const auto again = test::renderOrFail(*lutEffect(path), source);
  EXPECT_EQ(test::maxDifference(*source, *again), 0.0f);
}

TEST(LutKernelTest, EveryVectorKernelMatchesTheScalarLoopBitForBitInPlaceOrNot) {
  // A look over a domain that is not the unit cube, so scale and offset both matter.
  CubeLut lut = parseCube("DOMAIN_MIN -0.25 0 0\nDOMAIN_MAX 1.25 1 2\n" + cubeText(9, lookEntry));
  // Pixels inside and outside the domain, on lattice points, with tied fractions (the tie
  // decides the tetrahedron) and non-finite: 203 of them, so every kernel leaves a scalar tail.
  std::vector<PixelRGB<float>> in(203);
  std::uint32_t state = 12345u;
  const auto next = [&state] {
    state = state * 1664525u + 1013904223u;
    return static_cast<float>(state >> 8) / 16777216.0f;
  };
  for (auto& p : in) p = PixelRGB<float>(1.8f * next() - 0.4f, next(), 2.2f * next() - 0.1f);
  in[5] = PixelRGB<float>(0.5f, 0.5f, 1.0f);
  in[17] = PixelRGB<float>(0.3f, 0.3f, 0.6f);
  in[40] = PixelRGB<float>(NAN, INFINITY, -INFINITY);
  in[41] = PixelRGB<float>(1.25f, 1.0f, 2.0f);
  const auto same = [](const std::vector<PixelRGB<float>>& a,
                       const std::vector<PixelRGB<float>>& b) {
    return std::memcmp(a.data(), b.data(), a.size() * sizeof(PixelRGB<float>)) == 0;
  };
  for (const float amount : {1.0f, 0.6f}) {
    std::vector<PixelRGB<float>> expected(in.size());
    ASSERT_TRUE(detail::sampleLatticeWith(detail::LutIsa::Scalar, lut, true, in.data(),
                                          expected.data(), in.size(), amount));
    EXPECT_NE(expected[7], in[7]);
    for (const auto isa : {detail::LutIsa::Avx2, detail::LutIsa::Avx512}) {
      for (const bool padded : {true, false}) {
        SCOPED_TRACE(testing::Message() << "isa " << static_cast<int>(isa) << " padded " << padded
                                        << " amount " << amount);
        std::vector<PixelRGB<float>> out(in.size());
        if (!detail::sampleLatticeWith(isa, lut, padded, in.data(), out.data(), in.size(), amount))
          continue;  // not on this CPU, or a layout the kernel does not read
        EXPECT_TRUE(same(out, expected));
        std::vector<PixelRGB<float>> inPlace = in;
        ASSERT_TRUE(detail::sampleLatticeWith(isa, lut, padded, inPlace.data(), inPlace.data(),
                                              inPlace.size(), amount));
        EXPECT_TRUE(same(inPlace, expected));
      }
    }
  }
  lut.is3D = false;
  std::vector<PixelRGB<float>> out(in.size());
  EXPECT_FALSE(detail::sampleLatticeWith(detail::LutIsa::Scalar, lut, true, in.data(), out.data(),
                                         in.size(), 1.0f));
}

}  // namespace
}  // namespace vorn
