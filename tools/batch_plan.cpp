#include "batch_plan.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exiv2/exiv2.hpp>
#include <filesystem>
#include <istream>
#include <map>
#include <set>

#include "apply_options.h"
#include "vorn/core/file_utils.h"
#include "vorn/io/exif_reader.h"
#include "vorn/io/image_file_class.h"

namespace vorn::cli {

const char* const kBatchUsage =
    "usage: vorn batch INPUT... -o DIR [--preset FILE.json]... [-j N] [--name TEMPLATE]\n"
    "                  [--recursive] [--overwrite | --skip-existing] [--format jpg|tif]\n"
    "                  [--shard K/N] [--json] [--quality 1-100] [--in-process]\n"
    "  INPUT is a file, a folder (its raw, JPEG and TIFF files) or - (paths on standard input).\n"
    "  TEMPLATE knows {stem} {ext} {index} {date} {format}; default \"{stem}.{format}\".\n"
    "  An existing output is never replaced without --overwrite.\n"
    "  Raw files decode in loader children (a crash fails that file only); --in-process\n"
    "  decodes them in this process.\n";

namespace {

namespace fs = std::filesystem;

bool parseShard(const std::string& text, int& shard, int& count) {
  const std::size_t slash = text.find('/');
  if (slash == std::string::npos) return false;
  return parseInt(text.substr(0, slash), 1, 1 << 20, shard) &&
         parseInt(text.substr(slash + 1), 1, 1 << 20, count) && shard <= count;
}

bool parseValue(const std::string& option, const std::string& value, BatchOptions& options,
                std::string& error) {
  bool valid = true;
  if (option == "-o" || option == "--output") {
    options.outputFolder = value;
  } else if (option == "--preset") {
    options.presets.push_back(value);
  } else if (option == "-j" || option == "--jobs") {
    valid = parseInt(value, 1, 64, options.jobs);
  } else if (option == "--name") {
    options.nameTemplate = value;
    valid = checkNameTemplate(value, error);
    if (!valid) return false;
  } else if (option == "--format") {
    valid = value == "jpg" || value == "tif";
    if (valid) options.format = value;
  } else if (option == "--shard") {
    valid = parseShard(value, options.shard, options.shardCount);
  } else if (option == "--quality") {
    valid = parseInt(value, 1, 100, options.quality);
  } else {
    error = "unknown option \"" + option + "\"";
    return false;
  }
  if (!valid) error = "bad value \"" + value + "\" for " + option;
  return valid;
}

bool isValueOption(const std::string& word) {
  static const std::set<std::string> kOptions = {
      "-o", "--output", "--preset", "-j", "--jobs", "--name", "--format", "--shard", "--quality"};
  return kOptions.count(word) > 0;
}

bool isSupportedImage(const fs::path& path) {
  return imageFileFormatOfExtension(getFileExtension(path.string())) != ImageFileFormat::Unknown;
}

// A folder's supported files; hidden ones (our own temporary outputs among them) are left out.
template <typename Iterator>
bool listFolder(const fs::path& folder, std::vector<std::string>& files, std::string& error) {
  std::error_code code;
  Iterator it(folder, fs::directory_options::skip_permission_denied, code);
  for (; !code && it != Iterator(); it.increment(code)) {
    const fs::path& path = it->path();
    std::error_code ignored;
    if (path.filename().string().starts_with('.') || !it->is_regular_file(ignored)) continue;
    if (isSupportedImage(path)) files.push_back(path.lexically_normal().string());
  }
  if (code) error = folder.string() + ": cannot be listed: " + code.message();
  return !code;
}

bool addInput(const std::string& input, bool recursive, std::vector<std::string>& files,
              std::string& error) {
  std::error_code ignored;
  if (!fs::is_directory(input, ignored)) {
    // A named file is taken as it is: when it is missing or unreadable its render says so.
    files.push_back(fs::path(input).lexically_normal().string());
    return true;
  }
  return recursive ? listFolder<fs::recursive_directory_iterator>(input, files, error)
                   : listFolder<fs::directory_iterator>(input, files, error);
}

// Calls `field(name)` for each {name} and `literal(text)` between them; false on a stray brace.
template <typename Field, typename Literal>
bool walkTemplate(const std::string& text, Field&& field, Literal&& literal) {
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t open = text.find_first_of("{}", at);
    if (open == std::string::npos || text[open] == '}') {
      if (open != std::string::npos) return false;
      literal(text.substr(at));
      return true;
    }
    const std::size_t close = text.find('}', open);
    if (close == std::string::npos) return false;
    literal(text.substr(at, open - at));
    if (!field(text.substr(open + 1, close - open - 1))) return false;
    at = close + 1;
  }
  return true;
}

const std::set<std::string>& templateFields() {
  static const std::set<std::string> kFields = {"stem", "ext", "index", "date", "format"};
  return kFields;
}

std::string exifDay(const std::string& file) {
  const std::shared_ptr<const Exiv2::ExifData> exif = readExifData(file);
  if (!exif) return {};
  for (const char* key : {"Exif.Photo.DateTimeOriginal", "Exif.Image.DateTime"}) {
    const auto found = exif->findKey(Exiv2::ExifKey(key));
    if (found == exif->end()) continue;
    // EXIF writes "YYYY:MM:DD HH:MM:SS"; a blank or short value is as good as none.
    std::string text = found->toString();
    if (text.size() < 10 || text[0] == ' ' || text.starts_with("0000")) continue;
    text = text.substr(0, 10);
    std::replace(text.begin(), text.end(), ':', '-');
    return text;
  }
  return {};
}

}  // namespace

