// decodeJpegFrame: libjpeg's scanline interface, so rows go from the decoder into the float
// frame a band at a time and the decoder's warnings are seen one by one.

#include <algorithm>
#include <array>
#include <climits>
#include <system_error>
#include <thread>
#include <vector>

#include "io/memory_limit.h"
#include "io/raster/jpeg_decoder.h"
#include "io/raster/jpeg_decoding.h"
#include "io/raster/orientation.h"
#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

// A band of 8-bit rows is about 1 MiB: it stays in cache between the decoder writing it and the
// converter reading it, and a 24 MP image still takes only some seventy hand-overs.
constexpr std::size_t kBandBytes = std::size_t(1) << 20;
constexpr int kMinBandRows = 16;

/// Converts one band on a helper thread while the decoder, which runs on one core, fills the
/// other band buffer.
class BandConverter {
 public:
  BandConverter(std::size_t rowBytes, int bandRows, _Size<int> stored, int orientation,
                ImageFrame& frame)
      : rowBytes_(rowBytes), stored_(stored), orientation_(orientation), frame_(frame) {
    for (auto& buffer : buffers_) buffer.resize(rowBytes * static_cast<std::size_t>(bandRows));
  }
  ~BandConverter() { wait(); }
  BandConverter(const BandConverter&) = delete;
  BandConverter& operator=(const BandConverter&) = delete;

  std::uint8_t* buffer(int slot) { return buffers_[static_cast<std::size_t>(slot)].data(); }

  /// Converts `rows` rows from `firstRow` held in buffer `slot`, once the previous band is done.
  void start(int slot, int firstRow, int rows) {
    wait();
    const auto convert = [this, slot, firstRow, rows] {
      convertRgb8Rows(buffer(slot), rowBytes_, firstRow, rows, stored_, orientation_, frame_);
    };
    try {
      helper_ = std::thread(convert);
    } catch (const std::system_error&) {
      convert();  // no thread to be had: the band is converted here instead
    }
  }
  void wait() {
    if (helper_.joinable()) helper_.join();
  }

 private:
  std::size_t rowBytes_;
  _Size<int> stored_;
  int orientation_;
  ImageFrame& frame_;
  std::array<std::vector<std::uint8_t>, 2> buffers_;
  std::thread helper_;
};

// Decodes every row, band by band, into the converter; false when the decoder stopped.
bool decodeRows(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors, BandConverter& converter,
                std::vector<JSAMPROW>& rows, std::size_t rowBytes) {
  if (!beginJpegRows(cinfo, errors)) return false;
  const int height = static_cast<int>(cinfo.output_height);
  const int bandRows = static_cast<int>(rows.size());
  int slot = 0;
  while (static_cast<int>(cinfo.output_scanline) < height) {
    const int first = static_cast<int>(cinfo.output_scanline);
    const int count = std::min(bandRows, height - first);
    std::uint8_t* band = converter.buffer(slot);
    for (std::size_t r = 0; r < static_cast<std::size_t>(count); ++r) rows[r] = band + r * rowBytes;
    if (!readJpegRows(cinfo, errors, rows.data(), count)) return false;
    converter.start(slot, first, count);
    slot ^= 1;
  }
  converter.wait();
  return true;
}

}  // namespace

RasterStatus decodeJpegFrame(const std::uint8_t* data, std::size_t size,
                             const JpegFrameRequest& request, const std::string& name,
                             std::shared_ptr<ImageFrame>& frame) {
  if (size > static_cast<std::size_t>(ULONG_MAX))
    return RasterStatus::failure(kImageReaderCorrupt, "header", "stream too long");
  jpeg_decompress_struct cinfo{};
  JpegDecodeErrors errors;
  prepareJpegDecoder(cinfo, errors, request.failOn);
  struct Destroy {
    jpeg_decompress_struct& cinfo;
    ~Destroy() { jpeg_destroy_decompress(&cinfo); }
  } destroy{cinfo};
  if (!startJpegDecoder(cinfo, errors, data, size, request.denominator))
    return jpegDecoderFailure(errors, "header");
  const _Size<int> stored(static_cast<int>(cinfo.output_width),
                          static_cast<int>(cinfo.output_height));
  if (cinfo.output_components != 3)
    return RasterStatus::failure(kImageReaderFailed, "header", "not an RGB or YCbCr JPEG");
  const std::size_t rowBytes = static_cast<std::size_t>(stored.width) * 3;
  const int bandRows =
      std::min(stored.height, std::max<int>(kMinBandRows, static_cast<int>(kBandBytes / rowBytes)));
  const std::uint64_t bandBytes = 2 * rowBytes * static_cast<std::uint64_t>(bandRows);
  const _Size<int> upright = orientedSize(stored, request.orientation);
  if (std::string reason = checkFrameAllocation(upright, "the decoded image", bandBytes);
      !reason.empty())
    return RasterStatus::failure(kImageReaderTooLarge, "limit", reason);
  try {
    frame = std::make_shared<ImageFrame>(upright);
    std::vector<JSAMPROW> rows(static_cast<std::size_t>(bandRows));
    BandConverter converter(rowBytes, bandRows, stored, request.orientation, *frame);
    if (!decodeRows(cinfo, errors, converter, rows, rowBytes)) {
      converter.wait();  // the band being converted still writes into the frame
      frame.reset();
      return jpegDecoderFailure(errors, "decode");
    }
  } catch (const std::bad_alloc&) {
    frame.reset();
    return RasterStatus::failure(kImageReaderFailed, "decode", "out of memory");
  }
  RasterStatus status = concludeJpegDecode(cinfo, errors, request.failOn, name);
  if (!status.ok()) frame.reset();
  return status;
}

}  // namespace vorn::detail
