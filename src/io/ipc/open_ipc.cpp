#include <atomic>
#include <filesystem>

#include "io/input_limits.h"
#include "io/ipc/loader_payloads.h"
#include "io/ipc/loader_process.h"
#include "io/memory_limit.h"
#include "io/open_stages.h"
#include "io/raw/raw_decoder.h"
#include "vorn/core/data_store.h"
#include "vorn/core/log.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/image_source_raw_ipc.h"

namespace vorn {
namespace {

// Waits for the child's answer to the request: the file's identity or its refusal.
bool awaitIdentity(ipc::LoaderChild& child, std::uint32_t sequence, ipc::LoadIdentity& identity,
                   std::string& fault) {
  ipc::Message message;
  if (!ipc::awaitReply(child, sequence, ipc::MessageType::Identity, message, fault)) return false;
  if (ipc::decodeIdentity(message.payload, identity)) return true;
  fault = "the loader process answered with a malformed message";
  return false;
}

}  // namespace

ImageResult ImageReader::open_ipc_async(const std::string& path, const _Size<int>& size,
                                        ImageReaderOpenFlag flag, const std::string& parameters,
                                        long /*taskId*/, std::shared_ptr<bool> cancel) {
  ImageResult result;
  if (!cancel) cancel = std::make_shared<bool>(false);
  if (raw::isCancelRequested(cancel)) {
    result.errorCode = kImageReaderCancelled;
    return result;
  }
  if (!std::filesystem::is_regular_file(std::filesystem::path(path))) return result;
  std::string error;
  std::unique_ptr<ipc::LoaderChild> child = ipc::LoaderPool::instance().acquire(error);
  if (!child) {
    // A missing or broken loader executable must not make raw files unreadable.
    ipc::logLoaderError(path, error + "; decoding in this process");
    return open_sync(path, size, flag, std::move(cancel), parameters);
  }
  const std::uint32_t sequence = ipc::nextRequestSequence();
  const ipc::LoadRequest request = ipc::loadRequestFor(path, flag);
  ipc::LoadIdentity identity;
  const ipc::Message load{ipc::MessageType::Load, sequence, ipc::encodeLoadRequest(request)};
  if (load.payload.size() + 16 > ipc::kMaxMessageSize) {
    ipc::logLoaderError(path, "the path is too long for the loader's messages");
    ipc::LoaderPool::instance().release(std::move(child));
    return result;
  }
  std::string fault;
  if (!child->requests().send(load, ipc::loaderTimeoutMs(), error))
    fault = "cannot send the request (" + error + ")";
  else
    awaitIdentity(*child, sequence, identity, fault);
  if (!fault.empty()) {
    child->kill();
    ipc::logLoaderError(path, fault);
    return result;
  }
  if (identity.code != kImageReaderOk) {
    ipc::LoaderPool::instance().release(std::move(child));
    if (identity.code != kImageReaderCancelled)
      ipc::logLoaderError(path,
                          "the loader refused the file with code " + std::to_string(identity.code));
    result.errorCode = static_cast<ImageReaderErrorCode>(identity.code);
    return result;
  }
  auto metadata = std::make_shared<const ImageMetadata>(std::move(identity.metadata));
  result.image = std::make_shared<Image>(ImageSourceRawIPC::start(
      std::move(child), sequence, request, std::move(metadata), identity.geometry, cancel));
  result.errorCode = kImageReaderOk;
  if (size == kNoResizeSize) return result;
  return detail::processSource(detail::SourceKind::Raw,
                               [&] { return detail::resizeToRequested(result, size); });
}

ImageResult ImageReader::open_ipc_child(const std::string& path, ImageReaderOpenFlag flag,
                                        const std::string& parameters,
                                        std::shared_ptr<bool> cancel) {
  return instance().open_sync(path, kNoResizeSize, flag, std::move(cancel), parameters);
}

}  // namespace vorn
