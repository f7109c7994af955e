#include "io/raster/export_plan.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>

#include "io/input_limits.h"
#include "io/memory_limit.h"
#include "io/raster/atomic_file.h"
#include "io/raster/jpeg_encoder.h"
#include "io/raster/orientation.h"
#include "io/raster/tiff_encoder.h"
#include "vorn/core/log.h"

namespace vorn::detail {

// The largest side libjpeg encodes.
constexpr int kJpegMaxSide = 65500;

bool failExport(const char* function, const std::string& path, const std::string& stage,
                const std::string& reason) {
  LogError("%s %s: %s: %s", function, path.c_str(), stage.c_str(), reason.c_str());
  return false;
}

namespace {

std::string sizeText(_Size<int> size) {
  return std::to_string(size.width) + " x " + std::to_string(size.height);
}

}  // namespace

_Size<int> exportSize(_Size<int> frame, const ExportParameters& p) {
  if (p.longestSide > 0) {
    const int longest = std::max(frame.width, frame.height);
    if (longest <= 0) return frame;
    const double scale = static_cast<double>(p.longestSide) / longest;
    const auto side = [scale](int length) {
      return static_cast<int>(std::clamp(std::round(length * scale), 1.0, double(1 << 30)));
    };
    return _Size<int>(side(frame.width), side(frame.height));
  }
  if (p.size.width > 0 && p.size.height > 0) return p.size;
  return frame;
}

SampleFormat exportSampleFormat(RasterFormat format, int tiffBitDepth) {
  if (format == RasterFormat::Jpeg || tiffBitDepth == 8) return SampleFormat::U8;
  return tiffBitDepth == 16 ? SampleFormat::U16 : SampleFormat::F32;
}

std::shared_ptr<ColorProfile> exportProfile(const std::shared_ptr<ColorProfile>& frameProfile,
                                            const ExportParameters& p, SampleFormat format) {
  if (p.colorProfile) return p.colorProfile;
  // Most viewers ignore embedded profiles in 8-bit files and show them as sRGB.
  if (format == SampleFormat::U8 || !frameProfile) return ColorProfileType::sRGB();
  return frameProfile;
}

std::string checkExportOptions(RasterFormat format, const ExportParameters& p, std::size_t frames) {
  if (format == RasterFormat::Unknown) return "not a jpg, jpeg, tif or tiff file name";
  if (frames == 0) return "no frames";
  if (frames > 1 && format != RasterFormat::Tiff) return "only a TIFF holds several frames";
  if (p.tiffBitDepth != 8 && p.tiffBitDepth != 16 && p.tiffBitDepth != 32)
    return "TIFF bit depth must be 8, 16 or 32";
  return {};
}

std::string checkWrittenSize(_Size<int> frame, RasterFormat format, const ExportParameters& p) {
  if (frame.width <= 0 || frame.height <= 0) return "empty frame";
  const _Size<int> size = exportSize(frame, p);
  const _Size<int> written = orientedSize(size, p.orientation);
  const std::uint64_t pixels =
      static_cast<std::uint64_t>(size.width) * static_cast<std::uint64_t>(size.height);
  if (pixels > maxImagePixels())
    return "the written image of " + sizeText(written) + " exceeds the pixel cap of " +
           std::to_string(maxImagePixels()) + " (" + kMaxPixelsSetting + ")";
  if (format == RasterFormat::Jpeg && std::max(size.width, size.height) > kJpegMaxSide)
    return "the written image of " + sizeText(written) + " is beyond JPEG's largest side of " +
           std::to_string(kJpegMaxSide);
  // A resized copy of the frame, and the coefficients a two-pass JPEG encoder holds.
  std::uint64_t bytes = size == frame ? 0 : pixels * sizeof(PixelRGB<float>);
  if (format == RasterFormat::Jpeg && (p.jpegOptimizeHuffman || p.jpegProgressive))
    bytes += pixels * 3 * sizeof(std::int16_t);
  return checkWorkingBytes(bytes, "writing " + sizeText(written));
}

bool checkExportTarget(const ExportParameters& parameters, RasterFormat format,
                       const std::vector<_Size<int>>& frames, std::string& stage,
                       std::string& reason) {
  stage = "format";
  reason = checkExportOptions(format, parameters, frames.size());
  if (!reason.empty()) return false;
  stage = "limit";
  for (std::size_t i = 0; reason.empty() && i < frames.size(); ++i) {
    const bool empty = frames[i].width <= 0 || frames[i].height <= 0;
    reason = empty ? std::string("empty frame") : checkWrittenSize(frames[i], format, parameters);
  }
  if (!reason.empty()) return false;
  stage = "open";
  if (isSameFile(parameters.path, parameters.exifSourcePath)) {
    reason = "the output would replace the EXIF source";
    return false;
  }
  return checkOutputLocation(parameters.path, reason);
}

bool readExportMetadataFor(const ExportParameters& parameters, RasterFormat format,
                           _Size<int> written, ExportMetadata& metadata, std::string& reason) {
  if (parameters.exifSourcePath.empty()) return true;
  const std::size_t exifLimit = format == RasterFormat::Jpeg ? kJpegMaxExifBytes : SIZE_MAX;
  return readExportMetadata(parameters.exifSourcePath, written, exifLimit, metadata, reason);
}

bool writeExportPages(const char* function, const ExportParameters& parameters, RasterFormat format,
                      const std::vector<const ExportRows*>& pages, const ExportMetadata& metadata,
                      const std::function<bool(std::string&)>& finished) {
  const std::string& path = parameters.path;
  std::string reason;
  PendingFile file;
  if (!file.open(path, reason)) return failExport(function, path, "open", reason);
  bool encoded = false;
  try {
    encoded = format == RasterFormat::Jpeg
                  ? encodeJpeg(file.fd(), *pages.front(), parameters, metadata, reason)
                  : encodeTiff(file.fd(), pages, metadata, path, reason);
  } catch (const std::bad_alloc&) {
    reason = "out of memory";
  }
  if (!encoded) return failExport(function, path, "encode", reason);
  if (finished && !finished(reason)) return failExport(function, path, "decode", reason);
  if (!file.commit(reason)) return failExport(function, path, "write", reason);
  return true;
}

}  // namespace vorn::detail
