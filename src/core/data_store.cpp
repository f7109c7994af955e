#include "vorn/core/data_store.h"

// The JSON parser still pulls in the old bind header, which otherwise prints a deprecation note.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "vorn/core/file_utils.h"

namespace vorn {

namespace {

using Values = std::map<std::string, std::string>;

// A settings file is a few hundred bytes; anything this large is not one.
constexpr std::uintmax_t kMaxSettingsFileBytes = 4u << 20;
// The JSON parser recurses per nesting level, so deep nesting is refused before it runs.
constexpr int kMaxNesting = 64;

bool nestingWithinLimit(const std::string& text) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      if (++depth > kMaxNesting) return false;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return true;
}

// Array elements have empty keys in a property tree; their index stands in for the key.
void flatten(const boost::property_tree::ptree& node, const std::string& prefix, Values& out) {
  if (node.empty()) {
    if (!prefix.empty()) out[prefix] = node.data();
    return;
  }
  std::size_t index = 0;
  for (const auto& [key, child] : node) {
    const std::string part = key.empty() ? std::to_string(index) : key;
    ++index;
    flatten(child, prefix.empty() ? part : prefix + "." + part, out);
  }
}

/// Reads and flattens the file; returns the error text, empty on success.
std::string readSettings(const std::string& path, Values& values) {
  const std::string failure = "DataStore: Settings file " + path + " could not be read (";
  const std::string tail = "); defaults are used";
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) return failure + "no such file" + tail;
  const std::uintmax_t size = std::filesystem::file_size(path, ec);
  if (ec) return failure + ec.message() + tail;
  if (size > kMaxSettingsFileBytes) {
    return failure + "size " + std::to_string(size) + " bytes is too large" + tail;
  }
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  if (!file) return failure + "read error" + tail;
  const std::string text = content.str();
  if (!nestingWithinLimit(text)) return failure + "nested too deeply" + tail;
  try {
    std::istringstream input(text);
    boost::property_tree::ptree tree;
    boost::property_tree::read_json(input, tree);
    flatten(tree, "", values);
  } catch (const boost::property_tree::json_parser_error& error) {
    return failure + error.message() + " at line " + std::to_string(error.line()) + tail;
  } catch (const std::exception& error) {
    return failure + error.what() + tail;
  }
  return {};
}

template <typename T>
bool parseNumber(const std::string& text, T& value) {
  const char* first = text.data();
  const char* last = first + text.size();
  const auto [end, error] = std::from_chars(first, last, value);
  return error == std::errc() && end == last;
}

}  // namespace

DataStore& DataStore::instance() {
  // Never destroyed: threads that log during process exit still read their settings.
  static DataStore* const store = new DataStore();
  return *store;
}

bool DataStore::loadFromFile(const std::string& path) {
  Values values;
  std::string error = readSettings(path, values);
  std::unique_lock lock(mutex_);
  if (error.empty()) {
    values_ = std::move(values);
  } else {
    values_.clear();
  }
  lastLoadError_ = std::move(error);
  loadErrorReported_ = false;
  return lastLoadError_.empty();
}

bool DataStore::loadFromFolder(const std::string& dataFolder) {
  return loadFromFile(AppendPath(dataFolder, kSettingsFileName));
}

std::string DataStore::lastLoadError() const {
  std::shared_lock lock(mutex_);
  return lastLoadError_;
}

std::string DataStore::takeUnreportedLoadError() {
  std::unique_lock lock(mutex_);
  if (loadErrorReported_ || lastLoadError_.empty()) return {};
  loadErrorReported_ = true;
  return lastLoadError_;
}

bool DataStore::getBool(const std::string& key, bool defaultValue) const {
  std::string text = getString(key, {});
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (text == "true" || text == "1") return true;
  if (text == "false" || text == "0") return false;
  return defaultValue;
}

int DataStore::getInt(const std::string& key, int defaultValue) const {
  int value = 0;
  return parseNumber(getString(key, {}), value) ? value : defaultValue;
}

float DataStore::getFloat(const std::string& key, float defaultValue) const {
  // Non-finite settings are treated as wrongly typed: no setting means NaN or infinity.
  float value = 0.0f;
  return parseNumber(getString(key, {}), value) && std::isfinite(value) ? value : defaultValue;
}

std::string DataStore::getString(const std::string& key, const std::string& defaultValue) const {
  std::shared_lock lock(mutex_);
  const auto found = values_.find(key);
  return found == values_.end() ? defaultValue : found->second;
}

bool DataStore::contains(const std::string& key) const {
  std::shared_lock lock(mutex_);
  return values_.count(key) != 0;
}

void DataStore::set(const std::string& key, const std::string& value) {
  std::unique_lock lock(mutex_);
  values_[key] = value;
}

void DataStore::set(const std::string& key, bool value) {
  set(key, value ? "true" : "false");
}

void DataStore::set(const std::string& key, int value) {
  set(key, std::to_string(value));
}

void DataStore::set(const std::string& key, float value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  set(key, std::string(buffer, result.ptr));
}

void DataStore::remove(const std::string& key) {
  std::unique_lock lock(mutex_);
  values_.erase(key);
}

void DataStore::clear() {
  std::unique_lock lock(mutex_);
  values_.clear();
  lastLoadError_.clear();
  loadErrorReported_ = false;
}

}  // namespace vorn
