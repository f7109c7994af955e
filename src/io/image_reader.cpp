#include "vorn/io/image_reader.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <exception>
#include <filesystem>
#include <new>
#include <type_traits>

#include "core/log_failure.h"
#include "io/raw/raw_decoder.h"
#include "vorn/core/data_store.h"
#include "vorn/core/file_utils.h"
#include "vorn/core/library.h"
#include "vorn/io/exif_reader.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/image_source_raw.h"
#include "vorn/io/raster_info.h"
#include "vorn/io/thumbnails.h"

namespace vorn {
namespace {

// Kodak's DCS bodies (and the Canon-Kodak hybrids) store their raw data in TIFF files named
// .tif; no other camera's TIFF needs the raw decoder.
constexpr std::array<const char*, 2> kRawTiffModels = {"eos d2000c", "eos d6000c"};
constexpr const char* kRawTiffModelFragment = "dcs";

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool isTiffExtension(const std::string& extension) {
  return extension == "tif" || extension == "tiff";
}

/// The EXIF record where it says something, the raw decoder's values where it does not.
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
  merged->mutableParameters.orientation = decoder.mutableParameters.orientation;
  return merged;
}

/// Identifies a raw file already in memory; logs one line on failure.
raw::DecodeOutcome identifyLogged(const raw::RawInput& input, raw::RawIdentity& identity,
                                  bool dngByName) {
  raw::DecodeOutcome outcome = raw::identifyRaw(input, identity);
  if (outcome.code == kImageReaderOk) return outcome;
  if (dngByName && outcome.code == kImageReaderFailed)
    VORN_LOG_FAILURE(("DNG is not raw: " + raw::describeFailure(outcome, input.path)).c_str());
  else
    VORN_LOG_FAILURE(("RawImage error: " + raw::describeFailure(outcome, input.path)).c_str());
  return outcome;
}

ImageResult startRawSource(std::shared_ptr<const raw::RawInput> input,
                           std::shared_ptr<const ImageMetadata> exif, std::shared_ptr<bool> cancel,
                           bool dngByName) {
  ImageResult result;
  raw::RawIdentity identity;
  result.errorCode = identifyLogged(*input, identity, dngByName).code;
  if (result.errorCode != kImageReaderOk) return result;
  auto source = std::make_shared<ImageSourceRaw>(std::move(input),
                                                 mergeMetadata(std::move(exif), identity.metadata),
                                                 identity.geometry, std::move(cancel));
  result.image = std::make_shared<Image>(std::move(source));
  return result;
}

bool startsWith(const void* data, std::uint64_t length, const char* magic, std::size_t size) {
  return length >= size && std::memcmp(data, magic, size) == 0;
}

}  // namespace

/// Registration of one open: unregisters it when the last holder lets go.
class ImageReader::TaskToken {
 public:
  TaskToken(ImageReader& reader, std::uint64_t number) : reader_(reader), number_(number) {}
  ~TaskToken() { reader_.taskEnded(number_); }
  TaskToken(const TaskToken&) = delete;
  TaskToken& operator=(const TaskToken&) = delete;

 private:
  ImageReader& reader_;
  std::uint64_t number_;
};

ImageReader::ImageReader() = default;
ImageReader::~ImageReader() = default;

ImageReader& ImageReader::instance() {
  // Never destroyed: loader threads may still release their tasks during process exit.
  static ImageReader* reader = new ImageReader();
  return *reader;
}

// The child-process loader is not built yet, so every raw file decodes in this process.
constexpr bool kOutOfProcessLoaderBuilt = false;

bool ImageReader::isOutOfProcessLoaderEnabled() {
  return kOutOfProcessLoaderBuilt && isOutOfProcessLoaderRequested();
}

bool ImageReader::isOutOfProcessLoaderRequested() {
  const std::shared_ptr<SVornContext> context = getVornContext();
  return context && context->mode != SVornContext::kModeNoOutOfProcess &&
         !context->forbidOutOfProcessLoader &&
         DataStore::instance().getBool("IPC.Loader.enable_win", true);
}

ImageResult ImageReader::open(const std::string& path, const _Size<int>& size,
                              ImageReaderOpenFlag flag, std::shared_ptr<bool> cancel,
                              const std::string& parameters, long taskId) {
  ImageResult result;
  // The out-of-process loader is not built yet: raw files it would take decode here meanwhile.
  std::shared_ptr<TaskToken> token;
  {
    std::lock_guard lock(tasksMutex_);
    if (taskId != -1 && std::any_of(tasks_.begin(), tasks_.end(), [&](const auto& entry) {
          return entry.second.taskId == taskId;
        })) {
      result.errorCode = kImageReaderCancelled;
      return result;
    }
    if (!cancel) cancel = std::make_shared<bool>(false);
    const std::uint64_t number = ++taskCounter_;
    tasks_.emplace(number, Task{taskId, cancel});
    ++running_;
    token = std::make_shared<TaskToken>(*this, number);
  }
  result = open_sync(path, size, flag, cancel, parameters);
  // A raw load goes on in the background; its task stays registered (and cancellable) until then.
  if (result.image)
    if (auto* rawSource = dynamic_cast<ImageSourceRaw*>(result.image->source().get()))
      rawSource->holdUntilLoaded(token);
  return result;
}

