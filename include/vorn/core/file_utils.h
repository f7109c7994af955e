#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vorn {

/// File-system helpers on std::filesystem; none throws, failures return false or empty.
bool IsFileExist(const std::string& path);
bool IsDirExist(const std::string& path);
/// Creates the folder and its missing parents; true when it exists afterwards.
bool CreateDir(const std::string& path);
/// Regular files directly inside the folder, as full paths sorted by name.
std::vector<std::string> ListFiles(const std::string& folder);
bool CopyFileTo(const std::string& from, const std::string& to, bool overwrite);
/// Moves a file; falls back to copy and delete across file systems.
bool RenameFile(const std::string& from, const std::string& to);
bool DeleteFile(const std::string& path);
/// Deletes all but the n most recently modified regular files of the folder.
bool LeaveNLastFilesInDstPath(std::size_t n, const std::string& folder);
/// Joins two path parts with one separator.
std::string AppendPath(const std::string& base, const std::string& part);
/// The extension without the dot, lower-cased ("IMG.JPG" gives "jpg"); empty when none.
std::string getFileExtension(const std::string& path);

}  // namespace vorn
