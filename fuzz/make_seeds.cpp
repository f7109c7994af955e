// Writes valid starting inputs for the fuzz targets: make_seeds <folder> fills
// <folder>/{mask_blob,proxy_blob,zlib_stream,open_memory,apply_args,cube_parse,dcp_parse}/.
#include <zlib.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "vorn/io/image_compressor.h"
#include "vorn/io/image_magick_reader.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

void save(const fs::path& folder, const std::string& name, const Bytes& bytes) {
  fs::create_directories(folder);
  std::ofstream(folder / name, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

/// A little-endian camera profile: identity colour and forward matrices, a 2 x 2 x 1 hue/saturation
/// map and a three-point tone curve.
Bytes cameraProfile() {
  struct Tag {
    std::uint16_t id, type;
    std::vector<std::uint32_t> words;  // rationals as numerator, denominator pairs
  };
  const std::vector<std::uint32_t> identity{1, 1, 0, 1, 0, 1, 0, 1, 1, 1, 0, 1, 0, 1, 0, 1, 1, 1};
  const auto bits = [](float f) {
    std::uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
  };
  std::vector<std::uint32_t> map;
  for (int i = 0; i < 4; ++i)
    map.insert(map.end(), {bits(5.0f * static_cast<float>(i)), bits(1.0f), bits(1.0f)});
  const std::vector<Tag> tags{
      {50721, 10, identity},
      {50778, 3, {23}},
      {50937, 4, {2, 2, 1}},
      {50938, 11, map},
      {50940, 11, {bits(0), bits(0), bits(0.5f), bits(0.6f), bits(1), bits(1)}},
      {50964, 10, identity}};
  Bytes out{'I', 'I', 'R', 'C', 8, 0, 0, 0};
  const auto put = [](Bytes& to, std::uint32_t v, int size) {
    for (int i = 0; i < size; ++i) to.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  };
  put(out, static_cast<std::uint32_t>(tags.size()), 2);
  Bytes data;
  const std::size_t dataStart = out.size() + 12 * tags.size() + 4;
  for (const Tag& t : tags) {
    put(out, t.id, 2);
    put(out, t.type, 2);
    const std::size_t count = t.type == 10 ? t.words.size() / 2 : t.words.size();
    put(out, static_cast<std::uint32_t>(count), 4);
    if (t.type == 3) {
      put(out, t.words[0], 4);
      continue;
    }
    put(out, static_cast<std::uint32_t>(dataStart + data.size()), 4);
    for (const std::uint32_t w : t.words) put(data, w, 4);
  }
  put(out, 0, 4);
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

vorn::MaskImage disc(int w, int h) {
  vorn::MaskImage mask(vorn::_Size<int>(w, h), 0.0f);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const float d = std::hypot(static_cast<float>(x - w / 2), static_cast<float>(y - h / 2));
      mask.at(x, y) = std::fmin(1.0f, std::fmax(0.0f, (static_cast<float>(w) / 3 - d) / 4));
    }
  return mask;
}

Bytes deflate(const void* data, std::size_t size) {
  uLongf length = compressBound(size);
  Bytes out(length);
  compress2(out.data(), &length, static_cast<const Bytef*>(data), size, Z_DEFAULT_COMPRESSION);
  out.resize(length);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <folder>\n", argv[0]);
    return 2;
  }
  const fs::path root = argv[1];
  for (int size : {4, 17, 40}) {
    const vorn::MaskImage mask = disc(size, size * 3 / 4 + 1);
    Bytes tracked;
    vorn::ImageCompressorProxy::compressMask(mask, tracked);
    save(root / "mask_blob", "tracked_" + std::to_string(size), tracked);

    Bytes untracked;
    for (int side : {mask.width, mask.height})
      for (int i = 0; i < 4; ++i) untracked.push_back(static_cast<std::uint8_t>(side >> (8 * i)));
    const Bytes stream = deflate(mask.data, mask.sizeInBytes());
    untracked.insert(untracked.end(), stream.begin(), stream.end());
    save(root / "mask_blob", "untracked_" + std::to_string(size), untracked);

    vorn::_ImageData<vorn::PixelRGB<float>> frame(vorn::_Size<int>(size, size / 2 + 1),
                                                  vorn::ColorProfileType::sRGB());
    for (int y = 0; y < frame.height; ++y)
      for (int x = 0; x < frame.width; ++x)
        frame.at(x, y) = vorn::PixelRGB<float>(mask.at(x % mask.width, y % mask.height), 0.3f,
                                               static_cast<float>(x) / static_cast<float>(size));
    Bytes proxy;
    vorn::ImageCompressorProxy::compress(frame, proxy);
    save(root / "proxy_blob", "proxy_" + std::to_string(size), proxy);

    // Two bytes of destination size, then the stream (its first 56 bytes double as a header).
    const std::uint64_t pixels = mask.area();
    Bytes simple = {static_cast<std::uint8_t>(pixels & 0xFF),
                    static_cast<std::uint8_t>(pixels >> 8)};
    simple.insert(simple.end(), tracked.begin() + 56, tracked.end());
    save(root / "zlib_stream", "stream_" + std::to_string(size), simple);
    Bytes asTracked = {simple[0], simple[1]};
    asTracked.insert(asTracked.end(), tracked.begin(), tracked.end());
    save(root / "zlib_stream", "tracked_" + std::to_string(size), asTracked);

    // Small encoded photos keep each decode quick, so the run explores more of the decoders.
    fs::create_directories(root / "open_memory");
    for (const auto& [name, depth] :
         {std::pair<std::string, int>{".jpg", 8}, {"_8.tif", 8}, {"_16.tif", 16}}) {
      vorn::ExportParameters parameters;
      parameters.path = (root / "open_memory" / ("photo_" + std::to_string(size) + name)).string();
      parameters.tiffBitDepth = depth;
      if (!vorn::ImageMagickReader::writeImageToFile(frame, parameters)) return 1;
    }
  }
  // Argument lists of `vorn apply`, the words separated by zero bytes.
  const std::vector<std::vector<std::string>> commands = {
      {"in.jpg", "out.jpg", "--effect", "VORNExposureEffect:Exposure=30", "--quality", "90"},
      {"in.dng", "out.tif", "--depth", "16", "--profile", "prophoto", "--long-side", "2000"},
      {"in.tif", "out.jpeg", "--subsampling", "420", "--progressive", "--optimize-huffman"},
      {"in.jpg", "out.tiff", "--depth", "32", "--effect", "VORNContrastEffect:Contrast=-20,X=1"}};
  for (std::size_t i = 0; i < commands.size(); ++i) {
    Bytes joined;
    for (const std::string& word : commands[i]) {
      if (!joined.empty()) joined.push_back(0);
      joined.insert(joined.end(), word.begin(), word.end());
    }
    save(root / "apply_args", "command_" + std::to_string(i), joined);
  }
  // .cube tables: a 1D curve with an input range, a 3D lattice with a title, comments and domain.
  const std::string curve = "LUT_1D_SIZE 3\nLUT_1D_INPUT_RANGE 0 2\n0 0 0\n0.4 0.5 0.6\n1 1 1\n";
  std::string lattice =
      "# seed\nTITLE \"look\"\nLUT_3D_SIZE 3\nDOMAIN_MIN 0 0 0\nDOMAIN_MAX 1 1 1\n";
  for (int i = 0; i < 27; ++i)
    lattice += std::to_string(i % 3 * 0.5) + " " + std::to_string(i / 3 % 3 * 0.4) + " " +
               std::to_string(i / 9 * 0.5) + "\r\n";
  for (const auto& [name, text] :
       {std::pair<std::string, std::string>{"curve", curve}, {"lattice", lattice}})
    save(root / "cube_parse", name, Bytes(text.begin(), text.end()));
  save(root / "dcp_parse", "profile", cameraProfile());
  return 0;
}
