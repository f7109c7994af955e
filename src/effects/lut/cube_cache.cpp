#include "effects/lut/cube_cache.h"

#include <chrono>
#include <filesystem>
#include <list>
#include <mutex>
#include <new>
#include <system_error>
#include <utility>

#include "vorn/core/library.h"
#include "vorn/core/log.h"

namespace vorn::detail {

namespace {

namespace fs = std::filesystem;

/// A file's version: a changed file (or one that appears) is read again.
struct CubeKey {
  std::string path;
  fs::file_time_type modified{};
  std::uintmax_t bytes = 0;
  bool exists = false;
  bool operator==(const CubeKey&) const = default;
};

CubeKey keyOf(const std::string& path) {
  CubeKey key{path};
  std::error_code error;
  key.modified = fs::last_write_time(path, error);
  if (error) return key;
  key.bytes = fs::file_size(path, error);
  key.exists = !error;
  return key;
}

/// Recently used tables, newest first; failures are kept too so each is logged once.
class CubeCache {
 public:
  std::shared_ptr<const CubeLut> find(const std::string& path) {
    const CubeKey key = keyOf(path);
    {
      std::lock_guard lock(mutex_);
      for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (!(it->first == key)) continue;
        entries_.splice(entries_.begin(), entries_, it);
        return it->second;
      }
    }
    // Parsed outside the lock: a large table must not stall renders of other files.
    std::string error;
    std::shared_ptr<const CubeLut> lut = load(path, error);
    std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) {
      if (entry.first == key) return entry.second;  // another thread was quicker
    }
    if (!lut) LogError("LUT mapping leaves the picture unchanged: %s", error.c_str());
    entries_.emplace_front(key, lut);
    if (entries_.size() > kKept) entries_.pop_back();
    return lut;
  }

 private:
  static constexpr std::size_t kKept = 8;

  static std::shared_ptr<const CubeLut> load(const std::string& path, std::string& error) {
    try {
      return std::make_shared<const CubeLut>(readCubeFile(path));
    } catch (const CubeFormatError& e) {
      error = e.what();
    } catch (const std::bad_alloc&) {
      error = path + ": not enough memory for its table";
    }
    return nullptr;
  }

  std::mutex mutex_;
  std::list<std::pair<CubeKey, std::shared_ptr<const CubeLut>>> entries_;
};

}  // namespace

std::string resolvedCubePath(const std::string& name) {
  const fs::path given(name);
  std::error_code error;
  if (given.is_absolute() || fs::exists(given, error)) return name;
  const std::shared_ptr<SVornContext> context = getVornContext();
  if (!context || context->dataFolder.empty()) return name;
  const fs::path inData = fs::path(context->dataFolder) / "LUTs" / given;
  return fs::exists(inData, error) ? inData.string() : name;
}

std::shared_ptr<const CubeLut> cachedCube(const std::string& name) {
  static CubeCache cache;
  return cache.find(resolvedCubePath(name));
}

}  // namespace vorn::detail
