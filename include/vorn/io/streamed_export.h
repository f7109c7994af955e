#pragma once

#include <functional>
#include <string>

#include "vorn/io/fail_on.h"
#include "vorn/io/image.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn {

/// Works on rows [firstRow, firstRow + rows) of a picture, held in rows [0, rows) of `band`, in
/// place; false stops the export (the reason is the caller's to report).
using BandProcessor = std::function<bool(ImageFrame& band, int firstRow, int rows)>;

/// How exportStreamed ended.
enum class StreamedExportStatus {
  Written,
  /// The file or the parameters need the whole frame (see exportStreamed); nothing was done.
  NotStreamable,
  /// The input could not be decoded (`code` says how, as the reader's codes do).
  InputFailed,
  /// The processor stopped the export.
  ProcessFailed,
  /// The output could not be written (the log says why).
  OutputFailed,
};

struct StreamedExportResult {
  StreamedExportStatus status = StreamedExportStatus::NotStreamable;
  ImageReaderErrorCode code = kImageReaderOk;
  std::string reason;
  _Size<int> size;  ///< of the written image
};

/// Decodes a JPEG band by band, hands each band to `process` and encodes it into the JPEG or
/// TIFF of `parameters` as it goes, so the full-size frame is never held: the export of a
/// per-pixel edit at the speed of the codecs and in a few megabytes. It takes files whose rows
/// are stored upright (EXIF orientation 1), in RGB or YCbCr at 8 bits, written at their own
/// size without a turn; anything else is NotStreamable, untouched, for the whole-frame path.
/// A failure leaves no output file behind.
StreamedExportResult exportStreamed(const ImageFileClass& file, FailOn failOn,
                                    const ExportParameters& parameters,
                                    const BandProcessor& process);

}  // namespace vorn
