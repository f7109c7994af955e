#include "io/raster/jpeg_decoding.h"

#include <jerror.h>

#include <string>

#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

// A progressive stream may hold any number of scans; past 500 it is treated as hostile.
constexpr int kMaxScans = 500;

JpegDecodeErrors& errorsOf(j_common_ptr cinfo) {
  return *reinterpret_cast<JpegDecodeErrors*>(cinfo->err);
}

[[noreturn]] void onError(j_common_ptr cinfo) {
  JpegDecodeErrors& errors = errorsOf(cinfo);
  (*cinfo->err->format_message)(cinfo, errors.fatal);
  std::longjmp(errors.jump, 1);
}

// Warnings about markers that carry no pixels; the picture is whole.
bool isHarmless(int code) {
  return code == JWRN_ADOBE_XFORM || code == JWRN_BOGUS_ICC || code == JWRN_JFIF_MAJOR;
}

void onMessage(j_common_ptr cinfo, int level) {
  if (level >= 0) return;  // trace output
  JpegDecodeErrors& errors = errorsOf(cinfo);
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
  JpegDecodeErrors& errors = errorsOf(cinfo);
  std::snprintf(errors.fatal, sizeof errors.fatal, "progressive JPEG with more than %d scans",
                kMaxScans);
  std::longjmp(errors.jump, 1);
}

}  // namespace

void prepareJpegDecoder(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors, FailOn failOn) {
  cinfo.err = jpeg_std_error(&errors.base);
  errors.base.error_exit = onError;
  errors.base.emit_message = onMessage;
  errors.progress.progress_monitor = onProgress;
  errors.failOn = failOn;
}

bool readJpegHeaderOnly(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors,
                        const std::uint8_t* data, std::size_t size) {
  if (setjmp(errors.jump)) return false;
  jpeg_create_decompress(&cinfo);
  cinfo.progress = &errors.progress;
  jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
  jpeg_read_header(&cinfo, TRUE);
  return true;
}

bool startJpegDecoder(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors,
                      const std::uint8_t* data, std::size_t size, int denominator) {
  if (!readJpegHeaderOnly(cinfo, errors, data, size)) return false;
  if (setjmp(errors.jump)) return false;
  cinfo.scale_num = 1;
  cinfo.scale_denom = static_cast<unsigned>(denominator);
  cinfo.out_color_space = JCS_RGB;
  cinfo.dct_method = JDCT_ISLOW;
  jpeg_calc_output_dimensions(&cinfo);
  return true;
}

bool beginJpegRows(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors) {
  if (setjmp(errors.jump)) return false;
  jpeg_start_decompress(&cinfo);
  return true;
}

bool readJpegRows(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors, JSAMPROW* rows,
                  int count) {
  if (setjmp(errors.jump)) return false;
  for (int read = 0; read < count;) {
    const JDIMENSION got =
        jpeg_read_scanlines(&cinfo, rows + read, static_cast<JDIMENSION>(count - read));
    if (got == 0) ERREXIT(&cinfo, JERR_INPUT_EMPTY);
    read += static_cast<int>(got);
  }
  return true;
}

bool finishJpegDecoder(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors) {
  if (setjmp(errors.jump)) return false;
  jpeg_finish_decompress(&cinfo);
  return true;
}

RasterStatus jpegDecoderFailure(const JpegDecodeErrors& errors, const char* stage) {
  std::string reason = errors.fatal;
  if (errors.damaged) reason += " (damaged data, refused by the fail-on policy)";
  return RasterStatus::failure(kImageReaderCorrupt, stage, reason);
}

RasterStatus concludeJpegDecode(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors,
                                FailOn failOn, const std::string& name) {
  // Every row is out: damage after the last one (a stray frame header in a garbage tail) spoils
  // no pixel, so only the policy decides.
  if (!finishJpegDecoder(cinfo, errors)) {
    if (errors.damaged || damageFails(failOn, false)) return jpegDecoderFailure(errors, "decode");
    LogWarning("%s: JPEG decoder error after the last row: %s (the pixels were kept)", name.c_str(),
               errors.fatal);
  }
  if (errors.warnings > 0)
    LogWarning("%s: JPEG decoder warning: %s (%d in all; the pixels were kept)", name.c_str(),
               errors.firstWarning, errors.warnings);
  return RasterStatus::success();
}

}  // namespace vorn::detail
