#include "io/raster/magick_decoder.h"

#include <Magick++.h>

#include <limits>
#include <new>

#include "io/magick_environment.h"
#include "io/memory_limit.h"
#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

// Runs a Magick++ call; errors become a status, and so do warnings of damaged data that
// `failOn` refuses; other warnings are logged and the result kept.
template <typename Call>
RasterStatus guarded(const char* stage, const std::string& name, Call&& call,
                     FailOn failOn = FailOn::None) {
  try {
    call();
  } catch (const Magick::Warning& warning) {
    const std::string text = warning.what();
    const bool truncation = text.find("Premature end") != std::string::npos;
    if (damageFails(failOn, truncation))
      return RasterStatus::failure(kImageReaderCorrupt, stage,
                                   text + " (damaged data, refused by the fail-on policy)");
    logMagickWarning(name, text.c_str());
  } catch (const Magick::ErrorResourceLimit& error) {
    return RasterStatus::failure(kImageReaderTooLarge, stage, error.what());
  } catch (const Magick::Exception& error) {
    return RasterStatus::failure(kImageReaderCorrupt, stage, error.what());
  } catch (const std::bad_alloc&) {
    return RasterStatus::failure(kImageReaderFailed, stage, "out of memory");
  }
  return RasterStatus::success();
}

void prepare(Magick::Image& image, RasterFormat format) {
  image.quiet(false);
  image.magick(rasterFormatName(format));
  // Only the first page is wanted; later pages of a multi-page TIFF are never decoded.
  image.subImage(0);
  image.subRange(1);
}

// ImageMagick's pixel cache (Q16, four channels) held beside the float frame while it copies.
std::uint64_t magickCacheBytes(_Size<int> size) {
  return static_cast<std::uint64_t>(size.width) * static_cast<std::uint64_t>(size.height) * 8;
}

}  // namespace

void logMagickWarning(const std::string& name, const char* text) {
  LogWarning("Image Magick warning: %s (%s)", text, name.c_str());
}

namespace {

RasterStatus pingBlob(const Magick::Blob& blob, RasterFormat format, const std::string& name,
                      MagickHeader& header) {
  Magick::Image image;
  RasterStatus status = guarded("header", name, [&] {
    prepare(image, format);
    image.ping(blob);
  });
  if (!status.ok()) return status;
  constexpr std::size_t kMaxSide = std::numeric_limits<int>::max();
  if (image.columns() == 0 || image.rows() == 0)
    return RasterStatus::failure(kImageReaderCorrupt, "header", "zero image size");
  if (image.columns() > kMaxSide || image.rows() > kMaxSide)
    return RasterStatus::failure(kImageReaderTooLarge, "limit", "side beyond 2^31");
  header.size = _Size<int>(static_cast<int>(image.columns()), static_cast<int>(image.rows()));
  header.depth = static_cast<int>(image.depth());
  return RasterStatus::success();
}

}  // namespace

RasterStatus pingWithMagick(const std::uint8_t* data, std::size_t size, RasterFormat format,
                            const std::string& name, MagickHeader& header) {
  ensureMagickEnvironment();
  return pingBlob(Magick::Blob(data, size), format, name, header);
}

RasterStatus decodeWithMagick(const std::uint8_t* data, std::size_t size, RasterFormat format,
                              const std::string& name, FailOn failOn, MagickDecoded& decoded) {
  ensureMagickEnvironment();
  const Magick::Blob blob(data, size);
  MagickHeader header;
  if (RasterStatus status = pingBlob(blob, format, name, header); !status.ok()) return status;
  if (std::string reason =
          checkFrameAllocation(header.size, "the decoded image", magickCacheBytes(header.size));
      !reason.empty())
    return RasterStatus::failure(kImageReaderTooLarge, "limit", reason);
  Magick::Image image;
  // TIFF warnings are about tags; the JPEG coder's are libjpeg's reports of damaged data.
  RasterStatus status = guarded(
      "decode", name,
      [&] {
        prepare(image, format);
        image.read(blob);
      },
      format == RasterFormat::Jpeg ? failOn : FailOn::None);
  if (!status.ok()) return status;
  if (image.columns() != static_cast<std::size_t>(header.size.width) ||
      image.rows() != static_cast<std::size_t>(header.size.height))
    return RasterStatus::failure(kImageReaderCorrupt, "decode", "size differs from the header");

  // Magick++ throws a warning only after the call has done its work, so each call is guarded
  // on its own and a warning never skips the next step.
  status = guarded("decode", name, [&] {
    const Magick::ColorspaceType space = image.colorSpace();
    if (space != Magick::sRGBColorspace && space != Magick::RGBColorspace &&
        space != Magick::GRAYColorspace)
      image.colorSpace(Magick::sRGBColorspace);
  });
  if (!status.ok()) return status;
  status = guarded("decode", name, [&] {
    const Magick::Blob icc = image.iccColorProfile();
    if (icc.length() > 0) decoded.icc = Blob(icc.data(), icc.length());
  });
  if (!status.ok()) return status;
  try {
    decoded.frame = std::make_shared<ImageFrame>(header.size);
  } catch (const std::bad_alloc&) {
    return RasterStatus::failure(kImageReaderFailed, "decode", "out of memory");
  }
  // Alpha is dropped rather than composited: the editor has no background to composite onto.
  status = guarded("decode", name, [&] {
    image.write(0, 0, image.columns(), image.rows(), "RGB", Magick::FloatPixel,
                decoded.frame->data);
  });
  if (!status.ok()) decoded.frame.reset();
  return status;
}

}  // namespace vorn::detail
