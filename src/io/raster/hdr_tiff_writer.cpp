#include <tiffio.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "core/log_failure.h"
#include "io/raster/atomic_file.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn {
namespace {

// libtiff's messages for this one handle only; the process-wide handlers belong to ImageMagick.
struct TiffMessages {
  std::string text;
  bool error = false;
};

void collect(void* userData, const char* module, const char* format, va_list args, bool error) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  auto& messages = *static_cast<TiffMessages*>(userData);
  if (!messages.text.empty()) messages.text += "; ";
  messages.text += std::string(module ? module : "libtiff") + ": " + text;
  messages.error = messages.error || error;
}

int collectTiffError(TIFF*, void* userData, const char* module, const char* format, va_list args) {
  collect(userData, module, format, args, true);
  return 1;
}

int collectTiffWarning(TIFF*, void* userData, const char* module, const char* format,
                       va_list args) {
  collect(userData, module, format, args, false);
  return 1;
}

struct TiffCloser {
  void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};
struct OptionsFree {
  void operator()(TIFFOpenOptions* options) const { TIFFOpenOptionsFree(options); }
};

bool writeFloatTiff(const ImageFrame& frame, const std::string& file, std::string& reason) {
  TiffMessages messages;
  const std::unique_ptr<TIFFOpenOptions, OptionsFree> options(TIFFOpenOptionsAlloc());
  TIFFOpenOptionsSetErrorHandlerExtR(options.get(), collectTiffError, &messages);
  TIFFOpenOptionsSetWarningHandlerExtR(options.get(), collectTiffWarning, &messages);
  std::unique_ptr<TIFF, TiffCloser> tiff(TIFFOpenExt(file.c_str(), "w", options.get()));
  if (!tiff) {
    reason = "cannot open: " + messages.text;
    return false;
  }
  TIFF* t = tiff.get();
  const auto width = static_cast<std::uint32_t>(frame.width);
  const auto height = static_cast<std::uint32_t>(frame.height);
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 32);
  TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
  TIFFSetField(t, TIFFTAG_PREDICTOR, PREDICTOR_FLOATINGPOINT);
  TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
  const auto profile = frame.colorProfile ? frame.colorProfile : ColorProfileType::sRGB();
  if (profile && !profile->iccProfile().empty())
    TIFFSetField(t, TIFFTAG_ICCPROFILE, static_cast<std::uint32_t>(profile->iccProfile().size()),
                 profile->iccProfile().data());

  // The predictor rewrites the row it is given, so each row goes through a scratch copy.
  std::vector<float> row(static_cast<std::size_t>(width) * 3);
  for (std::uint32_t y = 0; y < height; ++y) {
    const float* source = &frame.row(static_cast<int>(y))->r;
    for (std::size_t i = 0; i < row.size(); ++i)
      row[i] = std::isfinite(source[i]) ? source[i] : 0.0f;
    if (TIFFWriteScanline(t, row.data(), y, 0) < 0) {
      reason = "cannot write row " + std::to_string(y) + ": " + messages.text;
      return false;
    }
  }
  tiff.reset();  // TIFFClose flushes the last strip and the directory
  if (messages.error) reason = messages.text;
  return !messages.error;
}

}  // namespace

bool ImageMagickReader::writeHDRImageToFile(const _ImageData<PixelRGB<float>>& frame,
                                            const std::string& path) {
  std::string reason;
  if (frame.empty()) {
    VORN_LOG_FAILURE((path + ": pixels: empty frame").c_str());
    return false;
  }
  const bool ok = detail::replaceFileAtomically(
      path,
      [&](const std::string& tempPath, std::string& why) {
        return writeFloatTiff(frame, tempPath, why);
      },
      reason);
  if (!ok) VORN_LOG_FAILURE((path + ": write: " + reason).c_str());
  return ok;
}

}  // namespace vorn
