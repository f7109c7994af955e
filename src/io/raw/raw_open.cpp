#include "io/raw/raw_open.h"

#include <exception>
#include <type_traits>
#include <utility>

#include "core/log_failure.h"
#include "io/raster/exif_metadata.h"
#include "vorn/io/image_source_raw.h"

namespace vorn::raw {
namespace {

/// Identifies a raw file already in memory; logs one line on failure.
DecodeOutcome identifyLogged(const RawInput& input, RawIdentity& identity, bool dngByName) {
  DecodeOutcome outcome = identifyRaw(input, identity);
  if (outcome.code == kImageReaderOk) return outcome;
  if (dngByName && outcome.code == kImageReaderFailed)
    VORN_LOG_FAILURE(("DNG is not raw: " + describeFailure(outcome, input.path)).c_str());
  else
    VORN_LOG_FAILURE(("RawImage error: " + describeFailure(outcome, input.path)).c_str());
  return outcome;
}

}  // namespace

std::shared_ptr<const ImageMetadata> mergeMetadata(std::shared_ptr<const ImageMetadata> exif,
                                                   const ImageMetadata& decoder) {
  auto merged = std::make_shared<ImageMetadata>(exif ? *exif : decoder);
  const auto fill = [](auto& field, const auto& fallback) {
    using T = std::decay_t<decltype(field)>;
    if (field == T{}) field = fallback;
  };
  fill(merged->cameraName, decoder.cameraName);
  fill(merged->cameraModel, decoder.cameraModel);
  fill(merged->fNumber, decoder.fNumber);
  fill(merged->aperture, decoder.aperture);
  fill(merged->shutterSpeed, decoder.shutterSpeed);
  fill(merged->isoSpeed, decoder.isoSpeed);
  fill(merged->focalLen, decoder.focalLen);
  fill(merged->focalLen35mm, decoder.focalLen35mm);
  fill(merged->minFocalLen, decoder.minFocalLen);
  fill(merged->maxFocalLen, decoder.maxFocalLen);
  fill(merged->lensMaker, decoder.lensMaker);
  fill(merged->lensModel, decoder.lensModel);
  fill(merged->lensId, decoder.lensId);
  // The decoder's own view of the sensor and of the orientation it applied wins.
  merged->sizeRawMatrix = decoder.sizeRawMatrix;
  merged->cameraColor = decoder.cameraColor;
  merged->mutableParameters.orientation = decoder.mutableParameters.orientation;
  return merged;
}

ImageResult startRawSource(std::shared_ptr<const RawInput> input,
                           std::shared_ptr<const ImageMetadata> exif, std::shared_ptr<bool> cancel,
                           bool dngByName) {
  ImageResult result;
  RawIdentity identity;
  result.errorCode = identifyLogged(*input, identity, dngByName).code;
  if (result.errorCode != kImageReaderOk) return result;
  try {
    auto source = std::make_shared<ImageSourceRaw>(
        std::move(input), mergeMetadata(std::move(exif), identity.metadata), identity.geometry,
        std::move(cancel));
    result.image = std::make_shared<Image>(std::move(source));
  } catch (const ImageSourceException& e) {
    VORN_LOG_FAILURE((std::string("ImageSource exception: ") + e.what()).c_str());
    result.errorCode = kImageReaderFailed;
  }
  return result;
}

ImageResult startRawLoad(const ImageFileClass& file, std::shared_ptr<bool> cancel) {
  ImageResult result;
  try {
    if (isCancelRequested(cancel)) {
      LogComment("%s %s", __PRETTY_FUNCTION__, "RawImage loading cancelled");
      result.errorCode = kImageReaderCancelled;
      return result;
    }
    std::shared_ptr<const RawInput> input;
    const DecodeOutcome read = rawInputOf(file, input);
    if (read.code != kImageReaderOk) {
      VORN_LOG_FAILURE(("RawImage error: " + describeFailure(read, file.path)).c_str());
      result.errorCode = read.code;
      return result;
    }
    return startRawSource(std::move(input),
                          detail::readMetadataFromBytes(file.bytes.get(), file.size, file.path),
                          std::move(cancel), file.isDng());
  } catch (const std::exception& e) {
    VORN_LOG_FAILURE(("RawImage error: start '" + file.path + "': " + e.what()).c_str());
  } catch (...) {
    VORN_LOG_FAILURE(("RawImage unknouwn error ('" + file.path + "')").c_str());
  }
  return result;
}

namespace {

// Half size skips demosaicing and quarters the work; it serves when it still covers the target.
bool halfSizeCovers(const RawIdentity& identity, _Size<int> cover) {
  if (cover.width <= 0 && cover.height <= 0) return false;
  const _Size<int> full = reportedRawSize(identity.geometry);
  return identity.hasMosaic && full.width / 2 >= cover.width && full.height / 2 >= cover.height;
}

}  // namespace

DecodedRawFile decodeRawFile(const ImageFileClass& file, _Size<int> cover, FailOn failOn,
                             const std::function<bool()>& stop) {
  DecodedRawFile result;
  std::shared_ptr<const RawInput> input;
  DecodeOutcome outcome = rawInputOf(file, input);
  RawIdentity identity;
  if (outcome.code == kImageReaderOk) outcome = identifyRaw(*input, identity);
  RawFrame decoded;
  if (outcome.code == kImageReaderOk)
    outcome = decodeRaw(*input, halfSizeCovers(identity, cover), failOn, stop, decoded);
  result.code = outcome.code;
  if (outcome.code == kImageReaderCancelled) return result;
  if (outcome.code != kImageReaderOk) {
    VORN_LOG_FAILURE(("RawImage error: " + describeFailure(outcome, file.path)).c_str());
    return result;
  }
  result.frame = std::move(decoded.frame);
  result.frame->setLoadState(FULL_LOADED);
  result.metadata = mergeMetadata(
      detail::readMetadataFromBytes(file.bytes.get(), file.size, file.path), identity.metadata);
  return result;
}

}  // namespace vorn::raw