void ImageReader::taskEnded(std::uint64_t number) {
  {
    std::lock_guard lock(tasksMutex_);
    tasks_.erase(number);
    --running_;
  }
  tasksEnded_.notify_all();
}

void ImageReader::cancel(long taskId) {
  if (taskId < 0) return;
  // With the out-of-process loader this request would go to it; until then every load is local.
  std::lock_guard lock(tasksMutex_);
  for (auto it = tasks_.begin(); it != tasks_.end();) {
    if (it->second.taskId == taskId) {
      raw::requestCancel(it->second.cancel);
      it = tasks_.erase(it);
    } else {
      ++it;
    }
  }
}

void ImageReader::cancelAll() {
  std::lock_guard lock(tasksMutex_);
  for (auto& entry : tasks_) raw::requestCancel(entry.second.cancel);
  tasks_.clear();
}

void ImageReader::waitForAllTasks() {
  ImageReader& reader = instance();
  std::unique_lock lock(reader.tasksMutex_);
  reader.tasksEnded_.wait(lock, [&] { return reader.running_ == 0; });
}

std::size_t ImageReader::runningTaskCount() const {
  std::lock_guard lock(tasksMutex_);
  return running_;
}

_Size<int> ImageReader::requestedSize(const _Size<int>& requested, const _Size<int>& decoded) {
  _Size<int> target = requested;
  if (decoded.width <= 0 || decoded.height <= 0) return target;
  if (requested.width == -1)
    target.width =
        static_cast<int>(std::int64_t(requested.height) * decoded.width / decoded.height);
  else if (requested.height == -1)
    target.height =
        static_cast<int>(std::int64_t(decoded.height) * requested.width / decoded.width);
  return target;
}

ImageResult ImageReader::open_sync(const std::string& path, const _Size<int>& size,
                                   ImageReaderOpenFlag flag, std::shared_ptr<bool> cancel,
                                   const std::string& parameters) {
  ImageResult result;
  if (!std::filesystem::is_regular_file(std::filesystem::path(path))) return result;
  result =
      isRawImageFile(path) ? readRaw(path, flag, std::move(cancel), parameters) : readNonRaw(path);
  if (!result.image || size == kNoResizeSize) return result;
  const _Size<int> target = requestedSize(size, result.image->size());
  if (target.width < 1 || target.height < 1) {
    VORN_LOG_FAILURE(("Requested size " + std::to_string(size.width) + "x" +
                      std::to_string(size.height) + " is invalid; the image keeps its own size")
                         .c_str());
    return result;
  }
  return imageResize(result, target);
}

ImageResult ImageReader::imageResize(const ImageResult& result, const _Size<int>& size) {
  ImageResult resized;
  const std::shared_ptr<Image>& image = result.image;
  if (auto* rawSource = dynamic_cast<ImageSourceRawBase*>(image->source().get())) {
    // The quarter frame serves sizes it covers; larger ones wait for the full frame.
    rawSource->waitForQuarterFrame();
    const ConstImageFrame shown = rawSource->getImageData();
    if (!shown || shown->width < size.width || shown->height < size.height)
      rawSource->waitForFullRaw();
    if (!rawSource->getImageData()) {
      const ImageReaderErrorCode failed = rawSource->errorCode();
      resized.errorCode = failed != kImageReaderOk ? failed : kImageReaderFailed;
      return resized;
    }
  }
  std::shared_ptr<ImageFrame> frame = image->resize(size, _Rect<int>(), true);
  if (!frame) return resized;
  // The resized image is finished even when it was made from the quarter frame.
  frame->setLoadState(FULL_LOADED);
  resized.image = std::make_shared<Image>(std::make_shared<ImageSource>(
      std::move(frame), image->metadata() ? image->metadata() : std::make_shared<ImageMetadata>()));
  resized.errorCode = kImageReaderOk;
  return resized;
}

