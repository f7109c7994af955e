#pragma once

#include <Magick++.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "io/magick_environment.h"
#include "support/test_files.h"
#include "vorn/io/image.h"

namespace vorn::test::raster {

/// A photo from ../shared/samples/photo beside the repository; empty when absent.
inline std::string samplePhoto(const std::string& name) {
  return sharedSample("photo", name);
}

/// A file kept with the tests.
inline std::string dataFile(const std::string& name) {
  return testData(name);
}

#define VORN_REQUIRE_PHOTO(variable, name)                              \
  const std::string variable = ::vorn::test::raster::samplePhoto(name); \
  if (variable.empty()) GTEST_SKIP() << "sample " << (name) << " is absent"

inline std::vector<std::uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

/// Float RGB(A) samples row by row, as Magick++ takes them.
struct Pixels {
  int width = 0;
  int height = 0;
  int channels = 3;
  std::vector<float> values;
  float* at(int x, int y) {
    return values.data() + (static_cast<std::size_t>(y) * width + x) * channels;
  }
};

/// Every pixel distinct: red counts columns, green counts rows, blue is fixed.
inline Pixels uniquePattern(int width, int height) {
  Pixels p{width, height, 3, std::vector<float>(static_cast<std::size_t>(width) * height * 3)};
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      float* px = p.at(x, y);
      px[0] = float(x + 1) / 65535.0f * 256.0f;
      px[1] = float(y + 1) / 65535.0f * 256.0f;
      px[2] = 16384.0f / 65535.0f;
    }
  return p;
}

/// Writes the samples with ImageMagick as `coder` ("TIFF", "JPEG") at `depth` bits.
inline Magick::Image magickImage(const Pixels& p, int depth) {
  detail::ensureMagickEnvironment();
  Magick::Image image(static_cast<std::size_t>(p.width), static_cast<std::size_t>(p.height),
                      p.channels == 4 ? "RGBA" : "RGB", Magick::FloatPixel, p.values.data());
  image.depth(static_cast<std::size_t>(depth));
  return image;
}

inline void writeWithMagick(Magick::Image image, const std::string& coder,
                            const std::string& path) {
  image.magick(coder);
  if (coder == "JPEG") image.quality(100);
  image.write(coder + ":" + path);
}

/// Decodes a file with ImageMagick itself, without turning it upright: the reference pixels.
inline std::vector<float> magickReference(const std::string& path, int& width, int& height) {
  detail::ensureMagickEnvironment();
  Magick::Image image;
  image.quiet(true);
  image.read(path);
  width = static_cast<int>(image.columns());
  height = static_cast<int>(image.rows());
  std::vector<float> values(static_cast<std::size_t>(width) * height * 3);
  image.write(0, 0, image.columns(), image.rows(), "RGB", Magick::FloatPixel, values.data());
  return values;
}

inline float maxDifference(const PixelRGB<float>& a, const float* b) {
  return std::max({std::abs(a.r - b[0]), std::abs(a.g - b[1]), std::abs(a.b - b[2])});
}

}  // namespace vorn::test::raster
