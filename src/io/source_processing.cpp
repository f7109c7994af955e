#include "io/source_processing.h"

#include <exception>
#include <new>
#include <utility>

#include "core/log_failure.h"
#include "vorn/io/image_source_raw.h"

namespace vorn::detail {
namespace {

struct ProcessingTexts {
  const char* cancelled;
  const char* exception;        ///< followed by the exception's text
  const char* sourceException;  ///< followed by the ImageSourceException's text
  const char* unknown;
};

constexpr ProcessingTexts kPlainTexts = {"ImageSource processing canceled by the user",
                                         "ImageSource processing exception: ",
                                         "ImageSourceException: ", "ImageSource proceed exception"};
constexpr ProcessingTexts kRawTexts = {
    "ImageSourceRaw processing canceled", "ImageSourceRaw processing exception: ",
    "ImageSource exception: ", "ImageSourceRaw processing unknown exception"};

ImageResult failed(ImageReaderErrorCode code) {
  ImageResult result;
  result.errorCode = code;
  return result;
}

}  // namespace

void stopIfRequested(const StopCheck& stop) {
  if (stop && stop()) throw ProcessingCancelled{};
}

ImageResult processSource(SourceKind kind, const std::function<ImageResult()>& body) {
  const ProcessingTexts& texts = kind == SourceKind::Raw ? kRawTexts : kPlainTexts;
  try {
    return body();
  } catch (const ProcessingCancelled&) {
    LogComment("%s %s", __PRETTY_FUNCTION__, texts.cancelled);
    return failed(kImageReaderCancelled);
  } catch (const ImageSourceException& e) {
    VORN_LOG_FAILURE((texts.sourceException + std::string(e.what())).c_str());
  } catch (const std::exception& e) {
    VORN_LOG_FAILURE((texts.exception + std::string(e.what())).c_str());
  } catch (...) {
    VORN_LOG_FAILURE(texts.unknown);
  }
  return failed(kImageReaderFailed);
}

ImageResult finishedImage(ConstImageFrame frame, std::shared_ptr<const ImageMetadata> metadata,
                          const std::string& name) {
  ImageResult result;
  try {
    result.image = std::make_shared<Image>(
        std::make_shared<ImageSource>(std::move(frame), std::move(metadata)));
    result.errorCode = kImageReaderOk;
  } catch (const ImageSourceException& e) {
    VORN_LOG_FAILURE(
        (kPlainTexts.sourceException + std::string(e.what()) + " (" + name + ")").c_str());
  } catch (const std::bad_alloc&) {
    VORN_LOG_FAILURE((name + ": image: out of memory").c_str());
  }
  return result;
}

ImageResult resizeImage(const ImageResult& result, const _Size<int>& size) {
  const std::shared_ptr<Image>& image = result.image;
  if (!image) return failed(result.errorCode);
  if (auto* rawSource = dynamic_cast<ImageSourceRawBase*>(image->source().get())) {
    // The quarter frame serves sizes it covers; larger ones wait for the full frame.
    rawSource->waitForQuarterFrame();
    const ConstImageFrame shown = rawSource->getImageData();
    if (!shown || shown->width < size.width || shown->height < size.height)
      rawSource->waitForFullRaw();
    if (!rawSource->getImageData()) {
      const ImageReaderErrorCode code = rawSource->errorCode();
      return failed(code != kImageReaderOk ? code : kImageReaderFailed);
    }
  }
  std::shared_ptr<ImageFrame> frame = image->resize(size, _Rect<int>(), true);
  if (!frame) return failed(kImageReaderFailed);
  return finishedImage(std::move(frame),
                       image->metadata() ? image->metadata() : std::make_shared<ImageMetadata>(),
                       "resized image");
}

}  // namespace vorn::detail
