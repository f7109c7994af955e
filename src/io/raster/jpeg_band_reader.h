#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "io/raster/raster_status.h"
#include "vorn/io/fail_on.h"
#include "vorn/io/image.h"

namespace vorn::detail {

/// Decodes a JPEG held in memory from top to bottom, as many rows at a time as the caller asks,
/// into float rows: the pull side of a pipeline that never holds the whole picture. Rows come
/// as stored (no EXIF turn); CMYK files are refused.
class JpegBandReader {
 public:
  JpegBandReader();
  ~JpegBandReader();
  JpegBandReader(const JpegBandReader&) = delete;
  JpegBandReader& operator=(const JpegBandReader&) = delete;

  /// Reads the header (the bytes must outlive the reader); code 6 when the decoder cannot,
  /// 4 for a colour space other than RGB or YCbCr.
  RasterStatus open(const std::uint8_t* data, std::size_t size, FailOn failOn, std::string name);
  _Size<int> size() const { return size_; }
  /// Decodes the next `count` rows into rows [0, count) of `band` (as wide as the image, at
  /// least `count` rows tall). After a failure every later call fails the same way.
  RasterStatus read(int count, ImageFrame& band);
  /// After the last row: the end of the stream, under the fail-on policy.
  RasterStatus finish();

 private:
  struct Decoder;
  std::unique_ptr<Decoder> decoder_;
  std::vector<std::uint8_t> bytes_;  // one band of 8-bit rows
  _Size<int> size_;
  int nextRow_ = 0;
  RasterStatus failure_;
  std::string name_;
};

}  // namespace vorn::detail
