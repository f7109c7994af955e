#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "vorn/io/image_source_raw.h"

namespace vorn {

namespace ipc {
class LoaderChild;
struct LoadRequest;
}  // namespace ipc

/// A raw file decoded by a loader child process: the same frames, listeners, waits and codes as
/// ImageSourceRaw, each frame copied out of the child's shared frame buffer.
class ImageSourceRawIPC final : public ImageSourceRawBase {
 public:
  using Mutex = std::mutex;
  class Load;

  /// Starts receiving the frames of an identified file from `child`, which runs `sequence`.
  static std::shared_ptr<ImageSourceRawIPC> start(std::unique_ptr<ipc::LoaderChild> child,
                                                  std::uint32_t sequence,
                                                  const ipc::LoadRequest& request,
                                                  std::shared_ptr<const ImageMetadata> metadata,
                                                  RawFrameGeometry geometry,
                                                  std::shared_ptr<bool> cancel);
  ~ImageSourceRawIPC() override;

  void waitForFullRaw() override;
  ImageReaderErrorCode errorCode() const override;
  /// Cancels the load in this process at once and asks the child to stop.
  void cancelLoading();
  /// Keeps `token` alive until the load has ended (at once when it has).
  void holdUntilLoaded(std::shared_ptr<void> token);

 protected:
  void waitQuarter() override;

 private:
  /// Shows a frame the child delivered; the full one also reports the load time.
  bool frameArrived(ConstImageFrame frame, bool full, _Size<int> sensorSize);
  ImageSourceRawIPC(std::shared_ptr<const ImageMetadata> metadata, RawFrameGeometry geometry);

  std::shared_ptr<Load> load_;
  std::thread worker_;
  std::chrono::steady_clock::time_point startTime_;
};

}  // namespace vorn
