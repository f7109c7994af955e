#include "io/raster/raster_decode.h"

#include <new>
#include <utility>

#include "io/memory_limit.h"
#include "io/raster/exif_metadata.h"
#include "io/raster/icc_profile.h"
#include "io/raster/jpeg_decoder.h"
#include "io/raster/jpeg_markers.h"
#include "io/raster/magick_decoder.h"
#include "io/raster/orientation.h"
#include "io/raster/pixel_cap.h"
#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

RasterStatus checkSignature(const RasterDecodeRequest& request, RasterFormat& format) {
  if (request.data == nullptr || request.size == 0)
    return RasterStatus::failure(kImageReaderFailed, "signature", "empty file");
  format = rasterFormatFromSignature(request.data, request.size);
  if (format == RasterFormat::Unknown)
    return RasterStatus::failure(kImageReaderFailed, "signature", "not a JPEG or TIFF file");
  if (request.expected != RasterFormat::Unknown && request.expected != format)
    return RasterStatus::failure(kImageReaderFailed, "signature",
                                 std::string("the extension says ") +
                                     rasterFormatName(request.expected) + ", the contents are " +
                                     rasterFormatName(format));
  return RasterStatus::success();
}

// Between decoding the pixels and turning them upright with their profile.
bool stoppedBeforeOrientation(const RasterDecodeRequest& request) {
  return request.stop && request.stop();
}

RasterStatus cancelledBeforeOrientation() {
  return RasterStatus::failure(kImageReaderCancelled, "orientation", "cancelled");
}

RasterStatus decodeThroughMagick(const RasterDecodeRequest& request, RasterFormat format,
                                 int orientation, DecodedRaster& decoded) {
  MagickDecoded stored;
  RasterStatus status =
      decodeWithMagick(request.data, request.size, format, request.name, request.failOn, stored);
  if (!status.ok()) return status;
  if (stoppedBeforeOrientation(request)) return cancelledBeforeOrientation();
  auto profile = profileFromIcc(stored.icc.data(), stored.icc.size(), request.name);
  if (orientation != 1) {
    if (std::string reason = checkFrameAllocation(orientedSize(stored.frame->size(), orientation),
                                                  "the upright image");
        !reason.empty())
      return RasterStatus::failure(kImageReaderTooLarge, "limit", reason);
  }
  try {
    decoded.frame =
        orientation == 1 ? std::move(stored.frame) : orientFrame(*stored.frame, orientation);
  } catch (const std::bad_alloc&) {
    return RasterStatus::failure(kImageReaderFailed, "orientation", "out of memory");
  }
  decoded.frame->setColorProfile(std::move(profile));
  return RasterStatus::success();
}

RasterStatus decodeJpeg(const RasterDecodeRequest& request, int orientation,
                        DecodedRaster& decoded) {
  JpegMarkers markers;
  readJpegMarkers(request.data, request.size, markers);
  if (markers.iccDamaged)
    LogWarning("%s: embedded ICC profile dropped: its chunks are inconsistent, sRGB assumed",
               request.name.c_str());
  if (markers.hasFrame && markers.precision != 8)
    return RasterStatus::failure(kImageReaderFailed, "header",
                                 std::to_string(markers.precision) + "-bit JPEG is not supported");
  JpegHeader header;
  if (RasterStatus status = readJpegHeader(request.data, request.size, header, request.failOn);
      !status.ok())
    return status;
  if (RasterStatus status = checkPixelCap(header.size); !status.ok()) return status;
  // The fast decoder makes no RGB of CMYK; ImageMagick converts it.
  if (header.cmyk) return decodeThroughMagick(request, RasterFormat::Jpeg, orientation, decoded);

  const auto stored = [orientation](_Size<int> upright) {
    return orientationSwapsAxes(orientation) ? _Size<int>(upright.height, upright.width) : upright;
  };
  const bool covering = request.cover.width > 0 || request.cover.height > 0;
  const int denominator = covering ? jpegScaleDenominator(header.size, stored(request.cover))
                                   : jpegFitDenominator(header.size, stored(request.fitWithin));
  JpegFrameRequest frameRequest;
  frameRequest.denominator = denominator;
  frameRequest.orientation = orientation;
  frameRequest.failOn = request.failOn;
  RasterStatus status =
      decodeJpegFrame(request.data, request.size, frameRequest, request.name, decoded.frame);
  if (!status.ok()) return status;
  if (stoppedBeforeOrientation(request)) return cancelledBeforeOrientation();
  decoded.frame->setColorProfile(
      profileFromIcc(markers.icc.data(), markers.icc.size(), request.name));
  return RasterStatus::success();
}

}  // namespace

RasterStatus decodeRaster(const RasterDecodeRequest& request, DecodedRaster& decoded) {
  RasterFormat format = RasterFormat::Unknown;
  if (RasterStatus status = checkSignature(request, format); !status.ok()) return status;
  if (request.orientation > 0) {
    decoded.metadata = std::make_shared<ImageMetadata>();
  } else {
    decoded.metadata = metadataFromBytes(request.data, request.size, request.name);
  }
  const int orientation = request.orientation > 0 ? normalizedOrientation(request.orientation)
                                                  : decoded.metadata->mutableParameters.orientation;
  const RasterStatus status = format == RasterFormat::Jpeg
                                  ? decodeJpeg(request, orientation, decoded)
                                  : decodeThroughMagick(request, format, orientation, decoded);
  if (!status.ok()) decoded = DecodedRaster{};
  return status;
}

}  // namespace vorn::detail
