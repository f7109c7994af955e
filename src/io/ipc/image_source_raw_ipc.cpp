#include "vorn/io/image_source_raw_ipc.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>

#include "io/ipc/loader_payloads.h"
#include "io/ipc/loader_process.h"
#include "io/raw/raw_decoder.h"
#include "vorn/core/color_profile.h"
#include "vorn/core/data_store.h"
#include "vorn/core/log.h"

namespace vorn {
namespace {

constexpr int kPending = -1;
// How often the receiving thread looks at the child and at the cancel flags.
constexpr int kPollMs = 50;
// A cancelled child that does not answer within this is killed rather than awaited.
constexpr int kCancelGraceMs = 5000;

}  // namespace

/// The state a load shares between the source and the thread receiving from the child; it
/// outlives the source when a listener drops the source on that thread.
class ImageSourceRawIPC::Load {
 public:
  struct Slot {
    int code = kPending;
    bool ready = false;
    bool cancelled = false;
    bool finished = false;
    ConstImageFrame frame;
  };

  Mutex mutex;
  std::condition_variable readyChanged;
  Slot quarter;
  Slot full;
  std::atomic<bool> cancelRequested{false};
  std::shared_ptr<bool> hostCancel;
  std::unique_ptr<ipc::LoaderChild> child;
  std::uint32_t sequence = 0;
  std::string path;
  std::weak_ptr<ImageSourceRawIPC> source;
  std::shared_ptr<void> token;
  bool ended = false;

  bool isCancelled() const { return cancelRequested.load() || raw::isCancelRequested(hostCancel); }

  /// Ends `slot` unless it ended already; waiters wake. True when this call ended it.
  bool complete(Slot& slot, int code, ConstImageFrame frame) {
    {
      std::lock_guard lock(mutex);
      if (slot.code != kPending) return false;
      slot.code = code;
      slot.frame = std::move(frame);
      slot.cancelled = code == kImageReaderCancelled;
      slot.ready = true;
      slot.finished = true;
    }
    readyChanged.notify_all();
    return true;
  }

  /// Every slot still pending ends with `code`; true when any did.
  bool completePending(int code) {
    const bool q = complete(quarter, code, nullptr);
    const bool f = complete(full, code, nullptr);
    return q || f;
  }

  bool anyPending() {
    std::lock_guard lock(mutex);
    return quarter.code == kPending || full.code == kPending;
  }

  ConstImageFrame wait(const Slot& slot) {
    std::unique_lock lock(mutex);
    readyChanged.wait(lock, [&] { return slot.ready; });
    return slot.frame;
  }

  int code(const Slot& slot) const {
    std::lock_guard lock(const_cast<Mutex&>(mutex));
    return slot.code;
  }

  void run();

