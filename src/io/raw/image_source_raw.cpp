#include "vorn/io/image_source_raw.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "core/log_failure.h"
#include "io/memory_limit.h"
#include "io/raw/raw_decoder.h"
#include "vorn/core/data_store.h"

/// Logs a Comment line made of the calling function's full signature, a blank and the message.
#define VORN_LOG_NOTE(message) ::vorn::LogComment("%s %s", __PRETTY_FUNCTION__, (message))

namespace vorn {
namespace {

// Called from a catch block: what goes wrong after a decode (showing its frame, telling a
// listener) is logged and the load carries on, rather than ending the loader thread's process.
void logProceedException() {
  try {
    throw;
  } catch (const std::exception& e) {
    VORN_LOG_FAILURE((std::string("ImageSourceRaw proceed exception: ") + e.what()).c_str());
  } catch (...) {
    VORN_LOG_FAILURE("ImageSourceRaw proceed exception");
  }
}

}  // namespace

_Size<int> reportedRawSize(const RawFrameGeometry& geometry) {
  _Size<int> size = geometry.knownSize;
  if (size.width == 0) {
    if (geometry.crop.width > 0 && geometry.crop.height > 0) return geometry.crop.size();
    size = geometry.decoderSize;
  }
  const double aspect = geometry.pixelAspect;
  if (aspect > 0.0 && aspect < 1.0)
    size.height = static_cast<int>(size.height / aspect + 0.5);
  else if (aspect > 1.0)
    size.width = static_cast<int>(size.width * aspect + 0.5);
  if (geometry.orientation >= 5 && geometry.orientation <= 8) std::swap(size.width, size.height);
  return size;
}

ImageSourceRawBase::ImageSourceRawBase(std::shared_ptr<const ImageMetadata> metadata,
                                       RawFrameGeometry geometry)
    : ImageSource(std::move(metadata)),
      geometry_(geometry),
      additional_(std::make_shared<AdditionalRawMetadataAsync>()) {}

ImageSourceRawBase::~ImageSourceRawBase() = default;

void ImageSourceRawBase::setUpdateCallback(Listener listener) const {
  if (!listener) return;
  std::lock_guard lock(listenersMutex_);
  listeners_.push_back(std::move(listener));
}

void ImageSourceRawBase::notifyListeners() const {
  std::unique_lock lock(listenersMutex_);
  const std::vector<Listener> listeners = listeners_;
  lock.unlock();
  // A listener may drop the last reference to this source; nothing of it is touched after.
  for (const Listener& listener : listeners) {
    try {
      listener();
    } catch (...) {
      logProceedException();
    }
  }
}

RawFrameGeometry ImageSourceRawBase::geometry() const {
  std::lock_guard lock(geometryMutex_);
  return geometry_;
}

void ImageSourceRawBase::setKnownSize(_Size<int> size) {
  std::lock_guard lock(geometryMutex_);
  geometry_.knownSize = size;
}

_Size<int> ImageSourceRawBase::size() const {
  return reportedRawSize(geometry());
}

bool ImageSourceRawBase::offerFrame(ConstImageFrame frame) {
  if (!frame) return false;
  std::lock_guard lock(frameMutex_);
  if (imageData_ && imageData_->getLoadState() >= frame->getLoadState()) return false;
  imageData_ = std::move(frame);
  return true;
}

std::shared_ptr<ImageFrame> ImageSourceRawBase::createImage(const _Size<int>& size,
                                                            const _Rect<int>& rect,
                                                            bool highQuality) const {
  const ConstImageFrame frame = const_cast<ImageSourceRawBase*>(this)->workingImage();
  if (!frame) return {};
  const _Size<int> whole = this->size();
  if (frame->size() == whole) return ImageSource::createImage(size, rect, highQuality);
  const _Rect<int> region = adjustRect(rect);
  if (region.width < 1 || region.height < 1 || whole.width < 1 || whole.height < 1 ||
      size.width < 0 || size.height < 0) {
    VORN_LOG_FAILURE(("Cannot render raw image with size: " + std::to_string(size.width) + "x" +
                      std::to_string(size.height))
                         .c_str());
    return {};
  }
  // The quarter frame covers the whole image at a smaller scale: map the region onto it.
  const double sx = static_cast<double>(frame->width) / whole.width;
  const double sy = static_cast<double>(frame->height) / whole.height;
  const int left = std::clamp(static_cast<int>(std::floor(region.x * sx)), 0, frame->width - 1);
  const int top = std::clamp(static_cast<int>(std::floor(region.y * sy)), 0, frame->height - 1);
  const int right = std::clamp(static_cast<int>(std::ceil((region.x + region.width) * sx)),
                               left + 1, frame->width);
  const int bottom = std::clamp(static_cast<int>(std::ceil((region.y + region.height) * sy)),
                                top + 1, frame->height);
  const _Rect<int> mapped(left, top, right - left, bottom - top);
  const _Size<int> target = (size.width == 0 && size.height == 0) ? region.size() : size;
  if (!detail::frameAllocationAllowed(target, "the resized image")) return {};
  if (target == mapped.size()) return frame->copy(mapped);
  return frame->resize(target, mapped, highQuality);
}

std::shared_ptr<AdditionalRawMetadata> ImageSourceRawBase::additionalRawMetadata() const {
  return additional_;
}

namespace {

constexpr int kPending = -1;

}  // namespace

/// One background decode: a thread, its result code and frame, and the flags waiters watch.
class RawLoader {
 public:
  RawLoader(bool halfSize, const char* name) : halfSize_(halfSize), name_(name) {}
  virtual ~RawLoader() { join(); }
  RawLoader(const RawLoader&) = delete;
  RawLoader& operator=(const RawLoader&) = delete;

