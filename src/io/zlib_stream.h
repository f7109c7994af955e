#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vorn::detail {

/// The inflater behind every blob reader; both give zlib's results (see inflateInto).
enum class InflateEngine { Zlib, Libdeflate };

/// The engine the blob readers use; Libdeflate unless a benchmark or test chose otherwise.
InflateEngine defaultInflateEngine();
void setDefaultInflateEngine(InflateEngine engine);

/// A zlib status (Z_OK, Z_BUF_ERROR, Z_DATA_ERROR, ...) and how many bytes were written.
struct InflateResult {
  int status = 0;
  std::size_t written = 0;
};

/// What the bytes past the end of a short stream hold afterwards.
enum class InflateTail {
  Preserve,  ///< as they were (the caller's buffer)
  Zero,      ///< cleared (a fresh buffer whose contents are defined as zero)
  Any,       ///< whatever the engine left (the caller rejects short streams)
};

/// Exactly zlib's uncompress(): one stream into dst[0, capacity), trailing input ignored.
InflateResult inflateZlib(const std::uint8_t* src, std::size_t srcLen, std::uint8_t* dst,
                          std::size_t capacity);
/// libdeflate with zlib's results: any failure is run again through zlib, so the status and the
/// partial output are zlib's own. On success bytes of dst past `written` may have been changed.
InflateResult inflateLibdeflate(const std::uint8_t* src, std::size_t srcLen, std::uint8_t* dst,
                                std::size_t capacity);
/// Inflates with the engine and leaves the tail after a short stream as `tail` says.
InflateResult inflateInto(const std::uint8_t* src, std::size_t srcLen, std::uint8_t* dst,
                          std::size_t capacity, InflateTail tail,
                          InflateEngine engine = defaultInflateEngine());

/// compress2() into dst[0, capacity); returns the stream length. Throws CompressorException.
std::size_t deflateInto(const std::uint8_t* src, std::size_t srcLen, std::uint8_t* dst,
                        std::size_t capacity, int level);
/// Throws CompressorException unless level is -1 (zlib's default) or 0 to 9.
void checkCompressionLevel(int level);

/// Deflate stores at most 258 bytes in 2 bits, so no stream inflates past 1032 times its size.
constexpr std::uint64_t kMaxInflateRatio = 1032;
constexpr std::uint64_t maxInflatedBytes(std::uint64_t streamBytes) {
  return streamBytes > UINT64_MAX / kMaxInflateRatio ? UINT64_MAX : streamBytes * kMaxInflateRatio;
}

/// The CompressorException message for a zlib status other than Z_OK.
std::string zlibStatusMessage(int status);
/// Throws CompressorException(zlibStatusMessage(status)) unless status is Z_OK.
void throwIfZlibFailed(int status);

}  // namespace vorn::detail
