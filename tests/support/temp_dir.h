#pragma once

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>

namespace vorn::test {

/// A fresh folder under the system temp folder, removed with everything in it on destruction.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "vorn") {
    static std::atomic<int> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            (prefix + "_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string str() const { return path_.string(); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace vorn::test
