#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vorn/io/additional_raw_metadata.h"
#include "vorn/io/fail_on.h"
#include "vorn/io/image.h"

namespace vorn {

namespace raw {
struct RawInput;
}
class RawLoader;

/// A raw frame's geometry as the decoder describes it, before pixel aspect and orientation.
struct RawFrameGeometry {
  _Size<int> knownSize;    ///< size recorded for the decoded frame; width 0 while unknown
  _Rect<int> crop;         ///< crop recorded for the frame; all-zero when there is none
  _Size<int> decoderSize;  ///< the decoder's frame width and height
  double pixelAspect = 1.0;
  int orientation = 1;  ///< EXIF numbering; 5..8 transpose the frame
};

/// The size a raw source reports for its geometry (see ImageSourceRawBase::size).
_Size<int> reportedRawSize(const RawFrameGeometry& geometry);

/// A source whose frames arrive later, better ones replacing worse, and whose listeners are
/// told each time that happens.
class ImageSourceRawBase : public ImageSource {
 public:
  ~ImageSourceRawBase() override;

  /// Appends a listener; every listener is told (on a loader thread) of each better frame.
  void setUpdateCallback(Listener listener) const override;
  /// The full frame's upright size: known size, else crop, else decoder size; then pixel aspect
  /// and orientation.
  _Size<int> size() const override;
  /// `rect` is in full-frame coordinates whichever frame is loaded now.
  std::shared_ptr<ImageFrame> createImage(const _Size<int>& size, const _Rect<int>& rect,
                                          bool highQuality) const override;
  std::shared_ptr<AdditionalRawMetadata> additionalRawMetadata() const override;
  /// The code of a failed or cancelled load; 0 while the loads go well.
  virtual ImageReaderErrorCode errorCode() const = 0;
  /// Blocks until the quarter frame (or, failing that, the full one) is there or the load ended.
  void waitForQuarterFrame() { waitQuarter(); }
  RawFrameGeometry geometry() const;

 protected:
  ImageSourceRawBase(std::shared_ptr<const ImageMetadata> metadata, RawFrameGeometry geometry);

  /// Shows the frame when it is better than the current one; true when it was taken.
  bool offerFrame(ConstImageFrame frame);
  /// Calls every listener; never under a lock of this source.
  void notifyListeners() const;
  void setKnownSize(_Size<int> size);

 private:
  mutable std::mutex geometryMutex_;
  RawFrameGeometry geometry_;
  mutable std::mutex listenersMutex_;
  mutable std::vector<Listener> listeners_;
  std::shared_ptr<AdditionalRawMetadataAsync> additional_;
};

/// A raw file decoded in this process: a half-size frame first, then the full frame, each by
/// its own loader thread.
class ImageSourceRaw final : public ImageSourceRawBase {
 public:
  class AsyncLoaderQuarter;
  class AsyncLoaderFull;

  /// Starts both loaders over a file that the reader has read and identified. `cancel` (may be
  /// null) stops them between decoding stages.
  ImageSourceRaw(std::shared_ptr<const raw::RawInput> input,
                 std::shared_ptr<const ImageMetadata> metadata, RawFrameGeometry geometry,
                 std::shared_ptr<bool> cancel);
  ~ImageSourceRaw() override;

  void waitForFullRaw() override;
  ImageReaderErrorCode errorCode() const override;
  /// Cancels both loaders at once: waiters wake, no further frame is shown.
  void cancelLoading();
  /// Keeps `token` alive until both loaders have ended (at once when they have).
  void holdUntilLoaded(std::shared_ptr<void> token);

 protected:
  void waitQuarter() override;

 private:
  friend class RawLoader;

  /// What the source does when a loader yields no frame: it waits for the other loader.
  void fallback();
  /// True for the first caller only: a source logs one failure line, whichever loader fails.
  bool claimFailureReport();
  /// A failed quarter decode stops the full loader: the same file would fail it too.
  void cancelSiblingsOf(const RawLoader* failed);
  void reportFullLoadTime();
  /// Called once by each loader when its decode is over, before it tells the listeners.
  void loaderEnded();

  std::shared_ptr<const raw::RawInput> input_;
  std::shared_ptr<bool> cancel_;
  /// Read once, so that both loaders judge damage alike.
  const FailOn failOn_ = failOnSetting();
  std::chrono::steady_clock::time_point startTime_;
  std::atomic<bool> failureReported_{false};
  std::mutex tokenMutex_;
  std::shared_ptr<void> token_;
  std::atomic<int> endedLoaders_{0};
  std::unique_ptr<AsyncLoaderQuarter> quarter_;
  std::unique_ptr<AsyncLoaderFull> full_;
};

}  // namespace vorn
