#pragma once

#include <zlib.h>

#include <cstdint>
#include <vector>

#include "io/zlib_stream.h"

namespace vorn::test {

using Bytes = std::vector<std::uint8_t>;

/// Appends a little-endian word, written out by hand so the tests do not share the writer's code.
inline void put32(Bytes& out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
inline void put64(Bytes& out, std::uint64_t v) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

/// What zlib's own compress2 makes of the bytes.
inline Bytes zlibStream(const void* data, std::size_t size, int level = Z_DEFAULT_COMPRESSION) {
  uLongf length = compressBound(size);
  Bytes out(length);
  compress2(out.data(), &length, static_cast<const Bytef*>(data), size, level);
  out.resize(length);
  return out;
}
inline Bytes zlibStream(const Bytes& data) {
  return zlibStream(data.data(), data.size());
}

/// A tracked blob: the 56-byte header, then the stream.
inline Bytes trackedBlob(std::uint32_t width, std::uint32_t height, const Bytes& stream,
                         std::uint32_t first = 0xFFFFFFFFu, std::uint32_t second = 0xFFFFFFFFu) {
  Bytes out;
  for (std::uint32_t word : {first, second, 1u, 0u, 1u, width, height, 4u, 1u, 7u, 1u, 0xFFFFFFFFu})
    put32(out, word);
  put64(out, stream.size());
  out.insert(out.end(), stream.begin(), stream.end());
  return out;
}

/// An untracked blob: width, height, then a stream of floats.
inline Bytes untrackedBlob(std::uint32_t width, std::uint32_t height, const Bytes& stream) {
  Bytes out;
  put32(out, width);
  put32(out, height);
  out.insert(out.end(), stream.begin(), stream.end());
  return out;
}

/// Switches the readers' inflater for one scope.
class EngineScope {
 public:
  explicit EngineScope(detail::InflateEngine engine) : saved_(detail::defaultInflateEngine()) {
    detail::setDefaultInflateEngine(engine);
  }
  ~EngineScope() { detail::setDefaultInflateEngine(saved_); }

 private:
  detail::InflateEngine saved_;
};

inline constexpr detail::InflateEngine kEngines[] = {detail::InflateEngine::Zlib,
                                                     detail::InflateEngine::Libdeflate};

}  // namespace vorn::test
