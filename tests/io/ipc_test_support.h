#pragma once

#include <mqueue.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "io/ipc/ipc_channel.h"
#include "support/data_store_guard.h"
#include "vorn/core/data_store.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/image_source_raw_ipc.h"

namespace vorn::test {

/// This process's loader segments in /dev/shm and the loader queues that still exist (the queue
/// folder is not always mounted, so the queue names this process may have made are probed).
inline std::vector<std::string> leftoverIpcNames() {
  const std::string prefix = std::string(ipc::kNamePrefix + 1) + std::to_string(getpid()) + "-";
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/shm"))
    if (entry.path().filename().string().rfind(prefix, 0) == 0)
      found.push_back(entry.path().string());
  for (int n = 1; n <= 4000; ++n)
    for (const char* role : {"-req", "-rep"}) {
      const std::string name = "/" + prefix + std::to_string(n) + role;
      const mqd_t queue = mq_open(name.c_str(), O_RDONLY);
      if (queue == static_cast<mqd_t>(-1)) continue;
      mq_close(queue);
      found.push_back(name);
    }
  return found;
}

/// Points the loader at the build's executable and restores every loader setting on exit.
class LoaderSettings {
 public:
  LoaderSettings() { DataStore::instance().set("IPC.Loader.path", loaderPath()); }
  static std::string loaderPath() { return VORN_RAW_LOADER_PATH; }

 private:
  DataStoreGuard path_{"IPC.Loader.path"};
  DataStoreGuard timeout_{"IPC.Loader.timeout_ms"};
  DataStoreGuard fault_{"IPC.Loader.test_fault"};
  DataStoreGuard failOn_{"ImageReader.FailOn"};
};

/// The out-of-process source of an opened image; null for any other.
inline ImageSourceRawIPC* ipcSource(const ImageResult& result) {
  return result.image ? dynamic_cast<ImageSourceRawIPC*>(result.image->source().get()) : nullptr;
}

/// True when both frames exist and hold the same bytes.
inline bool sameFrames(const ConstImageFrame& a, const ConstImageFrame& b) {
  return a && b && a->size() == b->size() && a->getLoadState() == b->getLoadState() &&
         std::memcmp(a->data, b->data, a->sizeInBytes()) == 0;
}

}  // namespace vorn::test
