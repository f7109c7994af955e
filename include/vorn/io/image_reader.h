#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <tuple>

#include "vorn/core/image_load_state.h"
#include "vorn/io/fail_on.h"
#include "vorn/io/image.h"
#include "vorn/io/image_file_class.h"

namespace Exiv2 {
class ExifData;
}

namespace vorn {

/// What ImageReader::decodeFrame is asked for.
struct FrameRequest {
  /// Upright size the caller will shrink the frame to (a side of 0 is free): a JPEG then decodes
  /// at the coarsest DCT scale, a raw file at half size, when that still covers it.
  _Size<int> cover{0, 0};
  /// Which damage in the file's data fails the decode.
  FailOn failOn = failOnSetting();
  /// Tested between the decoding stages; set, it ends the decode with code 5.
  std::shared_ptr<bool> cancel;
  /// A raw file decodes in a loader child, so that a decoder crash or runaway ends only the
  /// decode (code 4); the frame equals the in-process one bit for bit.
  bool outOfProcess = false;
};

/// A decoded frame that belongs to the caller alone.
struct OwnedFrame {
  /// Upright, with its colour profile; null on failure.
  std::shared_ptr<ImageFrame> frame;
  std::shared_ptr<const ImageMetadata> metadata;
  ImageReaderErrorCode errorCode = kImageReaderFailed;
};

/// Opens image files: picks the raw or raster decoder, resizes on request and keeps the
/// registry of running loads through which they are cancelled.
class ImageReader {
 public:
  /// The size with which open_sync skips resizing and readNonRaw decodes at full size.
  static constexpr _Size<int> kNoResizeSize{-1, -1};

  /// The process-wide reader, made on first use.
  static ImageReader& instance();
  virtual ~ImageReader();
  ImageReader(const ImageReader&) = delete;
  ImageReader& operator=(const ImageReader&) = delete;

  /// Opens a file; code 5 without decoding when `taskId` (other than -1) is registered already.
  virtual ImageResult open(const std::string& path, const _Size<int>& size,
                           ImageReaderOpenFlag flag = kOpenDefault,
                           std::shared_ptr<bool> cancel = {}, const std::string& parameters = {},
                           long taskId = -1);
  /// Starts a raw load in the loader process and returns once the file is identified; the
  /// frames arrive later. Resizes (waiting for a frame) unless `size` is kNoResizeSize.
  ImageResult open_ipc_async(const std::string& path, const _Size<int>& size,
                             ImageReaderOpenFlag flag, const std::string& parameters, long taskId,
                             std::shared_ptr<bool> cancel = {});
  /// The loader process's decode of one file: open_sync at full size, stopped through `cancel`.
  static ImageResult open_ipc_child(const std::string& path, ImageReaderOpenFlag flag,
                                    const std::string& parameters,
                                    std::shared_ptr<bool> cancel = {});
  /// Decodes in this thread and resizes unless `size` is kNoResizeSize (-1 keeps the aspect).
  ImageResult open_sync(const std::string& path, const _Size<int>& size, ImageReaderOpenFlag flag,
                        std::shared_ptr<bool> cancel, const std::string& parameters);
  /// open_sync for a classified file, decoded from the contents it holds; `cancel` is tested
  /// between the stages (decode, orientation and colour, resize), a cancel giving code 5.
  ImageResult open_sync(const ImageFileClass& file, const _Size<int>& size,
                        ImageReaderOpenFlag flag, std::shared_ptr<bool> cancel,
                        const std::string& parameters);
  /// Decodes a classified file in this thread, a raw file once and without loader threads, into
  /// a frame no source shares (the caller may change it in place); a failure other than a cancel
  /// writes one log line naming the file, the stage and the damage.
  static OwnedFrame decodeFrame(const ImageFileClass& file, const FrameRequest& request = {});
  /// Decodes an encoded image held in memory: JPEG, TIFF or a raw format.
  static ImageResult open(void* data, std::uint64_t length);
  /// The file's embedded preview (or a small decode) as an Image whose frame carries `state`.
  static ImageResult openThumbnailAsImage(const std::string& path, const _Size<int>& size,
                                          ImageReaderOpenFlag flag, std::shared_ptr<bool> cancel,
                                          ImageLoadState state);

