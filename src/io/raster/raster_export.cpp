#include <Magick++.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <new>
#include <vector>

#include "io/magick_environment.h"
#include "io/raster/atomic_file.h"
#include "io/raster/exif_copy.h"
#include "io/raster/magick_decoder.h"
#include "io/raster/orientation.h"
#include "io/raster/raster_format.h"
#include "vorn/core/log.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn {
namespace {

// One line per failed export: the exporting function's signature, the file, the stage, why.
bool failExport(const char* function, const std::string& path, const std::string& stage,
                const std::string& reason) {
  LogError("%s %s: %s: %s", function, path.c_str(), stage.c_str(), reason.c_str());
  return false;
}

_Size<int> exportSize(_Size<int> frame, const ExportParameters& p) {
  if (p.longestSide > 0) {
    const int longest = std::max(frame.width, frame.height);
    if (longest <= 0) return frame;
    const double scale = static_cast<double>(p.longestSide) / longest;
    return _Size<int>(std::max(1, static_cast<int>(std::lround(frame.width * scale))),
                      std::max(1, static_cast<int>(std::lround(frame.height * scale))));
  }
  if (p.size.width > 0 && p.size.height > 0) return p.size;
  return frame;
}

// The pixels as they are written: resized, converted into the output profile, limited to
// [0, 1] (NaN to 0). Null with a reason when a step fails.
std::shared_ptr<ImageFrame> preparePixels(const ImageFrame& frame, const ExportParameters& p,
                                          std::string& reason) {
  const auto source = frame.colorProfile ? frame.colorProfile : ColorProfileType::sRGB();
  const auto target = p.colorProfile ? p.colorProfile : source;
  std::shared_ptr<ImageFrame> pixels;
  const _Size<int> size = exportSize(frame.size(), p);
  if (size != frame.size()) {
    pixels = frame.resize(size, {}, true);
    if (!pixels) {
      reason = "resize failed";
      return nullptr;
    }
  }
  if (*target != *source || target->iccProfile().size() != source->iccProfile().size()) {
    std::shared_ptr<ImageFrame> converted;
    if (!(pixels ? *pixels : frame).colorTransform(converted, target)) {
      reason = "colour conversion failed";
      return nullptr;
    }
    pixels = std::move(converted);
  }
  if (pixels) {
    pixels->clamp();
  } else {
    pixels = frame.copy_saturated();
  }
  pixels->setColorProfile(target);
  return pixels;
}

// Encodes the frames with the parameters' format; warnings are logged, errors become false.
bool encode(std::vector<Magick::Image>& images, const ExportParameters& p,
            std::vector<std::uint8_t>& bytes, std::string& reason) {
  try {
    Magick::Blob blob;
    try {
      if (images.size() == 1) {
        images.front().write(&blob);
      } else {
        Magick::writeImages(images.begin(), images.end(), &blob, true);
      }
    } catch (const Magick::Warning& warning) {
      detail::logMagickWarning(p.path, warning.what());
    }
    if (blob.length() == 0) {
      reason = "encoder gave no bytes";
      return false;
    }
    const auto* data = static_cast<const std::uint8_t*>(blob.data());
    bytes.assign(data, data + blob.length());
    return true;
  } catch (const std::exception& error) {
    reason = error.what();
    return false;
  }
}

}  // namespace

void ImageMagickReader::flipRotateImage(Magick::Image& image, const ExportParameters& parameters) {
  switch (detail::normalizedOrientation(parameters.orientation)) {
    case 2:
      image.flop();
      break;
    case 3:
      image.rotate(180);
      break;
    case 4:
      image.flip();
      break;
    case 5:
      image.transpose();
      break;
    case 6:
      image.rotate(90);
      break;
    case 7:
      image.transverse();
      break;
    case 8:
      image.rotate(270);
      break;
    default:
      break;
  }
}