  void start(ImageSourceRaw& source) {
    // run() takes the mutex first, so the thread sees thread_ assigned (join() reads it there).
    std::lock_guard lock(mutex_);
    thread_ = std::thread([this, &source] {
      { std::lock_guard started(mutex_); }
      run(source);
    });
  }

  /// Stores code 5 and wakes every waiter unless the load already ended; true when it did that.
  bool cancel() {
    int expected = kPending;
    if (!code_.compare_exchange_strong(expected, kImageReaderCancelled)) return false;
    cancelled_.exchange(true);
    ready_.exchange(true);
    finished_.exchange(true);
    wakeWaiters();
    return true;
  }

  /// Blocks until the load ended; the frame it produced, null when it failed or was cancelled.
  ConstImageFrame wait() {
    std::unique_lock lock(mutex_);
    ready_cv_.wait(lock, [this] { return ready_.load(); });
    return frame_;
  }

  bool isCancelled() const { return cancelled_.load(); }
  bool isFinished() const { return finished_.load(); }
  /// The load's code; kPending while it runs.
  int code() const { return code_.load(); }

  void join() {
    if (!thread_.joinable()) return;
    // The last reference to the source may be dropped by a listener on this very thread.
    if (thread_.get_id() == std::this_thread::get_id())
      thread_.detach();
    else
      thread_.join();
  }

 protected:
  /// Ends the load unless it was cancelled first; `publish` (with a frame) and `beforeWake` run
  /// before waiters wake, so a waiter finds what they did.
  template <typename Publish, typename BeforeWake = void (*)()>
  bool complete(
      int code, ConstImageFrame frame, Publish&& publish, BeforeWake&& beforeWake = [] {}) {
    int expected = kPending;
    if (!code_.compare_exchange_strong(expected, code)) return false;
    {
      std::lock_guard lock(mutex_);
      frame_ = frame;
    }
    if (frame) {
      try {
        publish(frame);
      } catch (...) {
        logProceedException();
      }
    }
    beforeWake();
    ready_.exchange(true);
    finished_.exchange(true);
    wakeWaiters();
    return true;
  }

