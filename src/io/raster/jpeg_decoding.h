#pragma once

// jpeglib.h needs FILE and size_t declared first.
#include <cstdio>
// clang-format off
#include <jpeglib.h>
// clang-format on

#include <csetjmp>
#include <cstddef>
#include <cstdint>

#include "io/raster/raster_status.h"
#include "vorn/io/fail_on.h"

namespace vorn::detail {

/// The decoder's errors, and the warnings the policy fails, leave through longjmp: nothing with
/// a destructor may live in a frame between the jpeg calls and the setjmp that catches them.
struct JpegDecodeErrors {
  jpeg_error_mgr base;
  jpeg_progress_mgr progress;
  std::jmp_buf jump;
  FailOn failOn = FailOn::Error;
  int warnings = 0;
  char firstWarning[JMSG_LENGTH_MAX] = {};
  char fatal[JMSG_LENGTH_MAX] = {};
  bool damaged = false;  ///< `fatal` is a warning the policy fails, not a decoder error
};

/// Routes the decoder's errors, warnings and progress through `errors` under `failOn`.
void prepareJpegDecoder(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors, FailOn failOn);
/// Reads the header alone; false when the decoder stopped (errors.fatal says why).
bool readJpegHeaderOnly(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors,
                        const std::uint8_t* data, std::size_t size);
/// Reads the header and sets the DCT scale and RGB output; false when the decoder stopped
/// (errors.fatal says why).
bool startJpegDecoder(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors,
                      const std::uint8_t* data, std::size_t size, int denominator);
/// Starts the decompression proper (after startJpegDecoder); false when the decoder stopped.
bool beginJpegRows(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors);
/// Reads `count` rows into `rows`; false when the decoder stopped.
bool readJpegRows(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors, JSAMPROW* rows,
                  int count);
/// Reads what follows the last row, up to the end marker; false when the decoder stopped.
bool finishJpegDecoder(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors);
/// Code 6 at `stage`, with the decoder's message and whether the policy refused it.
RasterStatus jpegDecoderFailure(const JpegDecodeErrors& errors, const char* stage);
/// After the last row: fails when the decoder stopped on damage the policy refuses, else logs
/// what it saw (an error after the last row, warnings) under `name` and succeeds.
RasterStatus concludeJpegDecode(jpeg_decompress_struct& cinfo, JpegDecodeErrors& errors,
                                FailOn failOn, const std::string& name);

}  // namespace vorn::detail
