#include "io/ipc/loader_child.h"
#include "core/parallel.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "io/ipc/ipc_channel.h"
#include "io/ipc/loader_payloads.h"
#include "io/raw/raw_decoder.h"
#include "vorn/core/data_store.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/image_source_raw.h"

namespace vorn::ipc {
namespace {

constexpr int kSendTimeoutMs = 10'000;
constexpr int kIdlePollMs = 1000;
// Also how long the next request may wait after a load ended, so it stays short.
constexpr int kLoadPollMs = 5;

enum ExitStatus { kExitOk = 0, kExitUsage = 2, kExitChannel = 3, kExitProtocol = 4 };
static_assert(kLoaderExitOutOfMemory > kExitProtocol);

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers reserve terabytes of address space for their shadow memory.
constexpr bool kAddressSpaceLimitWorks = false;
#else
constexpr bool kAddressSpaceLimitWorks = true;
#endif

// posix_spawn cannot set limits for the new program, so the child sets its own at start.
void limitAddressSpace(long megabytes) {
  if (megabytes <= 0 || !kAddressSpaceLimitWorks) return;
  const rlim_t bytes = static_cast<rlim_t>(megabytes) << 20;
  const rlimit limit{bytes, bytes};
  setrlimit(RLIMIT_AS, &limit);
}

// CPU time adds up over the loads a warm child serves: each load gets its own budget.
void limitCpuForOneLoad(int seconds) {
  if (seconds <= 0) return;
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  rlimit limit{};
  getrlimit(RLIMIT_CPU, &limit);
  limit.rlim_cur = static_cast<rlim_t>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + seconds);
  if (limit.rlim_max != RLIM_INFINITY && limit.rlim_cur > limit.rlim_max)
    limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_CPU, &limit);
}

void applySettings(const LoadRequest& request) {
  DataStore& store = DataStore::instance();
  for (const auto& [key, value] : request.settings) {
    if (value.empty())
      store.remove(key);
    else
      store.set(key, value);
  }
}

// The test hook: inert unless the host's "IPC.Loader.test_fault" names this stage.
void faultAt(const LoadRequest& request, const char* stage) {
  if (request.fault != stage) return;
  raise(SIGKILL);
}

// The test hook's runaways: a child that sleeps for good, or one that burns its CPU time.
void stallIfAsked(const LoadRequest& request) {
  if (request.fault == "hang")
    while (true) pause();
  if (request.fault == "spin") {
    volatile unsigned spins = 0;
    while (true) spins = spins + 1;
  }
}

class Loader {
 public:
  Loader(MessageQueue& requests, MessageQueue& replies, FrameArena& quarterArena,
         FrameArena& fullArena, pid_t host, bool (*allocationRefused)())
      : requests_(requests),
        replies_(replies),
        quarterArena_(quarterArena),
        fullArena_(fullArena),
        host_(host),
        allocationRefused_(allocationRefused) {}

  int serve() {
    while (true) {
      Message message;
      std::string error;
      ReceiveStatus status = ReceiveStatus::Ok;
      if (next_)
        message = *std::exchange(next_, std::nullopt);
      else
        status = requests_.receive(message, kIdlePollMs, error);
      if (status == ReceiveStatus::Timeout) {
        // Not PR_SET_PDEATHSIG: it fires when the host thread that spawned the child ends.
        if (getppid() != host_) return kExitOk;
        continue;
      }
      if (status == ReceiveStatus::Failed) return kExitProtocol;
      if (message.type == MessageType::Cancel) continue;  // for a load that already ended
      LoadRequest request;
      const bool single = message.type == MessageType::DecodeFrame;
      if ((message.type != MessageType::Load && !single) ||
          !decodeLoadRequest(message.payload, request))
        return kExitProtocol;
      if (!(single ? decodeOne(message.sequence, request) : load(message.sequence, request)))
        return kExitChannel;
    }
  }