ImageResult ImageReader::postProcess(const ImageResult& result, ImageReaderOpenFlag /*flag*/,
                                     const _Size<int>& size) {
  if (!isImageResultValid(result) || size.width < 1 || size.height < 1) return result;
  const _Size<int> own = result.image->size();
  if (own.width <= size.width && own.height <= size.height) return result;
  // The tighter side decides; the other follows the aspect, rounded down so it never exceeds.
  const double scale = std::min(static_cast<double>(size.width) / own.width,
                                static_cast<double>(size.height) / own.height);
  const _Size<int> target(std::clamp(static_cast<int>(own.width * scale), 1, size.width),
                          std::clamp(static_cast<int>(own.height * scale), 1, size.height));
  return imageResize(result, target);
}

bool ImageReader::isImageResultValid(const ImageResult& result) {
  return result.errorCode == kImageReaderOk && result.image && result.image->width() > 0 &&
         result.image->height() > 0;
}

ImageResult ImageReader::readRaw(const std::string& path, ImageReaderOpenFlag /*flag*/,
                                 std::shared_ptr<bool> cancel, const std::string& /*parameters*/) {
  ImageResult result;
  try {
    if (raw::isCancelRequested(cancel)) {
      LogComment("%s %s", __PRETTY_FUNCTION__, "RawImage loading cancelled");
      result.errorCode = kImageReaderCancelled;
      return result;
    }
    std::shared_ptr<const raw::RawInput> input;
    const raw::DecodeOutcome read = raw::readRawInput(path, input);
    if (read.code != kImageReaderOk) {
      VORN_LOG_FAILURE(("RawImage error: " + raw::describeFailure(read, path)).c_str());
      result.errorCode = read.code;
      return result;
    }
    return startRawSource(std::move(input), readImageMetadata(path), std::move(cancel),
                          isDngImageFile(path));
  } catch (const std::exception& e) {
    VORN_LOG_FAILURE(("RawImage error: start '" + path + "': " + e.what()).c_str());
  } catch (...) {
    VORN_LOG_FAILURE(("RawImage unknouwn error ('" + path + "')").c_str());
  }
  return result;
}

ImageResult ImageReader::readNonRaw(const std::string& path) {
  ImageResult result;
  ImageMagickReader reader;
  result.errorCode = reader.openImage(path, kNoResizeSize);
  if (result.errorCode == kImageReaderOk) result.image = reader.getOpenedImage();
  return result;
}

ImageResult ImageReader::open(void* data, std::uint64_t length) {
  ImageResult result;
  if (!data || length == 0) return result;
  // A DNG or a mosaic raw starts like a TIFF; only the raw decoder reads its pixels.
  const bool jpeg = startsWith(data, length, "\xFF\xD8", 2);
  if (!jpeg) {
    auto input = std::make_shared<raw::RawInput>();
    input->path = "<memory>";
    input->length = static_cast<std::size_t>(length);
    input->bytes.reset(new (std::nothrow) unsigned char[input->length]);
    if (!input->bytes) {
      result.errorCode = kImageReaderTooLarge;
      return result;
    }
    std::memcpy(input->bytes.get(), data, input->length);
    raw::RawIdentity identity;
    const bool tiff = startsWith(data, length, "II*\0", 4) || startsWith(data, length, "MM\0*", 4);
    const raw::DecodeOutcome outcome = raw::identifyRaw(*input, identity);
    if (outcome.code == kImageReaderOk && (!tiff || identity.isDng || identity.hasMosaic))
      return startRawSource(std::move(input), nullptr, {}, false);
    if (!tiff) {
      VORN_LOG_FAILURE(("RawImage error: " + raw::describeFailure(outcome, "<memory>")).c_str());
      result.errorCode = outcome.code;
      return result;
    }
  }
  return openRasterFromMemory(data, length);
}

ImageResult ImageReader::openThumbnailAsImage(const std::string& path, const _Size<int>& size,
                                              ImageReaderOpenFlag flag,
                                              std::shared_ptr<bool> cancel, ImageLoadState state) {
  return vorn::openThumbnailAsImage(path, size, flag, std::move(cancel), state);
}

const std::set<std::string>& ImageReader::rawSupportedFormats() {
  static const std::set<std::string> formats = {"raw", "dxo", "dng", "cr2", "crw", "erf", "raf",
                                                "3fr", "dcr", "kdc", "mef", "mrw", "nef", "nrw",
                                                "orf", "rw2", "pef", "srw", "x3f", "arw", "srf",
                                                "sr2", "iiq", "fff", "ptx", "rwl", "mos", "heic"};
  return formats;
}

namespace {
const std::set<std::string>& jpegFormats() {
  static const std::set<std::string> formats = {"jpg", "jpeg"};
  return formats;
}
const std::set<std::string>& tiffFormats() {
  static const std::set<std::string> formats = {"tif", "tiff"};
  return formats;
}
}  // namespace

