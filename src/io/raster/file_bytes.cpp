#include "io/raster/file_bytes.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>

#include "io/input_limits.h"

namespace vorn::detail {

RasterStatus readWholeFile(const std::string& path, FileBytes& bytes) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec))
    return RasterStatus::failure(kImageReaderFailed, "open", "not a readable file");
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr)
    return RasterStatus::failure(kImageReaderFailed, "open", std::strerror(errno));
  struct Closer {
    std::FILE* f;
    ~Closer() { std::fclose(f); }
  } closer{file};

  if (std::fseek(file, 0, SEEK_END) != 0)
    return RasterStatus::failure(kImageReaderFailed, "open", "cannot seek");
  const long length = std::ftell(file);
  if (length < 0 || std::fseek(file, 0, SEEK_SET) != 0)
    return RasterStatus::failure(kImageReaderFailed, "open", "cannot tell the size");
  if (static_cast<std::uint64_t>(length) > kMaxInputFileBytes)
    return RasterStatus::failure(kImageReaderTooLarge, "open",
                                 std::to_string(length) + " bytes, more than any photo holds");
  bytes.size = static_cast<std::size_t>(length);
  bytes.data.reset(new (std::nothrow) std::uint8_t[bytes.size ? bytes.size : 1]);
  if (!bytes.data) return RasterStatus::failure(kImageReaderFailed, "open", "out of memory");
  // A file that shrinks while it is read reports a short read instead of stale bytes.
  if (std::fread(bytes.data.get(), 1, bytes.size, file) != bytes.size)
    return RasterStatus::failure(kImageReaderFailed, "open", "short read");
  return RasterStatus::success();
}

}  // namespace vorn::detail
