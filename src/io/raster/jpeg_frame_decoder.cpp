// decodeJpegFrame: libjpeg's scanline interface, so rows go from the decoder into the float
// frame a band at a time and the decoder's warnings are seen one by one.

// jpeglib.h needs FILE and size_t declared first.
#include <cstdio>
// clang-format off
#include <jpeglib.h>
#include <jerror.h>
// clang-format on

#include <algorithm>
#include <array>
#include <climits>
#include <csetjmp>
#include <system_error>
#include <thread>
#include <vector>

#include "io/memory_limit.h"
#include "io/raster/jpeg_decoder.h"
#include "io/raster/orientation.h"
#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

// A band of 8-bit rows is about 1 MiB: it stays in cache between the decoder writing it and the
// converter reading it, and a 24 MP image still takes only some seventy hand-overs.
constexpr std::size_t kBandBytes = std::size_t(1) << 20;
constexpr int kMinBandRows = 16;
// A progressive stream may hold any number of scans; past 500 it is treated as hostile.
constexpr int kMaxScans = 500;

// The decoder's errors, and warnings the policy fails, leave through longjmp: nothing with a
// destructor may live in a frame between the jpeg calls and the setjmp that catches them.
struct DecodeErrors {
  jpeg_error_mgr base;
  jpeg_progress_mgr progress;
  std::jmp_buf jump;
  FailOn failOn = FailOn::Error;
  int warnings = 0;
  char firstWarning[JMSG_LENGTH_MAX] = {};
  char fatal[JMSG_LENGTH_MAX] = {};
  bool damaged = false;  ///< `fatal` is a warning the policy fails, not a decoder error
};

DecodeErrors& errorsOf(j_common_ptr cinfo) {
  return *reinterpret_cast<DecodeErrors*>(cinfo->err);
}

[[noreturn]] void onError(j_common_ptr cinfo) {
  DecodeErrors& errors = errorsOf(cinfo);
  (*cinfo->err->format_message)(cinfo, errors.fatal);
  std::longjmp(errors.jump, 1);
}

// Warnings about markers that carry no pixels; the picture is whole.
bool isHarmless(int code) {
  return code == JWRN_ADOBE_XFORM || code == JWRN_BOGUS_ICC || code == JWRN_JFIF_MAJOR;
}

void onMessage(j_common_ptr cinfo, int level) {
  if (level >= 0) return;  // trace output
  DecodeErrors& errors = errorsOf(cinfo);
  const int code = cinfo->err->msg_code;
  ++cinfo->err->num_warnings;
  if (errors.warnings++ == 0) (*cinfo->err->format_message)(cinfo, errors.firstWarning);
  if (isHarmless(code) || !damageFails(errors.failOn, code == JWRN_JPEG_EOF)) return;
  (*cinfo->err->format_message)(cinfo, errors.fatal);
  errors.damaged = true;
  std::longjmp(errors.jump, 1);
}

void onProgress(j_common_ptr cinfo) {
  if (!cinfo->is_decompressor) return;
  if (reinterpret_cast<j_decompress_ptr>(cinfo)->input_scan_number <= kMaxScans) return;
  DecodeErrors& errors = errorsOf(cinfo);
  std::snprintf(errors.fatal, sizeof errors.fatal, "progressive JPEG with more than %d scans",
                kMaxScans);
  std::longjmp(errors.jump, 1);
}

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

void prepareDecoder(jpeg_decompress_struct& cinfo, DecodeErrors& errors, FailOn failOn) {
  cinfo.err = jpeg_std_error(&errors.base);
  errors.base.error_exit = onError;
  errors.base.emit_message = onMessage;
  errors.progress.progress_monitor = onProgress;
  errors.failOn = failOn;
}

