#include "io/ipc/frame_decode_ipc.h"

#include "io/ipc/loader_process.h"
#include "io/raw/raw_decoder.h"

namespace vorn::ipc {
namespace {

OwnedFrame decodeLocally(const ImageFileClass& file, const FrameRequest& request) {
  FrameRequest local = request;
  local.outOfProcess = false;
  return ImageReader::decodeFrame(file, local);
}

// The child answers with the file's identity, then, when that says 0, with the frame.
bool receiveDecode(LoaderChild& child, std::uint32_t sequence, const std::function<bool()>& stop,
                   OwnedFrame& result, std::string& fault) {
  Message message;
  LoadIdentity identity;
  if (!awaitReply(child, sequence, MessageType::Identity, message, fault, stop)) return false;
  if (!decodeIdentity(message.payload, identity)) {
    fault = "the loader process answered with a malformed identity";
    return false;
  }
  result.errorCode = static_cast<ImageReaderErrorCode>(identity.code);
  if (identity.code != kImageReaderOk) return true;
  FrameNotice notice;
  if (!awaitReply(child, sequence, MessageType::Frame, message, fault, stop)) return false;
  if (!decodeFrameNotice(message.payload, notice) || !notice.full) {
    fault = "the loader process sent a malformed frame notice";
    return false;
  }
  std::string error;
  result.frame = receiveFrame(child.arena(true), notice, error);
  if (!result.frame) {
    fault = "the frame could not be received (" + error + ")";
    return false;
  }
  result.metadata = std::make_shared<const ImageMetadata>(std::move(identity.metadata));
  return true;
}

}  // namespace

OwnedFrame decodeRawFrameInChild(const ImageFileClass& file, const FrameRequest& request) {
  const std::shared_ptr<bool> cancel = request.cancel;
  const auto stop = [cancel] { return raw::isCancelRequested(cancel); };
  // decodeFrame, the one caller, has seen the flag clear already.
  OwnedFrame result;
  std::string error;
  std::unique_ptr<LoaderChild> child = LoaderPool::instance().acquire(error);
  if (!child) {
    // A missing or broken loader executable must not make raw files unreadable.
    logLoaderError(file.path, error + "; decoding in this process");
    return decodeLocally(file, request);
  }
  LoadRequest load = loadRequestFor(file.path, kOpenDefault);
  load.coverWidth = request.cover.width;
  load.coverHeight = request.cover.height;
  load.failOn = static_cast<std::int32_t>(request.failOn);
  const std::uint32_t sequence = nextRequestSequence();
  const Message message{MessageType::DecodeFrame, sequence, encodeLoadRequest(load)};
  if (message.payload.size() + 16 > kMaxMessageSize) {
    LoaderPool::instance().release(std::move(child));
    logLoaderError(file.path, "the path is too long for the loader's messages");
    return result;
  }
  std::string fault;
  if (!child->requests().send(message, loaderTimeoutMs(), error))
    fault = "cannot send the request (" + error + ")";
  else
    receiveDecode(*child, sequence, stop, result, fault);
  if (fault.empty()) {
    LoaderPool::instance().release(std::move(child));
    // The child logged the decoder's reason in its own log; this one names the file here.
    if (result.errorCode != kImageReaderOk && result.errorCode != kImageReaderCancelled)
      logLoaderError(file.path, "the decode ended with code " + std::to_string(result.errorCode));
    return result;
  }
  // A child in an unknown state, or one still decoding what nobody wants, never serves again.
  child->kill();
  child.reset();
  result = OwnedFrame{};
  if (stop()) {
    result.errorCode = kImageReaderCancelled;
    return result;
  }
  logLoaderError(file.path, fault);
  return result;
}

}  // namespace vorn::ipc
