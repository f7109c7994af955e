#include <new>
#include <vector>

#include "io/raster/atomic_file.h"
#include "io/raster/export_plan.h"
#include "io/raster/orientation.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn {
namespace {

using namespace detail;

bool exportFrames(const char* function,
                  const std::vector<std::shared_ptr<const ImageFrame>>& frames,
                  const ExportParameters& parameters, RasterFormat format) {
  const std::string& path = parameters.path;
  std::vector<_Size<int>> sizes;
  for (const auto& frame : frames) sizes.push_back(frame ? frame->size() : _Size<int>());
  if (std::string stage, reason; !checkExportTarget(parameters, format, sizes, stage, reason))
    return failExport(function, path, stage, reason);

  const SampleFormat samples = exportSampleFormat(format, parameters.tiffBitDepth);
  const _Size<int> firstSize =
      orientedSize(exportSize(frames.front()->size(), parameters), parameters.orientation);
  ExportMetadata metadata;
  std::string reason;
  if (!readExportMetadataFor(parameters, format, firstSize, metadata, reason))
    return failExport(function, path, "exif", reason);

  std::vector<std::shared_ptr<const ImageFrame>> resized;
  std::vector<std::unique_ptr<ExportRows>> pages;
  std::vector<const ExportRows*> list;
  try {
    for (const auto& frame : frames) {
      const _Size<int> size = exportSize(frame->size(), parameters);
      std::shared_ptr<const ImageFrame> pixels = frame;
      if (size != frame->size()) {
        pixels = frame->resize(size, {}, true);
        if (!pixels) return failExport(function, path, "pixels", "resize failed");
      }
      auto rows = std::make_unique<ExportRows>();
      if (!rows->prepare(*pixels, parameters.orientation,
                         exportProfile(frame->colorProfile, parameters, samples), samples, reason))
        return failExport(function, path, "pixels", reason);
      resized.push_back(std::move(pixels));
      list.push_back(rows.get());
      pages.push_back(std::move(rows));
    }
  } catch (const std::bad_alloc&) {
    return failExport(function, path, "pixels", "out of memory");
  }
  return writeExportPages(function, parameters, format, list, metadata);
}

}  // namespace

bool ImageMagickReader::checkExport(_Size<int> frameSize, const ExportParameters& parameters,
                                    std::string& reason) {
  const detail::RasterFormat format = detail::rasterFormatFromExtension(parameters.path);
  reason = checkExportOptions(format, parameters, 1);
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