const std::set<std::string>& ImageReader::allSupportedFormats() {
  static const std::set<std::string> formats = [] {
    std::set<std::string> all = rawSupportedFormats();
    all.insert(jpegFormats().begin(), jpegFormats().end());
    all.insert(tiffFormats().begin(), tiffFormats().end());
    return all;
  }();
  return formats;
}

bool ImageReader::isRawImageFile(const std::string& path) {
  const std::string extension = getFileExtension(path);
  if (!isTiffExtension(extension)) return rawSupportedFormats().count(extension) != 0;
  const std::string model = lowerCase(readExifCameraModel(path));
  if (model.empty()) return false;
  LogComment("%s camera model: %s", __PRETTY_FUNCTION__, model.c_str());
  return std::find(kRawTiffModels.begin(), kRawTiffModels.end(), model) != kRawTiffModels.end() ||
         model.find(kRawTiffModelFragment) != std::string::npos;
}

bool ImageReader::isDngImageFile(const std::string& path) {
  return getFileExtension(path) == "dng";
}

bool ImageReader::isHEIC(const std::string& path) {
  return getFileExtension(path) == "heic";
}

std::shared_ptr<const ImageMetadata> ImageReader::readMetadata(const std::string& path) {
  return readImageMetadata(path);
}

std::shared_ptr<const Exiv2::ExifData> ImageReader::readExif(const std::string& path) {
  return readExifData(path);
}

bool ImageReader::getTemperatureAndTint(float& temperature, float& tint, const std::string& path) {
  return vorn::getTemperatureAndTint(temperature, tint, path);
}

_Size<int> ImageReader::getImageSize(const std::string& path) {
  if (!isRawImageFile(path)) return rasterImageSize(path);
  raw::RawIdentity identity;
  if (raw::identifyRawFile(path, identity).code != kImageReaderOk) return {};
  return reportedRawSize(identity.geometry);
}

int ImageReader::getColorDepth(const std::string& path) {
  if (!isRawImageFile(path)) return rasterColorDepth(path);
  // The raw decoder always delivers 16-bit samples.
  raw::RawIdentity identity;
  return raw::identifyRawFile(path, identity).code == kImageReaderOk ? 16 : 0;
}

int ImageReader::getPreciseColorDepth(const std::string& path) {
  if (!isRawImageFile(path)) return rasterPreciseColorDepth(path);
  raw::RawIdentity identity;
  return raw::identifyRawFile(path, identity).code == kImageReaderOk ? identity.bitsPerSample : 0;
}

std::shared_ptr<ImageFrame> ImageReader::getThumbnailBySize(
    const std::string& path, const _Size<int>& size, bool highQuality,
    std::shared_ptr<const ImageMetadata>* metadata, std::shared_ptr<bool> cancel) {
  return vorn::getThumbnailBySize(path, size, highQuality, metadata, std::move(cancel));
}

std::shared_ptr<ImageFrame> ImageReader::getThumbnailBySide(
    const std::string& path, int side, bool highQuality,
    std::shared_ptr<const ImageMetadata>* metadata, std::shared_ptr<bool> cancel) {
  return vorn::getThumbnailBySide(path, side, highQuality, metadata, std::move(cancel));
}

std::shared_ptr<ImageFrame> ImageReader::getThumbnailNative(
    const std::string& path, const _Size<int>& size, bool highQuality,
    std::shared_ptr<const ImageMetadata>* metadata, std::shared_ptr<bool> cancel) {
  return vorn::getThumbnailNative(path, size, highQuality, metadata, std::move(cancel));
}

bool ImageReader::writeHDRImage(const ImageFrame& frame, const std::string& path) {
  return ImageMagickReader::writeHDRImageToFile(frame, path);
}

std::tuple<ImageReaderErrorCode, std::shared_ptr<ImageFrame>, std::shared_ptr<const ImageMetadata>>
dngImageRead(const std::string& path) {
  std::shared_ptr<const raw::RawInput> input;
  raw::DecodeOutcome outcome = raw::readRawInput(path, input);
  raw::RawIdentity identity;
  if (outcome.code == kImageReaderOk) outcome = raw::identifyRaw(*input, identity);
  raw::RawFrame decoded;
  if (outcome.code == kImageReaderOk)
    outcome = raw::decodeRaw(
        *input, false, [] { return false; }, decoded);
  if (outcome.code != kImageReaderOk) {
    VORN_LOG_FAILURE(("RawImage error: " + raw::describeFailure(outcome, path)).c_str());
    return {outcome.code, nullptr, nullptr};
  }
  return {kImageReaderOk, std::move(decoded.frame),
          mergeMetadata(readImageMetadata(path), identity.metadata)};
}

}  // namespace vorn