 private:
  bool reply(MessageType type, std::uint32_t sequence, std::vector<unsigned char> payload) {
    // Wherever the decoder met the memory limit, its answer would blame the file instead.
    if (allocationRefused_ && allocationRefused_()) _exit(kLoaderExitOutOfMemory);
    std::string error;
    return replies_.send({type, sequence, std::move(payload)}, kSendTimeoutMs, error);
  }

  bool sendIdentity(std::uint32_t sequence, LoadIdentity& identity) {
    std::vector<unsigned char> payload = encodeIdentity(identity);
    if (payload.size() + 16 > kMaxMessageSize) {
      identity = LoadIdentity{};
      payload = encodeIdentity(identity);
    }
    return reply(MessageType::Identity, sequence, std::move(payload));
  }

  // ImageReader::decodeFrame as the host would run it; a cancel from the host ends this child.
  bool decodeOne(std::uint32_t sequence, const LoadRequest& request) {
    applySettings(request);
    limitCpuForOneLoad(request.cpuSeconds);
    faultAt(request, "identify");
    FrameRequest frameRequest;
    frameRequest.cover = _Size<int>(request.coverWidth, request.coverHeight);
    frameRequest.failOn = static_cast<FailOn>(request.failOn);
    const OwnedFrame decoded =
        ImageReader::decodeFrame(classifyImageFile(request.path), frameRequest);
    LoadIdentity identity;
    identity.code = decoded.errorCode;
    if (identity.code == kImageReaderOk &&
        (!decoded.frame || decoded.frame->empty() || !decoded.metadata))
      identity.code = kImageReaderFailed;
    if (identity.code == kImageReaderOk) identity.metadata = *decoded.metadata;
    if (!sendIdentity(sequence, identity)) return false;
    if (identity.code != kImageReaderOk) return true;
    faultAt(request, "before_quarter");
    stallIfAsked(request);
    const _Size<int> size(decoded.frame->width, decoded.frame->height);
    return sendFrame(sequence, request, *decoded.frame, true, size);
  }

  bool sendFrame(std::uint32_t sequence, const LoadRequest& request, const ImageFrame& frame,
                 bool full, _Size<int> sensorSize) {
    FrameNotice notice;
    notice.full = full ? 1 : 0;
    notice.width = frame.width;
    notice.height = frame.height;
    notice.loadState = frame.getLoadState();
    notice.sensorWidth = sensorSize.width;
    notice.sensorHeight = sensorSize.height;
    FrameArena& arena = full ? fullArena_ : quarterArena_;
    std::string error;
    if (!arena.reserve(notice.bytes(), error)) return false;
    if (full && request.fault == "during_full") {
      std::memcpy(arena.data(), frame.data, notice.bytes() / 2);
      raise(SIGKILL);
    }
    // Split over the cores: the copy's page touches then run side by side too.
    detail::parallelCopy(arena.data(), frame.data, notice.bytes());
    return reply(MessageType::Frame, sequence, encodeFrameNotice(notice));
  }

  /// What the source's listener and the sending thread share; it outlives both.
  struct Shown {
    std::mutex mutex;
    ConstImageFrame lastSent;
    bool closed = false;
    bool failed = false;
  };

  // Sends the frame the source shows now unless it went already: the host receives exactly the
  // frames an in-process source would have shown, in the same order.
  void sendShown(std::uint32_t sequence, const LoadRequest& request, ImageSourceRaw& source,
                 const std::shared_ptr<bool>& cancel, Shown& shown) {
    std::lock_guard lock(shown.mutex);
    const ConstImageFrame frame = source.getImageData();
    if (!frame || frame == shown.lastSent || shown.closed || shown.failed ||
        raw::isCancelRequested(cancel))
      return;
    const bool full = frame->getLoadState() == FULL_LOADED;
    if (full) faultAt(request, "between_frames");
    shown.lastSent = frame;
    if (!sendFrame(sequence, request, *frame, full, source.geometry().knownSize))
      shown.failed = true;
  }

