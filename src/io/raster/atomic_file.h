#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace vorn::detail {

/// Writes a file so that `path` holds either its old content or the whole new one, never a part:
/// `write` fills a temporary file beside it, which is then renamed over it (removed on failure).
bool replaceFileAtomically(
    const std::string& path,
    const std::function<bool(const std::string& tempPath, std::string& reason)>& write,
    std::string& reason);
/// replaceFileAtomically for bytes already in memory.
bool writeFileAtomically(const std::string& path, const void* data, std::size_t size,
                         std::string& reason);
/// True when both paths name the same existing file (links and relative paths resolved).
bool isSameFile(const std::string& a, const std::string& b);

}  // namespace vorn::detail
