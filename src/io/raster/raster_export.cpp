#include <algorithm>
#include <cmath>
#include <exception>
#include <new>
#include <vector>

#include "io/input_limits.h"
#include "io/memory_limit.h"
#include "io/raster/atomic_file.h"
#include "io/raster/export_metadata.h"
#include "io/raster/export_rows.h"
#include "io/raster/jpeg_encoder.h"
#include "io/raster/orientation.h"
#include "io/raster/raster_format.h"
#include "io/raster/tiff_encoder.h"
#include "vorn/core/log.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn {
namespace {

// The largest side libjpeg encodes.
constexpr int kJpegMaxSide = 65500;

// One line per failed export: the exporting function's signature, the file, the stage, why.
bool failExport(const char* function, const std::string& path, const std::string& stage,
                const std::string& reason) {
  LogError("%s %s: %s: %s", function, path.c_str(), stage.c_str(), reason.c_str());
  return false;
}

std::string sizeText(_Size<int> size) {
  return std::to_string(size.width) + " x " + std::to_string(size.height);
}

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

detail::SampleFormat sampleFormat(detail::RasterFormat format, int tiffBitDepth) {
  if (format == detail::RasterFormat::Jpeg || tiffBitDepth == 8) return detail::SampleFormat::U8;
  return tiffBitDepth == 16 ? detail::SampleFormat::U16 : detail::SampleFormat::F32;
}

std::shared_ptr<ColorProfile> outputProfile(const ImageFrame& frame, const ExportParameters& p,
                                            detail::SampleFormat format) {
  if (p.colorProfile) return p.colorProfile;
  // Most viewers ignore embedded profiles in 8-bit files and show them as sRGB.
  if (format == detail::SampleFormat::U8 || !frame.colorProfile) return ColorProfileType::sRGB();
  return frame.colorProfile;
}

// What the options themselves allow, before any file or pixel is looked at.
std::string checkOptions(detail::RasterFormat format, const ExportParameters& p,
                         std::size_t frames) {
  if (format == detail::RasterFormat::Unknown) return "not a jpg, jpeg, tif or tiff file name";
  if (frames == 0) return "no frames";
  if (frames > 1 && format != detail::RasterFormat::Tiff) return "only a TIFF holds several frames";
  if (p.tiffBitDepth != 8 && p.tiffBitDepth != 16 && p.tiffBitDepth != 32)
    return "TIFF bit depth must be 8, 16 or 32";
  return {};
}

// The written size against the format, the pixel cap and the memory the step needs.
std::string checkWrittenSize(_Size<int> frame, detail::RasterFormat format,
                             const ExportParameters& p) {
  if (frame.width <= 0 || frame.height <= 0) return "empty frame";
  const _Size<int> size = exportSize(frame, p);
  const _Size<int> written = detail::orientedSize(size, p.orientation);
  const std::uint64_t pixels =
      static_cast<std::uint64_t>(size.width) * static_cast<std::uint64_t>(size.height);
  if (pixels > detail::maxImagePixels())
    return "the written image of " + sizeText(written) + " exceeds the pixel cap of " +
           std::to_string(detail::maxImagePixels()) + " (" + detail::kMaxPixelsSetting + ")";
  if (format == detail::RasterFormat::Jpeg && std::max(size.width, size.height) > kJpegMaxSide)
    return "the written image of " + sizeText(written) + " is beyond JPEG's largest side of " +
           std::to_string(kJpegMaxSide);
  // A resized copy of the frame, and the coefficients a two-pass JPEG encoder holds.
  std::uint64_t bytes = size == frame ? 0 : pixels * sizeof(PixelRGB<float>);
  if (format == detail::RasterFormat::Jpeg && (p.jpegOptimizeHuffman || p.jpegProgressive))
    bytes += pixels * 3 * sizeof(std::int16_t);
  return detail::checkWorkingBytes(bytes, "writing " + sizeText(written));
}

bool exportFrames(const char* function,
                  const std::vector<std::shared_ptr<const ImageFrame>>& frames,
                  const ExportParameters& parameters, detail::RasterFormat format) {
  const std::string& path = parameters.path;
  std::string reason = checkOptions(format, parameters, frames.size());
  if (!reason.empty()) return failExport(function, path, "format", reason);
  for (const auto& frame : frames) {
    reason = frame && !frame->empty() ? checkWrittenSize(frame->size(), format, parameters)
                                      : std::string("empty frame");
    if (!reason.empty()) return failExport(function, path, "limit", reason);
  }
  if (detail::isSameFile(path, parameters.exifSourcePath))
    return failExport(function, path, "open", "the output would replace the EXIF source");
  if (!detail::checkOutputLocation(path, reason)) return failExport(function, path, "open", reason);

  const detail::SampleFormat samples = sampleFormat(format, parameters.tiffBitDepth);
  const _Size<int> firstSize =
      detail::orientedSize(exportSize(frames.front()->size(), parameters), parameters.orientation);
  detail::ExportMetadata metadata;
  const std::size_t exifLimit =
      format == detail::RasterFormat::Jpeg ? detail::kJpegMaxExifBytes : SIZE_MAX;
  if (!parameters.exifSourcePath.empty() &&
      !detail::readExportMetadata(parameters.exifSourcePath, firstSize, exifLimit, metadata,
                                  reason))
    return failExport(function, path, "exif", reason);

  std::vector<std::shared_ptr<const ImageFrame>> resized;
  std::vector<std::unique_ptr<detail::ExportRows>> pages;
  try {
    for (const auto& frame : frames) {
      const _Size<int> size = exportSize(frame->size(), parameters);
      std::shared_ptr<const ImageFrame> pixels = frame;
      if (size != frame->size()) {
        pixels = frame->resize(size, {}, true);
        if (!pixels) return failExport(function, path, "pixels", "resize failed");
      }
      auto rows = std::make_unique<detail::ExportRows>();
      if (!rows->prepare(*pixels, parameters.orientation,
                         outputProfile(*frame, parameters, samples), samples, reason))
        return failExport(function, path, "pixels", reason);
      resized.push_back(std::move(pixels));
      pages.push_back(std::move(rows));
    }
  } catch (const std::bad_alloc&) {
    return failExport(function, path, "pixels", "out of memory");
  }

  detail::PendingFile file;
  if (!file.open(path, reason)) return failExport(function, path, "open", reason);
  bool encoded = false;
  try {
    if (format == detail::RasterFormat::Jpeg) {
      encoded = detail::encodeJpeg(file.fd(), *pages.front(), parameters, metadata, reason);
    } else {
      std::vector<const detail::ExportRows*> list;
      for (const auto& page : pages) list.push_back(page.get());
      encoded = detail::encodeTiff(file.fd(), list, metadata, path, reason);
    }
  } catch (const std::bad_alloc&) {
    reason = "out of memory";
  }
  if (!encoded) return failExport(function, path, "encode", reason);
  if (!file.commit(reason)) return failExport(function, path, "write", reason);
  return true;
}

}  // namespace