  // Sends the frames as the source shows them, then the load's code.
  bool deliver(std::uint32_t sequence, const LoadRequest& request, ImageSourceRaw& source,
               const std::shared_ptr<bool>& cancel) {
    faultAt(request, "before_quarter");
    stallIfAsked(request);
    if (request.fault == "garbage") {
      std::string error;
      return replies_.sendBytes(std::vector<unsigned char>(40, 0x5a), kSendTimeoutMs, error);
    }
    auto shown = std::make_shared<Shown>();
    source.setUpdateCallback([this, sequence, &request, &source, cancel, shown] {
      sendShown(sequence, request, source, cancel, *shown);
    });
    // A frame shown before the listener was added goes now.
    sendShown(sequence, request, source, cancel, *shown);
    source.waitForFullRaw();
    sendShown(sequence, request, source, cancel, *shown);
    int code = kImageReaderOk;
    {
      std::lock_guard lock(shown->mutex);
      shown->closed = true;
      if (shown->failed) code = kImageReaderFailed;
    }
    if (code == kImageReaderOk)
      code = raw::isCancelRequested(cancel) ? kImageReaderCancelled : source.errorCode();
    return reply(MessageType::Done, sequence, encodeCode(code));
  }

  bool load(std::uint32_t sequence, const LoadRequest& request) {
    applySettings(request);
    limitCpuForOneLoad(request.cpuSeconds);
    faultAt(request, "identify");
    auto cancel = std::make_shared<bool>(false);
    ImageResult opened = ImageReader::open_ipc_child(
        request.path, static_cast<ImageReaderOpenFlag>(request.flag), {}, cancel);
    auto* source =
        opened.image ? dynamic_cast<ImageSourceRaw*>(opened.image->source().get()) : nullptr;
    LoadIdentity identity;
    identity.code = opened.errorCode;
    if (identity.code == kImageReaderOk && !source) identity.code = kImageReaderFailed;
    if (source) {
      identity.geometry = source->geometry();
      identity.metadata = *source->metadata();
    }
    if (!sendIdentity(sequence, identity)) return false;
    if (identity.code != kImageReaderOk) return true;

    std::atomic<bool> delivering{true};
    std::atomic<bool> delivered{false};
    std::thread sender([&] {
      delivered = deliver(sequence, request, *source, cancel);
      delivering = false;
    });
    // Meanwhile this thread listens for the host's cancel.
    while (delivering) {
      Message message;
      std::string error;
      const ReceiveStatus status = requests_.receive(message, kLoadPollMs, error);
      if (status == ReceiveStatus::Ok && message.type == MessageType::Cancel &&
          message.sequence == sequence) {
        raw::requestCancel(cancel);
        source->cancelLoading();
      } else if (status == ReceiveStatus::Ok &&
                 (message.type == MessageType::Load || message.type == MessageType::DecodeFrame) &&
                 !next_) {
        // The host may send its next request as soon as this load's end reached it.
        next_ = std::move(message);
      } else if (status == ReceiveStatus::Failed ||
                 (status == ReceiveStatus::Ok && message.type != MessageType::Cancel)) {
        _exit(kExitProtocol);
      }
    }
    sender.join();
    return delivered;
  }

  MessageQueue& requests_;
  MessageQueue& replies_;
  FrameArena& quarterArena_;
  FrameArena& fullArena_;
  pid_t host_;
  bool (*allocationRefused_)();
  std::optional<Message> next_;
};

}  // namespace

int runRawLoader(int argc, char** argv, bool (*allocationRefused)()) {
  if (argc != 5) return kExitUsage;
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  const pid_t host = static_cast<pid_t>(std::atol(argv[3]));
  limitAddressSpace(std::atol(argv[4]));
  MessageQueue requests;
  MessageQueue replies;
  std::string error;
  FrameArena quarterArena;
  FrameArena fullArena;
  if (!requests.open(argv[1], error) || !replies.open(argv[2], error) ||
      !quarterArena.adopt(kQuarterArenaFd, error) || !fullArena.adopt(kFullArenaFd, error))
    return kExitChannel;
  if (!replies.send({MessageType::Ready, 0, {}}, kSendTimeoutMs, error)) return kExitChannel;
  Loader loader(requests, replies, quarterArena, fullArena, host, allocationRefused);
  return loader.serve();
}

}  // namespace vorn::ipc
