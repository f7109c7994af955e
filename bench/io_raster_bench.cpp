// Raster decoding on a real 22 MP JPEG against libvips' decode-only pass of the same file, and a
// 256-pixel thumbnail by DCT scaling against libvips' shrink-on-load thumbnailer; each peer
// command runs in the same iterations as the operation.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench_data.h"
#include "bench_floor.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/thumbnails.h"

namespace {

namespace fs = std::filesystem;
using vorn::bench::Pool;
using vorn::bench::registerPoolPair;
using vorn::bench::runCommand;
using vorn::bench::timeAgainstFloor;

std::string samplePath() {
  return vorn::bench::sharedSample("photo", "canon_5d3_22mp_issue266.jpg");
}

// The sample without its APP1 segments (EXIF with its 160-pixel preview, XMP), so a thumbnail
// has to come from the image data itself.
std::string samplePathWithoutPreview() {
  static const std::string stripped = [] {
    const std::string source = samplePath();
    if (source.empty()) return std::string();
    std::ifstream in(source, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    std::vector<char> out(bytes.begin(), bytes.begin() + 2);
    std::size_t pos = 2;
    while (pos + 4 <= bytes.size() && static_cast<std::uint8_t>(bytes[pos]) == 0xFF) {
      const auto marker = static_cast<std::uint8_t>(bytes[pos + 1]);
      if (marker == 0xDA) break;
      const std::size_t length =
          static_cast<std::size_t>(static_cast<std::uint8_t>(bytes[pos + 2]) << 8 |
                                   static_cast<std::uint8_t>(bytes[pos + 3]));
      if (marker != 0xE1)
        out.insert(out.end(), bytes.begin() + pos, bytes.begin() + pos + 2 + length);
      pos += 2 + length;
    }
    out.insert(out.end(), bytes.begin() + pos, bytes.end());
    const fs::path path =
        fs::temp_directory_path() / ("vorn_bench_" + std::to_string(::getpid()) + ".jpg");
    std::ofstream(path, std::ios::binary)
        .write(out.data(), static_cast<std::streamsize>(out.size()));
    return path.string();
  }();
  return stripped;
}

void decode22MP(benchmark::State& state, Pool pool) {
  const std::string path = samplePath();
  if (path.empty()) return state.SkipWithError("sample canon_5d3_22mp_issue266.jpg is absent");
  vorn::ImageMagickReader reader;
  timeAgainstFloor(
      state, pool, "vips avg", [&] { return runCommand("vips avg '" + path + "'"); },
      [&] {
        return reader.openImage(path, {-1, -1}) == vorn::kImageReaderOk;
      },
      [&] { reader = vorn::ImageMagickReader(); });  // the frame's release is not part of opening
}

void thumbnail256Dct(benchmark::State& state, Pool pool) {
  const std::string path = samplePathWithoutPreview();
  if (path.empty()) return state.SkipWithError("sample canon_5d3_22mp_issue266.jpg is absent");
  const std::string out = (fs::temp_directory_path() / "vorn_bench_thumb.v").string();
  timeAgainstFloor(
      state, pool, "vipsthumbnail",
      [&] { return runCommand("vipsthumbnail '" + path + "' -s 256 -o '" + out + "'"); },
      [&] {
        auto thumb = vorn::getThumbnailBySide(path, 256, true);
        return thumb && thumb->width == 256;
      });
  std::error_code ec;
  fs::remove(out, ec);
}

const bool kRegistered = [] {
  registerPoolPair("BM_OpenJpeg22MPVsVips", decode22MP, benchmark::kMillisecond, 5);
  registerPoolPair("BM_Thumbnail256DctVsVips", thumbnail256Dct, benchmark::kMillisecond, 10);
  return true;
}();

}  // namespace