void ImageMagickReader::SetAdditionalExportParams(Magick::Image& image,
                                                  const ExportParameters& parameters) {
  if (detail::rasterFormatFromExtension(parameters.path) == detail::RasterFormat::Jpeg) {
    image.magick("JPEG");
    image.depth(8);
    image.quality(static_cast<std::size_t>(std::clamp(parameters.jpegQuality, 1, 100)));
  } else {
    image.magick("TIFF");
    image.depth(parameters.tiffBitDepth >= 16 ? 16 : 8);
    // Deflate keeps 16-bit data small where LZW without a predictor barely helps. Level 1
    // (quality / 10) instead of the default 7 took a 22 MP photo's 8-bit export from 5.8 s to 2.6
    // s.
    image.compressType(Magick::ZipCompression);
    image.quality(10);
  }
}

bool ImageMagickReader::writeImagesToFile(
    const std::vector<std::shared_ptr<const ImageFrame>>& frames,
    const ExportParameters& parameters) {
  const std::string& path = parameters.path;
  const detail::RasterFormat format = detail::rasterFormatFromExtension(path);
  if (format == detail::RasterFormat::Unknown)
    return failExport(__PRETTY_FUNCTION__, path, "format",
                      "not a jpg, jpeg, tif or tiff file name");
  if (frames.empty()) return failExport(__PRETTY_FUNCTION__, path, "format", "no frames");
  if (frames.size() > 1 && format != detail::RasterFormat::Tiff)
    return failExport(__PRETTY_FUNCTION__, path, "format", "only a TIFF holds several frames");
  if (parameters.tiffBitDepth != 8 && parameters.tiffBitDepth != 16)
    return failExport(__PRETTY_FUNCTION__, path, "format", "TIFF bit depth must be 8 or 16");
  if (detail::isSameFile(path, parameters.exifSourcePath))
    return failExport(__PRETTY_FUNCTION__, path, "open",
                      "the output would replace the EXIF source");
  detail::ensureMagickEnvironment();

  std::vector<Magick::Image> images;
  _Size<int> firstSize;
  try {
    for (const auto& frame : frames) {
      if (!frame || frame->empty())
        return failExport(__PRETTY_FUNCTION__, path, "pixels", "empty frame");
      std::string reason;
      const auto pixels = preparePixels(*frame, parameters, reason);
      if (!pixels) return failExport(__PRETTY_FUNCTION__, path, "pixels", reason);
      Magick::Image image(static_cast<std::size_t>(pixels->width),
                          static_cast<std::size_t>(pixels->height), "RGB", Magick::FloatPixel,
                          pixels->data);
      flipRotateImage(image, parameters);
      SetAdditionalExportParams(image, parameters);
      const Blob& icc = pixels->colorProfile->iccProfile();
      if (!icc.empty()) image.iccColorProfile(Magick::Blob(icc.data(), icc.size()));
      if (images.empty())
        firstSize = _Size<int>(static_cast<int>(image.columns()), static_cast<int>(image.rows()));
      images.push_back(std::move(image));
    }
  } catch (const Magick::Warning& warning) {
    detail::logMagickWarning(path, warning.what());
    return failExport(__PRETTY_FUNCTION__, path, "pixels", warning.what());
  } catch (const std::exception& error) {
    return failExport(__PRETTY_FUNCTION__, path, "pixels", error.what());
  }

  std::vector<std::uint8_t> bytes;
  std::string reason;
  if (!encode(images, parameters, bytes, reason))
    return failExport(__PRETTY_FUNCTION__, path, "encode", reason);
  images.clear();
  if (!parameters.exifSourcePath.empty() &&
      !detail::copyExifInto(bytes, parameters.exifSourcePath, firstSize, reason))
    return failExport(__PRETTY_FUNCTION__, path, "exif", reason);
  if (!detail::writeFileAtomically(path, bytes.data(), bytes.size(), reason))
    return failExport(__PRETTY_FUNCTION__, path, "write", reason);
  return true;
}

bool ImageMagickReader::writeImageToFile(const _ImageData<PixelRGB<float>>& frame,
                                         const ExportParameters& parameters) {
  // The frame is only read; an aliasing pointer avoids copying it into the list.
  const std::shared_ptr<const ImageFrame> view(std::shared_ptr<const ImageFrame>(), &frame);
  return writeImagesToFile({view}, parameters);
}

}  // namespace vorn