  /// Starts a raw load: the Image's frames arrive later from its loader threads.
  static ImageResult readRaw(const std::string& path, ImageReaderOpenFlag flag,
                             std::shared_ptr<bool> cancel, const std::string& parameters);
  /// Decodes a JPEG or TIFF file at full size.
  static ImageResult readNonRaw(const std::string& path);
  /// The result fitted inside `size` (aspect kept, never enlarged, load state kept); invalid
  /// results pass as is.
  static ImageResult postProcess(const ImageResult& result, ImageReaderOpenFlag flag,
                                 const _Size<int>& size);
  static bool isImageResultValid(const ImageResult& result);
  /// The size open_sync resizes to: a -1 side follows the decoded aspect (truncating).
  static _Size<int> requestedSize(const _Size<int>& requested, const _Size<int>& decoded);

  /// Sets the cancel flag of every registered open with this id; negative ids are ignored.
  void cancel(long taskId);
  void cancelAll();
  /// Blocks until every open, and the background loading it started, has ended.
  static void waitForAllTasks();
  /// Registered opens that are still running.
  std::size_t runningTaskCount() const;

  static const std::set<std::string>& allSupportedFormats();
  static const std::set<std::string>& rawSupportedFormats();
  /// By extension; a TIFF is raw only when its EXIF camera model is one of the raw-as-TIFF ones.
  static bool isRawImageFile(const std::string& path);
  static bool isDngImageFile(const std::string& path);
  static bool isHEIC(const std::string& path);
  /// True when raw files would be decoded by the out-of-process loader: requested and built.
  static bool isOutOfProcessLoaderEnabled();
  /// True when the context and "IPC.Loader.enable_win" ask for out-of-process raw loading.
  static bool isOutOfProcessLoaderRequested();

  static std::shared_ptr<const ImageMetadata> readMetadata(const std::string& path);
  /// The classified file's metadata, parsed from the contents it holds; empty when unreadable.
  static std::shared_ptr<const ImageMetadata> readMetadata(const ImageFileClass& file);
  static std::shared_ptr<const Exiv2::ExifData> readExif(const std::string& path);
  static bool getTemperatureAndTint(float& temperature, float& tint, const std::string& path);
  /// Upright pixel size; (0, 0) when the file cannot be read.
  static _Size<int> getImageSize(const std::string& path);
  static _Size<int> getImageSize(const ImageFileClass& file);
  /// Bits per channel that the decoder delivers; 0 when the file cannot be read.
  static int getColorDepth(const std::string& path);
  static int getColorDepth(const ImageFileClass& file);
  /// Bits per channel that the file's data carries; 0 when the file cannot be read.
  static int getPreciseColorDepth(const std::string& path);
  static int getPreciseColorDepth(const ImageFileClass& file);

  static std::shared_ptr<ImageFrame> getThumbnailBySize(
      const std::string& path, const _Size<int>& size, bool highQuality,
      std::shared_ptr<const ImageMetadata>* metadata = nullptr, std::shared_ptr<bool> cancel = {});
  static std::shared_ptr<ImageFrame> getThumbnailBySide(
      const std::string& path, int side, bool highQuality,
      std::shared_ptr<const ImageMetadata>* metadata = nullptr, std::shared_ptr<bool> cancel = {});
  static std::shared_ptr<ImageFrame> getThumbnailNative(
      const std::string& path, const _Size<int>& size, bool highQuality,
      std::shared_ptr<const ImageMetadata>* metadata = nullptr, std::shared_ptr<bool> cancel = {});

  /// Writes a float frame as a 32-bit float TIFF that keeps values outside [0, 1].
  static bool writeHDRImage(const ImageFrame& frame, const std::string& path);

 protected:
  ImageReader();

 private:
  struct Task {
    long taskId = -1;
    std::shared_ptr<bool> cancel;
  };
  class TaskToken;

  /// The image resampled to `size`, wrapped with its metadata in a new source; load state kept.
  static ImageResult imageResize(const ImageResult& result, const _Size<int>& size);
  void taskEnded(std::uint64_t number);

  mutable std::mutex tasksMutex_;
  std::condition_variable tasksEnded_;
  std::map<std::uint64_t, Task> tasks_;
  std::uint64_t taskCounter_ = 0;
  std::size_t running_ = 0;
};

/// Decodes a DNG file fully in this thread: (code, float frame, metadata).
std::tuple<ImageReaderErrorCode, std::shared_ptr<ImageFrame>, std::shared_ptr<const ImageMetadata>>
dngImageRead(const std::string& path);

}  // namespace vorn