bool parseBatchOptions(const std::vector<std::string>& args, BatchOptions& options,
                       std::string& error) {
  bool overwrite = false, skip = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (word == "--recursive" || word == "-r") {
      options.recursive = true;
    } else if (word == "--overwrite") {
      overwrite = true;
    } else if (word == "--skip-existing") {
      skip = true;
    } else if (word == "--json") {
      options.json = true;
    } else if (word == "--in-process") {
      options.inProcess = true;
    } else if (isValueOption(word)) {
      if (i + 1 >= args.size()) {
        error = word + " needs a value";
        return false;
      }
      if (!parseValue(word, args[++i], options, error)) return false;
    } else if (word.size() > 1 && word[0] == '-') {
      error = "unknown option \"" + word + "\"";
      return false;
    } else {
      options.inputs.push_back(word);
    }
  }
  if (overwrite && skip)
    error = "--overwrite and --skip-existing exclude each other";
  else if (options.inputs.empty())
    error = "no input given";
  else if (options.outputFolder.empty())
    error = "no output folder given (-o DIR)";
  if (!error.empty()) return false;
  options.existing =
      overwrite ? ExistingOutput::Overwrite : (skip ? ExistingOutput::Skip : ExistingOutput::Fail);
  return true;
}

bool collectBatchInputs(const std::vector<std::string>& inputs, bool recursive, std::istream& in,
                        std::vector<std::string>& files, std::string& error) {
  files.clear();
  for (const std::string& input : inputs) {
    if (input != "-") {
      if (!addInput(input, recursive, files, error)) return false;
      continue;
    }
    for (std::string line; std::getline(in, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (!line.empty() && !addInput(line, recursive, files, error)) return false;
    }
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  // The same file under two spellings ("a.jpg", "./x/../a.jpg" or a link) is rendered once.
  std::set<std::string> seen;
  std::erase_if(files, [&](const std::string& file) {
    std::error_code code;
    const fs::path canonical = fs::weakly_canonical(file, code);
    return !seen.insert(code ? file : canonical.string()).second;
  });
  return true;
}

std::vector<std::size_t> shardPositions(std::size_t count, int shard, int shardCount) {
  std::vector<std::size_t> positions;
  if (shard < 1 || shardCount < 1 || shard > shardCount) return positions;
  for (std::size_t i = static_cast<std::size_t>(shard - 1); i < count;
       i += static_cast<std::size_t>(shardCount))
    positions.push_back(i);
  return positions;
}

bool checkNameTemplate(const std::string& nameTemplate, std::string& error) {
  std::string unknown;
  const bool balanced = walkTemplate(
      nameTemplate,
      [&](const std::string& name) {
        if (templateFields().count(name)) return true;
        unknown = name;
        return false;
      },
      [](const std::string&) {});
  if (!unknown.empty())
    error = "the name template has an unknown field {" + unknown + "}";
  else if (!balanced)
    error = "the name template has an unmatched brace";
  else if (nameTemplate.find('/') != std::string::npos)
    error = "the name template must not contain a slash";
  else if (nameTemplate.empty())
    error = "the name template is empty";
  return error.empty();
}

std::string captureDateOf(const std::string& file) {
  if (std::string day = exifDay(file); !day.empty()) return day;
  std::error_code code;
  const fs::file_time_type stamp = fs::last_write_time(file, code);
  if (code) return {};
  const std::time_t seconds = std::chrono::system_clock::to_time_t(
      std::chrono::time_point_cast<std::chrono::system_clock::duration>(
          std::chrono::file_clock::to_sys(stamp)));
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[16];
  std::strftime(text, sizeof text, "%Y-%m-%d", &local);
  return text;
}

std::string outputNameFor(const std::string& nameTemplate, const std::string& file,
                          std::size_t position, std::size_t count, const std::string& format) {
  const fs::path path(file);
  std::string name;
  walkTemplate(
      nameTemplate,
      [&](const std::string& field) {
        if (field == "stem") {
          name += path.stem().string();
        } else if (field == "ext") {
          const std::string dotted = path.extension().string();
          name += dotted.empty() ? dotted : dotted.substr(1);
        } else if (field == "format") {
          name += format;
        } else if (field == "date") {
          const std::string day = captureDateOf(file);
          name += day.empty() ? "undated" : day;
        } else if (field == "index") {
          const std::string digits = std::to_string(position + 1);
          const std::size_t width = std::to_string(count).size();
          name += std::string(width > digits.size() ? width - digits.size() : 0, '0') + digits;
        }
        return true;
      },
      [&](const std::string& text) { name += text; });
  // The format decides the encoder, so the name must carry one of its extensions.
  const std::string extension = getFileExtension(name);
  const bool matches = format == "jpg" ? (extension == "jpg" || extension == "jpeg")
                                       : (extension == "tif" || extension == "tiff");
  if (!matches) name += "." + format;
  return name;
}

bool planOutputNames(const std::vector<std::string>& files, const std::string& nameTemplate,
                     const std::string& format, std::vector<std::string>& names,
                     std::string& error) {
  names.clear();
  std::map<std::string, std::size_t> taken;
  for (std::size_t i = 0; i < files.size(); ++i) {
    names.push_back(outputNameFor(nameTemplate, files[i], i, files.size(), format));
    const auto [at, fresh] = taken.emplace(names.back(), i);
    if (!fresh) {
      error = files[at->second] + " and " + files[i] + " would both be written to " + names.back() +
              " (use {index} or {ext} in --name)";
      return false;
    }
  }
  return true;
}

}  // namespace vorn::cli