  virtual void logCancelled() const = 0;
  /// Ends the load with the decoded frame; true when the source now shows it.
  virtual bool onFrame(ImageSourceRaw& source, const raw::RawFrame& decoded) = 0;

 private:
  void wakeWaiters() {
    // Taking the mutex once orders this wake after a waiter's predicate test: no lost wake-up.
    { std::lock_guard lock(mutex_); }
    ready_cv_.notify_all();
  }

  void run(ImageSourceRaw& source);

  const bool halfSize_;
  const char* name_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable ready_cv_;
  ConstImageFrame frame_;
  std::atomic<int> code_{kPending};
  std::atomic<bool> ready_{false};
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> finished_{false};
};

class ImageSourceRaw::AsyncLoaderQuarter final : public RawLoader {
 public:
  AsyncLoaderQuarter() : RawLoader(true, "quarter") {}
  ~AsyncLoaderQuarter() override { join(); }

 protected:
  void logCancelled() const override { VORN_LOG_NOTE("Fast raw opening canceled."); }
  bool onFrame(ImageSourceRaw& source, const raw::RawFrame& decoded) override {
    bool shown = false;
    complete(kImageReaderOk, decoded.frame,
             [&](const ConstImageFrame& frame) { shown = source.offerFrame(frame); });
    return shown;
  }
};

class ImageSourceRaw::AsyncLoaderFull final : public RawLoader {
 public:
  AsyncLoaderFull() : RawLoader(false, "full") {}
  ~AsyncLoaderFull() override { join(); }

