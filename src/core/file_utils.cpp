#include "vorn/core/file_utils.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

namespace vorn {

namespace fs = std::filesystem;

bool IsFileExist(const std::string& path) {
  std::error_code ec;
  return !path.empty() && fs::is_regular_file(path, ec);
}

bool IsDirExist(const std::string& path) {
  std::error_code ec;
  return !path.empty() && fs::is_directory(path, ec);
}

bool CreateDir(const std::string& path) {
  if (path.empty()) return false;
  std::error_code ec;
  fs::create_directories(path, ec);
  return fs::is_directory(path, ec);
}

std::vector<std::string> ListFiles(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code entryError;
    if (it->is_regular_file(entryError)) files.push_back(it->path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool CopyFileTo(const std::string& from, const std::string& to, bool overwrite) {
  std::error_code ec;
  if (!fs::is_regular_file(from, ec)) return false;
  const auto options = overwrite ? fs::copy_options::overwrite_existing : fs::copy_options::none;
  return fs::copy_file(from, to, options, ec) && !ec;
}

bool RenameFile(const std::string& from, const std::string& to) {
  std::error_code ec;
  if (!fs::is_regular_file(from, ec)) return false;
  fs::rename(from, to, ec);
  if (!ec) return true;
  // Across file systems rename fails; a copy that is then deleted moves the file all the same.
  if (!CopyFileTo(from, to, true)) return false;
  return DeleteFile(from);
}

bool DeleteFile(const std::string& path) {
  std::error_code ec;
  if (path.empty() || fs::is_directory(path, ec)) return false;
  return fs::remove(path, ec) && !ec;
}

bool LeaveNLastFilesInDstPath(std::size_t n, const std::string& folder) {
  struct Entry {
    fs::file_time_type time;
    std::string path;
  };
  std::vector<Entry> entries;
  std::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) return false;
  for (const fs::directory_iterator end; !ec && it != end; it.increment(ec)) {
    std::error_code entryError;
    if (!it->is_regular_file(entryError)) continue;
    const auto time = it->last_write_time(entryError);
    if (!entryError) entries.push_back({time, it->path().string()});
  }
  if (ec) return false;
  if (entries.size() <= n) return true;
  // Newest first; among equal times the greater name counts as the newer.
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return a.time != b.time ? a.time > b.time : a.path > b.path;
  });
  bool allDeleted = true;
  for (std::size_t i = n; i < entries.size(); ++i)
    allDeleted = DeleteFile(entries[i].path) && allDeleted;
  return allDeleted;
}

std::string AppendPath(const std::string& base, const std::string& part) {
  if (base.empty()) return part;
  const auto baseEnd = base.find_last_not_of('/');
  const auto partStart = part.find_first_not_of('/');
  const std::string head =
      baseEnd == std::string::npos ? std::string() : base.substr(0, baseEnd + 1);
  const std::string tail = partStart == std::string::npos ? std::string() : part.substr(partStart);
  if (tail.empty()) return baseEnd == std::string::npos ? std::string("/") : head;
  return head + '/' + tail;
}

std::string getFileExtension(const std::string& path) {
  std::string extension = fs::path(path).extension().string();
  if (!extension.empty() && extension.front() == '.') extension.erase(0, 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

}  // namespace vorn
