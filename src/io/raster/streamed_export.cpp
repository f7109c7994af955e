#include "vorn/io/streamed_export.h"

#include <algorithm>
#include <new>

#include "core/log_failure.h"
#include "io/raster/exif_metadata.h"
#include "io/raster/export_plan.h"
#include "io/raster/icc_profile.h"
#include "io/raster/jpeg_band_reader.h"
#include "io/raster/jpeg_decoder.h"
#include "io/raster/jpeg_markers.h"
#include "io/raster/orientation.h"
#include "io/raster/pixel_cap.h"

namespace vorn {
namespace {

using namespace detail;

bool streamableParameters(const ExportParameters& p, RasterFormat format) {
  const bool resized = p.longestSide > 0 || (p.size.width > 0 && p.size.height > 0);
  return format != RasterFormat::Unknown && !resized && normalizedOrientation(p.orientation) == 1;
}

// Decodes, processes and hands out one band after the other, as the encoder asks for them.
class StreamSource {
 public:
  StreamSource(JpegBandReader& reader, const BandProcessor& process, std::string name,
               std::shared_ptr<ColorProfile> profile)
      : reader_(reader), process_(process), name_(std::move(name)), profile_(std::move(profile)) {}

  // After a failure the encoder still asks for the remaining rows: it gets black ones, and the
  // file is thrown away once it is done. Bands are as tall as the encoder asks (a few MiB).
  const PixelRGB<float>* supply(int first, int count) {
    if (!band_ || band_->height < count) {
      band_ = std::make_unique<ImageFrame>(_Size<int>(reader_.size().width, count));
      band_->setColorProfile(profile_);
    }
    if (!failed()) {
      const RasterStatus status = reader_.read(count, *band_);
      if (!status.ok()) fail(status.code, status.describe(name_));
    }
    if (!failed() && !process_(*band_, first, count)) processFailed_ = true;
    if (!failed()) return band_->data;
    band_->fillRect(PixelRGB<float>(0.0f, 0.0f, 0.0f));
    return band_->data;
  }

  bool failed() const { return processFailed_ || code_ != kImageReaderOk; }
  bool processFailed() const { return processFailed_; }
  ImageReaderErrorCode code() const { return code_; }
  const std::string& reason() const { return reason_; }
  void fail(ImageReaderErrorCode code, std::string reason) {
    code_ = code;
    reason_ = std::move(reason);
  }

 private:
  JpegBandReader& reader_;
  const BandProcessor& process_;
  std::string name_;
  std::shared_ptr<ColorProfile> profile_;
  std::unique_ptr<ImageFrame> band_;
  bool processFailed_ = false;
  ImageReaderErrorCode code_ = kImageReaderOk;
  std::string reason_;
};

StreamedExportResult inputFailure(const RasterStatus& status, const std::string& path) {
  StreamedExportResult result;
  result.status = StreamedExportStatus::InputFailed;
  result.code = status.code;
  result.reason = status.describe(path);
  VORN_LOG_FAILURE(result.reason.c_str());
  return result;
}

}  // namespace

StreamedExportResult exportStreamed(const ImageFileClass& file, FailOn failOn,
                                    const ExportParameters& parameters,
                                    const BandProcessor& process) {
  StreamedExportResult result;
  const RasterFormat format = rasterFormatFromExtension(parameters.path);
  if (file.raw || file.format != ImageFileFormat::Jpeg || !file.isRead() || !process ||
      !streamableParameters(parameters, format))
    return result;
  JpegMarkers markers;
  if (!readJpegMarkers(file.bytes.get(), file.size, markers) || !markers.hasFrame ||
      markers.precision != 8 || markers.components != 3)
    return result;
  const auto metadata = metadataFromBytes(file.bytes.get(), file.size, file.path);
  if (!metadata || normalizedOrientation(metadata->mutableParameters.orientation) != 1)
    return result;

  const _Size<int> size(markers.width, markers.height);
  if (RasterStatus status = checkPixelCap(size); !status.ok())
    return inputFailure(status, file.path);
  const char* function = __PRETTY_FUNCTION__;
  if (std::string stage, reason; !checkExportTarget(parameters, format, {size}, stage, reason)) {
    failExport(function, parameters.path, stage, reason);
    result.status = StreamedExportStatus::OutputFailed;
    result.reason = reason;
    return result;
  }
  if (markers.iccDamaged)
    LogWarning("%s: embedded ICC profile dropped: its chunks are inconsistent, sRGB assumed",
               file.path.c_str());
  const std::shared_ptr<ColorProfile> profile =
      profileFromIcc(markers.icc.data(), markers.icc.size(), file.path);

  JpegBandReader reader;
  if (RasterStatus status = reader.open(file.bytes.get(), file.size, failOn, file.path);
      !status.ok())
    return inputFailure(status, file.path);
  // libjpeg found another frame header than the marker walk did: the whole-frame path decides.
  if (reader.size() != size) return result;

  ExportMetadata exported;
  std::string reason;
  if (!readExportMetadataFor(parameters, format, size, exported, reason)) {
    failExport(function, parameters.path, "exif", reason);
    result.status = StreamedExportStatus::OutputFailed;
    result.reason = reason;
    return result;
  }
  try {
    const SampleFormat samples = exportSampleFormat(format, parameters.tiffBitDepth);
    ExportRows rows;
    StreamSource source(reader, process, file.path, profile);
    if (!rows.prepareStream(
            size, profile, [&source](int first, int count) { return source.supply(first, count); },
            exportProfile(profile, parameters, samples), samples, reason)) {
      failExport(function, parameters.path, "pixels", reason);
      result.status = StreamedExportStatus::OutputFailed;
      result.reason = reason;
      return result;
    }
    const auto finished = [&](std::string& why) {
      if (!source.failed()) {
        const RasterStatus status = reader.finish();
        if (!status.ok()) source.fail(status.code, status.describe(file.path));
      }
      why = source.processFailed() ? "the band processing stopped" : source.reason();
      return !source.failed();
    };
    const bool written =
        writeExportPages(function, parameters, format, {&rows}, exported, finished);
    if (source.processFailed()) {
      result.status = StreamedExportStatus::ProcessFailed;
    } else if (source.code() != kImageReaderOk) {
      result.status = StreamedExportStatus::InputFailed;
      result.code = source.code();
      result.reason = source.reason();
    } else if (!written) {
      result.status = StreamedExportStatus::OutputFailed;
    } else {
      result.status = StreamedExportStatus::Written;
      result.size = size;
    }
  } catch (const std::bad_alloc&) {
    result.status = StreamedExportStatus::OutputFailed;
    result.reason = "out of memory";
  }
  return result;
}

}  // namespace vorn