 protected:
  void logCancelled() const override { VORN_LOG_NOTE("RawImage loading cancelled"); }
  bool onFrame(ImageSourceRaw& source, const raw::RawFrame& decoded) override {
    bool shown = false;
    complete(kImageReaderOk, decoded.frame, [&](const ConstImageFrame& frame) {
      source.setKnownSize(decoded.sensorSize);
      shown = source.offerFrame(frame);
      source.reportFullLoadTime();
    });
    return shown;
  }
};

void RawLoader::run(ImageSourceRaw& source) {
  const auto stop = [this, &source] {
    return isCancelled() || raw::isCancelRequested(source.cancel_);
  };
  raw::RawFrame decoded;
  raw::DecodeOutcome outcome;
  std::string exceptionText;
  bool unknownException = false;
  try {
    // The full decode unpacks beside the quarter one, then lets it finish before demosaicing:
    // on few cores the first picture arrives sooner and the full one hardly later.
    const auto yieldToQuarter = [&source] { source.quarter_->wait(); };
    outcome = raw::decodeRaw(*source.input_, halfSize_, source.failOn_, stop, decoded,
                             halfSize_ ? std::function<void()>() : yieldToQuarter);
  } catch (const std::exception& e) {
    exceptionText = e.what();
    outcome.code = kImageReaderFailed;
  } catch (...) {
    unknownException = true;
    outcome.code = kImageReaderFailed;
  }

  bool shown = false;
  if (outcome.code == kImageReaderOk) {
    shown = onFrame(source, decoded);
  } else if (outcome.code == kImageReaderCancelled || stop()) {
    // Only the host's flag gets here first; the source's own cancels win the exchange.
    if (cancel()) logCancelled();
  } else {
    const std::string& path = source.input_->path;
    std::string line;
    if (!exceptionText.empty())
      line = std::string("ImageSourceRaw ") + name_ +
             " render failed with exception: " + exceptionText + " ('" + path + "')";
    else if (unknownException)
      line = "RawImage unknouwn error ('" + path + "')";
    else
      line = "RawImage error: " + raw::describeFailure(outcome, path);
    const char* signature = __PRETTY_FUNCTION__;
    bool reported = false;
    // Logged before waiters wake: whoever waited for the load finds its failure in the log.
    complete(
        outcome.code, nullptr, [](const ConstImageFrame&) {},
        [&] {
          reported = source.claimFailureReport();
          if (reported) LogError("%s %s", signature, line.c_str());
        });
    if (reported) source.cancelSiblingsOf(this);
  }
  decoded.frame.reset();
  source.loaderEnded();
  // Listeners run last: one of them may drop the last reference to the source.
  if (shown) source.notifyListeners();
}

ImageSourceRaw::ImageSourceRaw(std::shared_ptr<const raw::RawInput> input,
                               std::shared_ptr<const ImageMetadata> metadata,
                               RawFrameGeometry geometry, std::shared_ptr<bool> cancel)
    : ImageSourceRawBase(std::move(metadata), geometry),
      input_(std::move(input)),
      cancel_(std::move(cancel)),
      startTime_(std::chrono::steady_clock::now()),
      quarter_(std::make_unique<AsyncLoaderQuarter>()),
      full_(std::make_unique<AsyncLoaderFull>()) {
  if (!input_) throw ImageSourceException("raw input nullptr");
  quarter_->start(*this);
  try {
    full_->start(*this);
  } catch (...) {
    // No destructor runs for a half-built source: stop the running loader here.
    quarter_->cancel();
    quarter_->join();
    throw;
  }
}

ImageSourceRaw::~ImageSourceRaw() {
  if (std::uncaught_exceptions() > 0)
    LogError("%s", "ImageSourceRaw::~ImageSourceRaw: std::uncaught_exception happens");
  quarter_->cancel();
  full_->cancel();
  quarter_->join();
  full_->join();
  std::lock_guard lock(tokenMutex_);
  token_.reset();
}

void ImageSourceRaw::holdUntilLoaded(std::shared_ptr<void> token) {
  std::lock_guard lock(tokenMutex_);
  if (endedLoaders_.load() < 2) token_ = std::move(token);
}

void ImageSourceRaw::loaderEnded() {
  if (endedLoaders_.fetch_add(1) + 1 < 2) return;
  std::shared_ptr<void> token;
  {
    std::lock_guard lock(tokenMutex_);
    token = std::move(token_);
  }
  // Both decodes are over: the file's bytes are no longer needed.
  input_.reset();
  // Released outside the lock: the token's owner may take its own locks.
}

void ImageSourceRaw::cancelLoading() {
  quarter_->cancel();
  full_->cancel();
}

void ImageSourceRaw::cancelSiblingsOf(const RawLoader* failed) {
  // A failed quarter decode means the file fails the full one too; a failed full decode (which
  // needs more memory) leaves the quarter frame as the fallback.
  if (failed == quarter_.get()) full_->cancel();
}

bool ImageSourceRaw::claimFailureReport() {
  return !failureReported_.exchange(true);
}

void ImageSourceRaw::waitForFullRaw() {
  if (!full_->wait()) fallback();
}

void ImageSourceRaw::waitQuarter() {
  if (!quarter_->wait()) fallback();
}

// When a loader yields no frame, the source keeps showing the best frame the other loader
// brings: waiting for both means the caller returns with everything there will ever be.
void ImageSourceRaw::fallback() {
  quarter_->wait();
  full_->wait();
}

ImageReaderErrorCode ImageSourceRaw::errorCode() const {
  // A failure cancels the other loader, so the failing one holds the meaningful code.
  for (const RawLoader* loader : {static_cast<const RawLoader*>(full_.get()),
                                  static_cast<const RawLoader*>(quarter_.get())}) {
    const int code = loader->code();
    if (code != kPending && code != kImageReaderOk && code != kImageReaderCancelled)
      return static_cast<ImageReaderErrorCode>(code);
  }
  if (full_->code() == kImageReaderCancelled) return kImageReaderCancelled;
  return kImageReaderOk;
}

void ImageSourceRaw::reportFullLoadTime() {
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - startTime_).count();
  char line[64];
  std::snprintf(line, sizeof line, "[metrics] FULL LOAD_TIME: %.3f sec", seconds);
  Logger::LogInstance().Performance(ModuleName::ImageReader, "%s", line);
  DataStore::instance().set("Profile.Load.RawLoadTime", static_cast<float>(seconds));
}

}  // namespace vorn
