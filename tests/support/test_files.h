#pragma once

#include <filesystem>
#include <string>

namespace vorn::test {

/// A file of ../shared/samples/<folder> beside the repository; empty when it is absent.
inline std::string sharedSample(const std::string& folder, const std::string& name) {
  const std::filesystem::path path =
      std::filesystem::path(VORN_SOURCE_DIR) / ".." / "shared" / "samples" / folder / name;
  return std::filesystem::exists(path) ? path.lexically_normal().string() : std::string();
}

/// A file kept with the tests in tests/data.
inline std::string testData(const std::string& name) {
  return (std::filesystem::path(VORN_SOURCE_DIR) / "tests" / "data" / name).string();
}

}  // namespace vorn::test
