#include "vorn/io/thumbnails.h"

#include <algorithm>
#include <cmath>

#include "core/log_failure.h"
#include "io/memory_limit.h"
#include "io/raster/embedded_preview.h"
#include "io/raster/jpeg_decoder.h"
#include "io/raster/orientation.h"
#include "io/raster/raster_open.h"
#include "io/raster/thumbnail_out_of_process.h"
#include "io/raw/raw_decoder.h"
#include "io/source_processing.h"
#include "vorn/core/log.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_reader.h"

namespace vorn {
namespace {

enum class Fit {
  Shrink,  ///< resample to fit the box
  Native,  ///< keep a source that fits as it is
};

bool cancelled(const std::shared_ptr<bool>& cancel) {
  return raw::isCancelRequested(cancel);
}

// The factor that fits `size` inside `box` (a side of 0 or less is free), or 1 for a free box.
double fitScale(_Size<int> size, _Size<int> box) {
  double scale = 1e300;
  if (box.width > 0 && size.width > 0) scale = std::min(scale, double(box.width) / size.width);
  if (box.height > 0 && size.height > 0) scale = std::min(scale, double(box.height) / size.height);
  return scale == 1e300 ? 1.0 : scale;
}

// `size` shrunk to fit inside `box`; never enlarged.
_Size<int> fitInside(_Size<int> size, _Size<int> box) {
  const double scale = std::min(1.0, fitScale(size, box));
  if (scale >= 1.0) return size;
  const auto side = [scale](int length, int limit) {
    const int fitted = std::max(1, static_cast<int>(std::floor(length * scale + 0.5)));
    return limit > 0 ? std::min(fitted, limit) : fitted;
  };
  return _Size<int>(side(size.width, box.width), side(size.height, box.height));
}

// Index of the preview to use: the smallest that covers the box; for the fast path, else the
// largest; for Native, the largest that fits inside the box as it is and has at least minArea.
int choosePreview(const std::vector<_Size<int>>& upright, _Size<int> box, Fit fit, bool highQuality,
                  std::int64_t minArea) {
  int best = -1;
  std::int64_t bestArea = 0;
  for (std::size_t i = 0; i < upright.size(); ++i) {
    const std::int64_t area = std::int64_t(upright[i].width) * upright[i].height;
    const double scale = fitScale(upright[i], box);
    const bool wanted = fit == Fit::Native ? scale >= 1.0 && area >= minArea : scale <= 1.0;
    const bool better = best < 0 || (fit == Fit::Native ? area > bestArea : area < bestArea);
    if (wanted && better) {
      best = static_cast<int>(i);
      bestArea = area;
    }
  }
  if (best >= 0 || fit == Fit::Native || highQuality) return best;
  for (std::size_t i = 0; i < upright.size(); ++i) {
    const std::int64_t area = std::int64_t(upright[i].width) * upright[i].height;
    if (best < 0 || area > bestArea) {
      best = static_cast<int>(i);
      bestArea = area;
    }
  }
  return best;
}

struct Failure {
  std::string stage;
  std::string reason;
};

// A raw file without a suitable preview: the half-size decode, already upright, stands in.
// Through the loader child, the smallest cover asks for that same half-size decode.
std::shared_ptr<ImageFrame> decodeRawHalfSize(const ImageFileClass& file, bool outOfProcess,
                                              const std::shared_ptr<bool>& cancel,
                                              Failure& failure) {
  if (outOfProcess) {
    FrameRequest request;
    request.cover = _Size<int>(1, 1);
    request.cancel = cancel;
    request.outOfProcess = true;
    OwnedFrame decoded = ImageReader::decodeFrame(file, request);
    if (decoded.errorCode == kImageReaderOk && decoded.frame) return decoded.frame;
    failure = {"decode", "the raw decode ended with code " + std::to_string(decoded.errorCode)};
    return nullptr;
  }
  std::shared_ptr<const raw::RawInput> input;
  raw::DecodeOutcome outcome = raw::rawInputOf(file, input);
  raw::RawFrame decoded;
  if (outcome.code == kImageReaderOk)
    outcome = raw::decodeRaw(
        *input, true, failOnSetting(), [&] { return cancelled(cancel); }, decoded);
  if (outcome.code != kImageReaderOk) {
    failure = {outcome.stage, outcome.message};
    return nullptr;
  }
  return decoded.frame;
}

// Logs under the signature of the public function that was called.
std::shared_ptr<ImageFrame> fail(const char* function, const std::string& path,
                                 const Failure& failure) {
  LogError("%s Can't open image at path: %s (%s: %s)", function, path.c_str(),
           failure.stage.c_str(), failure.reason.c_str());
  return nullptr;
}

// How a JPEG source may be DCT-scaled for the box.
void setScaling(detail::RasterDecodeRequest& request, _Size<int> box, Fit fit) {
  if (fit == Fit::Native) {
    request.fitWithin = box;
  } else {
    request.cover = box;
  }
}

// Decodes an embedded preview upright, turned as its file says.
std::shared_ptr<ImageFrame> decodePreview(const detail::EmbeddedPreview& preview,
                                          const std::string& name, int orientation, _Size<int> box,
                                          Fit fit, Failure& failure) {
  detail::RasterDecodeRequest request;
  request.data = preview.bytes.data();
  request.size = preview.bytes.size();
  request.name = name + " (embedded preview)";
  request.orientation = orientation;
  setScaling(request, box, fit);
  detail::DecodedRaster decoded;
  const detail::RasterStatus status = detail::decodeRaster(request, decoded);
  if (!status.ok()) {
    LogWarning("%s", status.describe(request.name).c_str());
    failure = {status.stage, status.reason};
    return nullptr;
  }
  return decoded.frame;
}

std::shared_ptr<ImageFrame> makeThumbnail(const char* function, const std::string& path,
                                          _Size<int> box, Fit fit, bool highQuality,
                                          std::shared_ptr<const ImageMetadata>* metadataOut,
                                          const std::shared_ptr<bool>& cancel,
                                          bool rawOutOfProcess = false) {
  if (cancelled(cancel)) return nullptr;
  const ImageFileClass file = classifyImageFile(path);
  if (!file.isRead()) return fail(function, path, {"open", file.readError});
  const std::uint8_t* bytes = file.bytes.get();
  detail::JpegHeader jpeg;
  // For Native, a JPEG's own DCT decode competes with its previews, so its header comes first.
  const bool jpegKnown = fit == Fit::Native && file.format == ImageFileFormat::Jpeg &&
                         detail::readJpegHeader(bytes, file.size, jpeg).ok();
  std::shared_ptr<ImageMetadata> metadata;
  const auto dctArea = [&]() -> std::int64_t {
    if (!jpegKnown) return 0;
    const int orientation = metadata ? metadata->mutableParameters.orientation : 1;
    const _Size<int> upright = detail::orientedSize(
        detail::jpegScaledSize(jpeg.size, detail::jpegFitDenominator(
                                              jpeg.size, detail::orientedSize(box, orientation))),
        orientation);
    return fitScale(upright, box) >= 1.0 ? std::int64_t(upright.width) * upright.height : 0;
  };
  detail::EmbeddedPreview preview;
  // A file Exiv2 cannot read may still decode below; the decoder then has the last word.
  detail::readMetadataAndPreview(
      bytes, file.size, path,
      [&](const std::vector<_Size<int>>& upright) {
        return choosePreview(upright, box, fit, highQuality, dctArea());
      },
      metadata, preview);
  if (cancelled(cancel)) return nullptr;

  std::shared_ptr<ImageFrame> frame;
  Failure failure;
  if (!preview.bytes.empty()) {
    frame =
        decodePreview(preview, path, metadata->mutableParameters.orientation, box, fit, failure);
  }
  if (!frame && file.raw) {
    if (cancelled(cancel)) return nullptr;
    frame = decodeRawHalfSize(file, rawOutOfProcess, cancel, failure);
    if (!frame) return cancelled(cancel) ? nullptr : fail(function, path, failure);
  }
  if (!frame) {
    if (file.format != ImageFileFormat::Jpeg && file.format != ImageFileFormat::Tiff)
      return fail(
          function, path,
          failure.stage.empty() ? Failure{"preview", "no usable embedded preview"} : failure);
    if (cancelled(cancel)) return nullptr;
    detail::RasterDecodeRequest request;
    setScaling(request, box, fit);
    detail::DecodedRaster decoded;
    if (const auto status = detail::decodeRasterFile(file, request, decoded); !status.ok())
      return fail(function, path, {status.stage, status.reason});
    frame = decoded.frame;
    metadata = decoded.metadata;
  }
  if (cancelled(cancel)) return nullptr;

  const _Size<int> target = fitInside(frame->size(), box);
  if (target != frame->size()) {
    if (std::string reason = detail::checkFrameAllocation(target, "the thumbnail"); !reason.empty())
      return fail(function, path, {"limit", reason});
    auto resized = frame->resize(target, {}, highQuality);
    if (!resized) return fail(function, path, {"resize", "resampling failed"});
    frame = std::move(resized);
  }
  frame->setLoadState(THUMBNAIL);
  if (metadataOut) *metadataOut = metadata ? metadata : std::make_shared<ImageMetadata>();
  return frame;
}

_Size<int> boxOf(_Size<int> size) {
  return _Size<int>(std::max(size.width, 0), std::max(size.height, 0));
}

}  // namespace

std::shared_ptr<ImageFrame> getThumbnailBySize(const std::string& path, _Size<int> size,
                                               bool highQuality,
                                               std::shared_ptr<const ImageMetadata>* metadata,
                                               std::shared_ptr<bool> cancel) {
  return makeThumbnail(__PRETTY_FUNCTION__, path, boxOf(size), Fit::Shrink, highQuality, metadata,
                       cancel);
}

std::shared_ptr<ImageFrame> getThumbnailBySide(const std::string& path, int side, bool highQuality,
                                               std::shared_ptr<const ImageMetadata>* metadata,
                                               std::shared_ptr<bool> cancel) {
  if (side <= 0) {
    VORN_LOG_FAILURE(
        ("Can't open image at path: " + path + " (size: side must be positive)").c_str());
    return nullptr;
  }
  return makeThumbnail(__PRETTY_FUNCTION__, path, _Size<int>(side, side), Fit::Shrink, highQuality,
                       metadata, cancel);
}

std::shared_ptr<ImageFrame> detail::thumbnailBySideOutOfProcess(const std::string& path, int side,
                                                                bool highQuality,
                                                                std::shared_ptr<bool> cancel) {
  if (side <= 0) return nullptr;
  return makeThumbnail(__PRETTY_FUNCTION__, path, _Size<int>(side, side), Fit::Shrink, highQuality,
                       nullptr, cancel, true);
}

std::shared_ptr<ImageFrame> getThumbnailNative(const std::string& path, _Size<int> size,
                                               bool highQuality,
                                               std::shared_ptr<const ImageMetadata>* metadata,
                                               std::shared_ptr<bool> cancel) {
  return makeThumbnail(__PRETTY_FUNCTION__, path, boxOf(size), Fit::Native, highQuality, metadata,
                       cancel);
}

ImageResult openThumbnailAsImage(const std::string& path, _Size<int> size, ImageReaderOpenFlag,
                                 std::shared_ptr<bool> cancel, ImageLoadState state) {
  ImageResult result;
  std::shared_ptr<const ImageMetadata> metadata;
  // The fast path: an image shown while the real one loads takes any embedded preview.
  auto frame = getThumbnailBySize(path, size, false, &metadata, cancel);
  if (!frame) {
    result.errorCode = cancelled(cancel) ? kImageReaderCancelled : kImageReaderFailed;
    return result;
  }
  frame->setLoadState(state);
  return detail::finishedImage(std::move(frame), std::move(metadata), path);
}

}  // namespace vorn