 private:
  void deliver(const ipc::FrameNotice& notice, std::shared_ptr<ImageFrame> frame);
  /// The full frame waits for the load's end, so that whoever waited for it finds the child
  /// back in the pool.
  struct HeldFrame {
    ipc::FrameNotice notice;
    std::shared_ptr<ImageFrame> frame;
  };
  void finish(const std::string& fault, int doneCode, HeldFrame held);
};

void ImageSourceRawIPC::Load::deliver(const ipc::FrameNotice& notice,
                                      std::shared_ptr<ImageFrame> frame) {
  const std::shared_ptr<ImageSourceRawIPC> owner = source.lock();
  if (!owner) {
    cancelRequested.store(true);
    return;
  }
  bool shown = false;
  {
    std::lock_guard lock(mutex);
    if ((notice.full ? full : quarter).code != kPending) return;
  }
  shown = owner->frameArrived(frame, notice.full != 0,
                              _Size<int>(notice.sensorWidth, notice.sensorHeight));
  complete(notice.full ? full : quarter, kImageReaderOk, std::move(frame));
  if (shown) owner->notifyListeners();
}

void ImageSourceRawIPC::Load::run() {
  const int timeoutMs = ipc::loaderTimeoutMs();
  auto lastWord = std::chrono::steady_clock::now();
  bool cancelSent = false;
  std::string fault;
  int doneCode = kPending;
  HeldFrame held;
  while (fault.empty() && doneCode == kPending) {
    std::string error;
    if (isCancelled() && !cancelSent) {
      completePending(kImageReaderCancelled);
      cancelSent = true;
      lastWord = std::chrono::steady_clock::now();
      if (!child->requests().send({ipc::MessageType::Cancel, sequence, {}}, kPollMs, error))
        fault = "cannot ask the loader process to cancel: " + error;
      continue;
    }
    const int limitMs = cancelSent ? std::min(timeoutMs, kCancelGraceMs) : timeoutMs;
    ipc::Message message;
    const auto polled =
        child->poll(message, kPollMs, lastWord + std::chrono::milliseconds(limitMs), fault);
    if (polled != ipc::LoaderChild::Poll::Message) continue;
    lastWord = std::chrono::steady_clock::now();
    ipc::FrameNotice notice;
    std::int32_t code = 0;
    if (message.sequence != sequence)
      fault = "the loader process answered another load";
    else if (message.type == ipc::MessageType::Frame &&
             ipc::decodeFrameNotice(message.payload, notice)) {
      if (cancelSent) continue;
      std::shared_ptr<ImageFrame> frame =
          ipc::receiveFrame(child->arena(notice.full != 0), notice, error);
      if (!frame)
        fault = "the frame could not be received (" + error + ")";
      else if (notice.full)
        held = {notice, std::move(frame)};
      else
        deliver(notice, std::move(frame));
    } else if (message.type == ipc::MessageType::Done && ipc::decodeCode(message.payload, code))
      doneCode = code;
    else
      fault = "the loader process sent an unexpected or malformed message";
  }
  finish(fault, doneCode, std::move(held));
}

void ImageSourceRawIPC::Load::finish(const std::string& fault, int doneCode, HeldFrame held) {
  if (!fault.empty()) {
    // A child in an unknown state never serves another load.
    child->kill();
    child.reset();
    const int code = isCancelled() ? kImageReaderCancelled : kImageReaderFailed;
    // Logged before waiters wake: whoever waited for the load finds its failure in the log.
    if (anyPending() && code == kImageReaderFailed)
      Logger::LogInstance().Error(ModuleName::ReaderIPC, "RawImage IPC error: '%s': %s",
                                  path.c_str(), fault.c_str());
    completePending(code);
  } else {
    ipc::LoaderPool::instance().release(std::move(child));
    if (held.frame) deliver(held.notice, std::move(held.frame));
    // A clean end leaves a slot pending only when the full frame came first, as it may in
    // process too: that slot ends without a frame of its own.
    const int code = doneCode;
    if (anyPending() && code != kImageReaderOk && code != kImageReaderCancelled)
      Logger::LogInstance().Error(ModuleName::ReaderIPC,
                                  "RawImage IPC error: '%s': the decode ended with code %d",
                                  path.c_str(), code);
    completePending(code);
  }
  std::shared_ptr<void> released;
  {
    std::lock_guard lock(mutex);
    ended = true;
    released = std::move(token);
  }
}

ImageSourceRawIPC::ImageSourceRawIPC(std::shared_ptr<const ImageMetadata> metadata,
                                     RawFrameGeometry geometry)
    : ImageSourceRawBase(std::move(metadata), geometry),
      load_(std::make_shared<Load>()),
      startTime_(std::chrono::steady_clock::now()) {}

std::shared_ptr<ImageSourceRawIPC> ImageSourceRawIPC::start(
    std::unique_ptr<ipc::LoaderChild> child, std::uint32_t sequence,
    const ipc::LoadRequest& request, std::shared_ptr<const ImageMetadata> metadata,
    RawFrameGeometry geometry, std::shared_ptr<bool> cancel) {
  std::shared_ptr<ImageSourceRawIPC> source(new ImageSourceRawIPC(std::move(metadata), geometry));
  Load& load = *source->load_;
  load.child = std::move(child);
  load.sequence = sequence;
  load.path = request.path;
  load.hostCancel = std::move(cancel);
  load.source = source;
  source->worker_ = std::thread([load = source->load_] { load->run(); });
  return source;
}

ImageSourceRawIPC::~ImageSourceRawIPC() {
  load_->cancelRequested.store(true);
  load_->completePending(kImageReaderCancelled);
  if (!worker_.joinable()) return;
  // A listener may drop the last reference on the receiving thread, which then ends alone.
  if (worker_.get_id() == std::this_thread::get_id())
    worker_.detach();
  else
    worker_.join();
}

bool ImageSourceRawIPC::frameArrived(ConstImageFrame frame, bool full, _Size<int> sensorSize) {
  if (!full) return offerFrame(std::move(frame));
  setKnownSize(sensorSize);
  const bool shown = offerFrame(std::move(frame));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - startTime_).count();
  char line[64];
  std::snprintf(line, sizeof line, "[metrics] FULL LOAD_TIME IPC: %.3f sec", seconds);
  Logger::LogInstance().Performance(ModuleName::ReaderIPC, "%s", line);
  DataStore::instance().set("Profile.Load.RawLoadTime", static_cast<float>(seconds));
  return shown;
}

void ImageSourceRawIPC::cancelLoading() {
  load_->cancelRequested.store(true);
  load_->completePending(kImageReaderCancelled);
}

void ImageSourceRawIPC::holdUntilLoaded(std::shared_ptr<void> token) {
  std::lock_guard lock(load_->mutex);
  if (!load_->ended) load_->token = std::move(token);
}

// As in the in-process source, a load that yields no frame falls back on the other one.
void ImageSourceRawIPC::waitQuarter() {
  if (!load_->wait(load_->quarter)) load_->wait(load_->full);
}

void ImageSourceRawIPC::waitForFullRaw() {
  if (!load_->wait(load_->full)) load_->wait(load_->quarter);
}

ImageReaderErrorCode ImageSourceRawIPC::errorCode() const {
  for (const Load::Slot* slot : {&load_->full, &load_->quarter}) {
    const int code = load_->code(*slot);
    if (code != kPending && code != kImageReaderOk && code != kImageReaderCancelled)
      return static_cast<ImageReaderErrorCode>(code);
  }
  return load_->code(load_->full) == kImageReaderCancelled ? kImageReaderCancelled : kImageReaderOk;
}

}  // namespace vorn