// Reads the header and sets the scale; false when the decoder stopped (errors.fatal says why).
bool startDecoder(jpeg_decompress_struct& cinfo, DecodeErrors& errors, const std::uint8_t* data,
                  std::size_t size, int denominator) {
  if (setjmp(errors.jump)) return false;
  jpeg_create_decompress(&cinfo);
  cinfo.progress = &errors.progress;
  jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
  jpeg_read_header(&cinfo, TRUE);
  cinfo.scale_num = 1;
  cinfo.scale_denom = static_cast<unsigned>(denominator);
  cinfo.out_color_space = JCS_RGB;
  cinfo.dct_method = JDCT_ISLOW;
  jpeg_calc_output_dimensions(&cinfo);
  return true;
}

// Decodes every row, band by band, into the converter; false when the decoder stopped.
bool decodeRows(jpeg_decompress_struct& cinfo, DecodeErrors& errors, BandConverter& converter,
                std::vector<JSAMPROW>& rows, std::size_t rowBytes) {
  if (setjmp(errors.jump)) return false;
  jpeg_start_decompress(&cinfo);
  const int height = static_cast<int>(cinfo.output_height);
  const int bandRows = static_cast<int>(rows.size());
  int slot = 0;
  while (static_cast<int>(cinfo.output_scanline) < height) {
    const int first = static_cast<int>(cinfo.output_scanline);
    const int count = std::min(bandRows, height - first);
    std::uint8_t* band = converter.buffer(slot);
    for (std::size_t r = 0; r < static_cast<std::size_t>(count); ++r) rows[r] = band + r * rowBytes;
    for (int read = 0; read < count;) {
      const JDIMENSION got =
          jpeg_read_scanlines(&cinfo, rows.data() + read, static_cast<JDIMENSION>(count - read));
      if (got == 0) ERREXIT(&cinfo, JERR_INPUT_EMPTY);
      read += static_cast<int>(got);
    }
    converter.start(slot, first, count);
    slot ^= 1;
  }
  converter.wait();
  return true;
}

// Reads what follows the last row, up to the end marker; false when the decoder stopped.
bool finishDecoder(jpeg_decompress_struct& cinfo, DecodeErrors& errors) {
  if (setjmp(errors.jump)) return false;
  jpeg_finish_decompress(&cinfo);
  return true;
}

RasterStatus decoderFailure(const DecodeErrors& errors, const char* stage) {
  std::string reason = errors.fatal;
  if (errors.damaged) reason += " (damaged data, refused by the fail-on policy)";
  return RasterStatus::failure(kImageReaderCorrupt, stage, reason);
}

}  // namespace

RasterStatus decodeJpegFrame(const std::uint8_t* data, std::size_t size,
                             const JpegFrameRequest& request, const std::string& name,
                             std::shared_ptr<ImageFrame>& frame) {
  if (size > static_cast<std::size_t>(ULONG_MAX))
    return RasterStatus::failure(kImageReaderCorrupt, "header", "stream too long");
  jpeg_decompress_struct cinfo{};
  DecodeErrors errors;
  prepareDecoder(cinfo, errors, request.failOn);
  struct Destroy {
    jpeg_decompress_struct& cinfo;
    ~Destroy() { jpeg_destroy_decompress(&cinfo); }
  } destroy{cinfo};
  if (!startDecoder(cinfo, errors, data, size, request.denominator))
    return decoderFailure(errors, "header");
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
      return decoderFailure(errors, "decode");
    }
  } catch (const std::bad_alloc&) {
    frame.reset();
    return RasterStatus::failure(kImageReaderFailed, "decode", "out of memory");
  }
  // Every row is out: damage after the last one (a stray frame header in a garbage tail) spoils
  // no pixel, so only the policy decides.
  if (!finishDecoder(cinfo, errors)) {
    if (errors.damaged || damageFails(request.failOn, false)) {
      frame.reset();
      return decoderFailure(errors, "decode");
    }
    LogWarning("%s: JPEG decoder error after the last row: %s (the pixels were kept)", name.c_str(),
               errors.fatal);
  }
  if (errors.warnings > 0)
    LogWarning("%s: JPEG decoder warning: %s (%d in all; the pixels were kept)", name.c_str(),
               errors.firstWarning, errors.warnings);
  return RasterStatus::success();
}

}  // namespace vorn::detail
