#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace vorn::cli {

/// What `vorn batch` does with an output that is there already.
enum class ExistingOutput { Fail, Overwrite, Skip };

/// The arguments of `vorn batch`, as parsed; nothing is opened here.
struct BatchOptions {
  std::vector<std::string> inputs;  ///< files, folders or "-" for paths on standard input
  std::string outputFolder;
  std::vector<std::string> presets;  ///< stacked in the order given
  int jobs = 0;                      ///< 0: the default chosen by the command
  std::string nameTemplate = "{stem}.{format}";
  bool recursive = false;
  ExistingOutput existing = ExistingOutput::Fail;
  std::string format = "jpg";
  int shard = 1;  ///< 1-based, of shardCount
  int shardCount = 1;
  bool json = false;
  int quality = 92;
  bool inProcess = false;  ///< raw files decode in this process, not in loader children
};

/// The usage lines of `vorn batch`.
extern const char* const kBatchUsage;

/// Parses the words after `batch`; false and `error` naming the bad word or combination.
bool parseBatchOptions(const std::vector<std::string>& args, BatchOptions& options,
                       std::string& error);

/// Files named by `inputs` (folders give their supported image files, all levels when
/// `recursive`; "-" reads one path a line from `in`), sorted with duplicates removed so that
/// every run over the same inputs sees the same list; false and `error` for an unlistable folder.
bool collectBatchInputs(const std::vector<std::string>& inputs, bool recursive, std::istream& in,
                        std::vector<std::string>& files, std::string& error);

/// Positions (0-based) in a list of `count` files that shard `shard` of `shardCount` takes:
/// every shardCount-th file, so each shard gets a mix of the folders.
std::vector<std::size_t> shardPositions(std::size_t count, int shard, int shardCount);

/// False and `error` for a name template with an unknown field, an unclosed brace or a slash.
bool checkNameTemplate(const std::string& nameTemplate, std::string& error);

/// The output name of files[position] under the template; {index} counts from 1, padded to the
/// width of the list's length. A name whose extension is not the format's gets it appended.
std::string outputNameFor(const std::string& nameTemplate, const std::string& file,
                          std::size_t position, std::size_t count, const std::string& format);

/// The capture date (YYYY-MM-DD) from the file's EXIF, else its modification day; empty when
/// the file cannot be read.
std::string captureDateOf(const std::string& file);

/// Output names of every file; false and `error` naming two inputs that would share a name.
bool planOutputNames(const std::vector<std::string>& files, const std::string& nameTemplate,
                     const std::string& format, std::vector<std::string>& names,
                     std::string& error);

}  // namespace vorn::cli