bool ImageMagickReader::checkExport(_Size<int> frameSize, const ExportParameters& parameters,
                                    std::string& reason) {
  const detail::RasterFormat format = detail::rasterFormatFromExtension(parameters.path);
  reason = checkOptions(format, parameters, 1);
  const bool sizeKnown = frameSize.width > 0 && frameSize.height > 0;
  if (reason.empty() && sizeKnown) reason = checkWrittenSize(frameSize, format, parameters);
  if (!reason.empty()) return false;
  if (detail::isSameFile(parameters.path, parameters.exifSourcePath)) {
    reason = "the output would replace its source " + parameters.exifSourcePath;
    return false;
  }
  return detail::checkOutputLocation(parameters.path, reason);
}

_Size<int> ImageMagickReader::writtenSize(_Size<int> frameSize,
                                          const ExportParameters& parameters) {
  return detail::orientedSize(exportSize(frameSize, parameters), parameters.orientation);
}

bool ImageMagickReader::writeImagesToFile(
    const std::vector<std::shared_ptr<const ImageFrame>>& frames,
    const ExportParameters& parameters) {
  return exportFrames(__PRETTY_FUNCTION__, frames, parameters,
                      detail::rasterFormatFromExtension(parameters.path));
}

bool ImageMagickReader::writeImageToFile(const _ImageData<PixelRGB<float>>& frame,
                                         const ExportParameters& parameters) {
  // The frame is only read; an aliasing pointer avoids copying it into the list.
  const std::shared_ptr<const ImageFrame> view(std::shared_ptr<const ImageFrame>(), &frame);
  return exportFrames(__PRETTY_FUNCTION__, {view}, parameters,
                      detail::rasterFormatFromExtension(parameters.path));
}

bool ImageMagickReader::writeHDRImageToFile(const _ImageData<PixelRGB<float>>& frame,
                                            const std::string& path) {
  ExportParameters parameters;
  parameters.path = path;
  parameters.tiffBitDepth = 32;
  const std::shared_ptr<const ImageFrame> view(std::shared_ptr<const ImageFrame>(), &frame);
  // Always a TIFF, whatever the name ends in: the one format here that holds float samples.
  return exportFrames(__PRETTY_FUNCTION__, {view}, parameters, detail::RasterFormat::Tiff);
}

}  // namespace vorn
