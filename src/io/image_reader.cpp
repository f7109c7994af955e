#include "vorn/io/image_reader.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <new>

#include "core/log_failure.h"
#include "io/open_stages.h"
#include "io/raster/exif_metadata.h"
#include "io/raster/raster_format.h"
#include "io/raw/raw_decoder.h"
#include "io/raw/raw_open.h"
#include "vorn/core/data_store.h"
#include "vorn/core/library.h"
#include "vorn/io/exif_reader.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/image_source_raw.h"
#include "vorn/io/image_source_raw_ipc.h"
#include "vorn/io/raster_info.h"
#include "vorn/io/thumbnails.h"

namespace vorn {
namespace {

// A load cancelled before it starts is refused without reading the file's contents.
ImageFileClass classifyUnlessCancelled(const std::string& path,
                                       const std::shared_ptr<bool>& cancel) {
  return raw::isCancelRequested(cancel) ? classifyImageFileByName(path) : classifyImageFile(path);
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

// Off, every raw file decodes in this process whatever the context asks.
constexpr bool kOutOfProcessLoaderBuilt = true;

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
  if (flag != kOpenInProcess && isOutOfProcessLoaderEnabled() && isRawImageFile(path))
    result = open_ipc_async(path, size, flag, parameters, taskId, cancel);
  else
    result = open_sync(path, size, flag, cancel, parameters);
  // A raw load goes on in the background; its task stays registered (and cancellable) until then.
  if (result.image) {
    if (auto* rawSource = dynamic_cast<ImageSourceRaw*>(result.image->source().get()))
      rawSource->holdUntilLoaded(token);
    else if (auto* ipcSource = dynamic_cast<ImageSourceRawIPC*>(result.image->source().get()))
      ipcSource->holdUntilLoaded(token);
  }
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
  // A load in the loader process watches this flag and passes the cancel on to the child.
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
  if (!std::filesystem::is_regular_file(std::filesystem::path(path))) return ImageResult{};
  return open_sync(classifyUnlessCancelled(path, cancel), size, flag, std::move(cancel),
                   parameters);
}

ImageResult ImageReader::open_sync(const ImageFileClass& file, const _Size<int>& size,
                                   ImageReaderOpenFlag /*flag*/, std::shared_ptr<bool> cancel,
                                   const std::string& /*parameters*/) {
  const detail::StopCheck stop = [cancel] { return raw::isCancelRequested(cancel); };
  return detail::openClassified(file, size, std::move(cancel), stop);
}

ImageResult ImageReader::imageResize(const ImageResult& result, const _Size<int>& size) {
  return detail::resizeImage(result, size);
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
  const bool raw = dynamic_cast<ImageSourceRawBase*>(result.image->source().get()) != nullptr;
  return detail::processSource(raw ? detail::SourceKind::Raw : detail::SourceKind::Plain,
                               [&] { return imageResize(result, target); });
}

bool ImageReader::isImageResultValid(const ImageResult& result) {
  return result.errorCode == kImageReaderOk && result.image && result.image->width() > 0 &&
         result.image->height() > 0;
}

ImageResult ImageReader::readRaw(const std::string& path, ImageReaderOpenFlag /*flag*/,
                                 std::shared_ptr<bool> cancel, const std::string& /*parameters*/) {
  return raw::startRawLoad(classifyUnlessCancelled(path, cancel), std::move(cancel));
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
  const ImageFileFormat signature = detail::rasterFormatFromSignature(
      static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(length));
  if (signature != ImageFileFormat::Jpeg) {
    auto input = std::make_shared<raw::RawInput>();
    input->path = "<memory>";
    input->length = static_cast<std::size_t>(length);
    std::unique_ptr<unsigned char[]> copy(new (std::nothrow) unsigned char[input->length]);
    if (!copy) {
      result.errorCode = kImageReaderTooLarge;
      return result;
    }
    std::memcpy(copy.get(), data, input->length);
    input->bytes = std::move(copy);
    raw::RawIdentity identity;
    const bool tiff = signature == ImageFileFormat::Tiff;
    const raw::DecodeOutcome outcome = raw::identifyRaw(*input, identity);
    if (outcome.code == kImageReaderOk && (!tiff || identity.isDng || identity.hasMosaic))
      return raw::startRawSource(std::move(input), nullptr, {}, false);
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

ImageFileFormat imageFileFormatOfExtension(const std::string& extension) {
  if (ImageReader::rawSupportedFormats().count(extension)) return ImageFileFormat::Raw;
  if (jpegFormats().count(extension)) return ImageFileFormat::Jpeg;
  if (tiffFormats().count(extension)) return ImageFileFormat::Tiff;
  return ImageFileFormat::Unknown;
}

bool ImageReader::isRawImageFile(const std::string& path) {
  return classifyImageFileByName(path).raw;
}

bool ImageReader::isDngImageFile(const std::string& path) {
  return classifyImageFileByName(path).isDng();
}

bool ImageReader::isHEIC(const std::string& path) {
  return classifyImageFileByName(path).isHeic();
}

std::shared_ptr<const ImageMetadata> ImageReader::readMetadata(const std::string& path) {
  return readImageMetadata(path);
}

std::shared_ptr<const ImageMetadata> ImageReader::readMetadata(const ImageFileClass& file) {
  return file.isRead() ? detail::readMetadataFromBytes(file.bytes.get(), file.size, file.path)
                       : nullptr;
}

std::shared_ptr<const Exiv2::ExifData> ImageReader::readExif(const std::string& path) {
  return readExifData(path);
}

bool ImageReader::getTemperatureAndTint(float& temperature, float& tint, const std::string& path) {
  return vorn::getTemperatureAndTint(temperature, tint, path);
}

namespace {

// What the raw decoder learns of a classified file without decoding it; false when it cannot.
bool identifyRawFile(const ImageFileClass& file, raw::RawIdentity& identity) {
  std::shared_ptr<const raw::RawInput> input;
  return raw::rawInputOf(file, input).code == kImageReaderOk &&
         raw::identifyRaw(*input, identity).code == kImageReaderOk;
}

}  // namespace

_Size<int> ImageReader::getImageSize(const std::string& path) {
  return getImageSize(classifyImageFile(path));
}

_Size<int> ImageReader::getImageSize(const ImageFileClass& file) {
  if (!file.raw) return rasterImageSize(file);
  raw::RawIdentity identity;
  return identifyRawFile(file, identity) ? reportedRawSize(identity.geometry) : _Size<int>();
}

int ImageReader::getColorDepth(const std::string& path) {
  return getColorDepth(classifyImageFile(path));
}

int ImageReader::getColorDepth(const ImageFileClass& file) {
  if (!file.raw) return rasterColorDepth(file);
  // The raw decoder always delivers 16-bit samples.
  raw::RawIdentity identity;
  return identifyRawFile(file, identity) ? 16 : 0;
}

int ImageReader::getPreciseColorDepth(const std::string& path) {
  return getPreciseColorDepth(classifyImageFile(path));
}

int ImageReader::getPreciseColorDepth(const ImageFileClass& file) {
  if (!file.raw) return rasterPreciseColorDepth(file);
  raw::RawIdentity identity;
  return identifyRawFile(file, identity) ? identity.bitsPerSample : 0;
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
  raw::DecodedRawFile decoded =
      raw::decodeRawFile(classifyImageFile(path), {}, failOnSetting(), [] { return false; });
  return {decoded.code, std::move(decoded.frame), std::move(decoded.metadata)};
}

}  // namespace vorn
