#include "io/zlib_stream.h"

#include <libdeflate.h>
#include <zlib.h>

#include <atomic>
#include <cstring>
#include <memory>

#include "core/parallel.h"
#include "io/pooled_bytes.h"
#include "vorn/io/image_compressor.h"

namespace vorn::detail {
namespace {

using CompressorException = ImageCompressorLosslessZlib::CompressorException;

std::atomic<InflateEngine> gEngine{InflateEngine::Libdeflate};

struct DecompressorDeleter {
  void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// A decompressor holds ~10 KiB of tables; one per thread avoids allocating it per blob.
libdeflate_decompressor* threadDecompressor() {
  thread_local std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> decompressor(
      libdeflate_alloc_decompressor());
  return decompressor.get();
}

// An empty vector's data() may be null, which neither library promises to accept.
const std::uint8_t* nonNull(const std::uint8_t* p) {
  static const std::uint8_t kEmpty = 0;
  return p ? p : &kEmpty;
}

bool tryLibdeflate(const std::uint8_t* src, std::size_t srcLen, std::uint8_t* dst,
                   std::size_t capacity, std::size_t& written) {
  libdeflate_decompressor* decompressor = threadDecompressor();
  if (!decompressor) return false;
  // Like zlib, libdeflate stops at the end of the stream and ignores any bytes after it.
  return libdeflate_zlib_decompress(decompressor, nonNull(src), srcLen, dst, capacity, &written) ==
         LIBDEFLATE_SUCCESS;
}

void zeroTail(std::uint8_t* dst, std::size_t from, std::size_t capacity) {
  if (from < capacity) std::memset(dst + from, 0, capacity - from);
}

}  // namespace

InflateEngine defaultInflateEngine() {
  return gEngine.load(std::memory_order_relaxed);
}

void setDefaultInflateEngine(InflateEngine engine) {
  gEngine.store(engine, std::memory_order_relaxed);
}

InflateResult inflateZlib(const std::uint8_t* src, std::size_t srcLen, std::uint8_t* dst,
                          std::size_t capacity) {
  uLongf destLen = capacity;
  const int status = uncompress(dst, &destLen, nonNull(src), srcLen);
  return {status, destLen};
}

InflateResult inflateLibdeflate(const std::uint8_t* src, std::size_t srcLen, std::uint8_t* dst,
                                std::size_t capacity) {
  std::size_t written = 0;
  if (tryLibdeflate(src, srcLen, dst, capacity, written)) return {Z_OK, written};
  // Corrupt, truncated and overlong streams are rare: zlib names their exact failure
  // (a cut stream is Z_DATA_ERROR, or Z_BUF_ERROR when it had just filled the buffer).
  // Known gap: libdeflate reads a few block headers that no encoder writes and zlib refuses
  // (over 286 length or 30 distance codes, an overlong length repeat); those stay read.
  return inflateZlib(src, srcLen, dst, capacity);
}

InflateResult inflateInto(const std::uint8_t* src, std::size_t srcLen, std::uint8_t* dst,
                          std::size_t capacity, InflateTail tail, InflateEngine engine) {
  if (engine == InflateEngine::Zlib) {
    const InflateResult result = inflateZlib(src, srcLen, dst, capacity);
    if (result.status == Z_OK && tail == InflateTail::Zero) zeroTail(dst, result.written, capacity);
    return result;
  }
  if (tail != InflateTail::Preserve) {
    const InflateResult result = inflateLibdeflate(src, srcLen, dst, capacity);
    if (result.status == Z_OK) zeroTail(dst, result.written, capacity);
    return result;
  }
  // libdeflate may scribble past the end of a short stream, so the caller's buffer only
  // receives what the stream holds.
  PooledBytes scratch(capacity);
  std::size_t written = 0;
  if (tryLibdeflate(src, srcLen, scratch.data(), capacity, written)) {
    parallelCopy(dst, scratch.data(), written);
    return {Z_OK, written};
  }
  return inflateZlib(src, srcLen, dst, capacity);
}

void checkCompressionLevel(int level) {
  // zlib would refuse the level with Z_STREAM_ERROR after the header was already planned.
  if (level == Z_DEFAULT_COMPRESSION || (level >= 0 && level <= 9)) return;
  throw CompressorException("Invalid zlib compression level " + std::to_string(level));
}

std::size_t deflateInto(const std::uint8_t* src, std::size_t srcLen, std::uint8_t* dst,
                        std::size_t capacity, int level) {
  checkCompressionLevel(level);
  uLongf destLen = capacity;
  throwIfZlibFailed(compress2(dst, &destLen, nonNull(src), srcLen, level));
  return destLen;
}

std::string zlibStatusMessage(int status) {
  switch (status) {
    case Z_MEM_ERROR:
      return "there was not enough memory";
    case Z_BUF_ERROR:
      return "there was not enough room in the output buffer";
    case Z_DATA_ERROR:
      return "the input data was corrupted or incomplete";
    default:
      return "zlib failed with status " + std::to_string(status);
  }
}

void throwIfZlibFailed(int status) {
  if (status != Z_OK) throw CompressorException(zlibStatusMessage(status));
}

}  // namespace vorn::detail
