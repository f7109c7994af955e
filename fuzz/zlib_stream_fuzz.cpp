// Headerless and tracked streams: decompressSimple and uncompressEx on hostile bytes, and
// libdeflate held to zlib's own results on each of them.
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "io/zlib_stream.h"
#include "vorn/io/image_compressor.h"

namespace {

using Zlib = vorn::ImageCompressorLosslessZlib;
namespace detail = vorn::detail;

// libdeflate accepts a few block headers no encoder writes and zlib refuses (more than 286
// length or 30 distance codes, an overlong length repeat, some incomplete codes).
bool refusedOnlyByZlibsStricterHeaders(const std::uint8_t* stream, std::size_t size,
                                       std::size_t capacity) {
  static const std::string kStricter[] = {"too many length or distance symbols",
                                          "invalid code lengths set",
                                          "invalid literal/lengths set",
                                          "invalid distances set",
                                          "invalid distance code",
                                          "invalid literal/length code",
                                          "invalid bit length repeat"};
  std::vector<std::uint8_t> out(capacity + 1);
  z_stream z{};
  if (inflateInit(&z) != Z_OK) return false;
  z.next_in = const_cast<Bytef*>(stream);
  z.avail_in = static_cast<uInt>(size);
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(capacity);
  inflate(&z, Z_FINISH);
  const std::string message = z.msg ? z.msg : "";
  inflateEnd(&z);
  return std::find(std::begin(kStricter), std::end(kStricter), message) != std::end(kStricter);
}

// Both engines against zlib's uncompress(): same status, and on success the same bytes,
// tail included.
void compareEngines(const std::uint8_t* stream, std::size_t size, std::size_t capacity) {
  std::vector<std::uint8_t> expected(capacity + 1, 0xA5);
  uLongf length = capacity;
  const int status = uncompress(expected.data(), &length, stream, size);
  for (auto engine : {detail::InflateEngine::Zlib, detail::InflateEngine::Libdeflate}) {
    std::vector<std::uint8_t> out(capacity + 1, 0xA5);
    const auto result = detail::inflateInto(stream, size, out.data(), capacity,
                                            detail::InflateTail::Preserve, engine);
    if (result.status != status &&
        !(result.status == Z_OK && refusedOnlyByZlibsStricterHeaders(stream, size, capacity)))
      __builtin_trap();
    if (status == Z_OK && (result.written != length || out != expected)) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return -1;
  // The first two bytes choose the destination size, the rest is the stream.
  const std::size_t capacity = data[0] | (std::size_t(data[1]) << 8);
  const std::vector<std::uint8_t> stream(data + 2, data + size);
  compareEngines(stream.data(), stream.size(), capacity);

  std::vector<vorn::PixelRGB<float>> pixels(capacity / sizeof(vorn::PixelRGB<float>) + 1);
  try {
    Zlib::decompressSimple(stream, pixels.data(), capacity);
  } catch (const Zlib::CompressorException&) {
  }

  // The same bytes as a tracked blob: its stream starts at offset 56 of the input.
  std::vector<std::uint8_t> destination(capacity, 0);
  try {
    Zlib::uncompressEx(stream, destination, capacity, 1, 0);
  } catch (const Zlib::CompressorException&) {
  }
  return 0;
}
