#pragma once

#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace vorn {

/// The key-value settings store ("Logger.Verbosity", ...), read with defaults. Thread-safe.
class DataStore {
 public:
  /// Name of the settings file inside the application data folder.
  static constexpr const char* kSettingsFileName = "vorn_settings.json";

  static DataStore& instance();

  /// Replaces every value by those of a JSON file whose nested objects form dotted keys.
  /// On a missing or unreadable file the values are cleared (defaults apply) and false returned.
  bool loadFromFile(const std::string& path);
  /// Loads kSettingsFileName from the folder.
  bool loadFromFolder(const std::string& dataFolder);
  /// The reason the last load failed, empty after a good one.
  std::string lastLoadError() const;
  /// The last load error the first time it is asked for, so the log reports it once.
  std::string takeUnreportedLoadError();

  bool getBool(const std::string& key, bool defaultValue) const;
  int getInt(const std::string& key, int defaultValue) const;
  float getFloat(const std::string& key, float defaultValue) const;
  std::string getString(const std::string& key, const std::string& defaultValue) const;
  bool contains(const std::string& key) const;

  void set(const std::string& key, const std::string& value);
  void set(const std::string& key, const char* value) { set(key, std::string(value)); }
  void set(const std::string& key, bool value);
  void set(const std::string& key, int value);
  void set(const std::string& key, float value);
  /// Removes the key, so reads give their defaults again.
  void remove(const std::string& key);
  void clear();

 private:
  DataStore() = default;
  mutable std::shared_mutex mutex_;
  std::map<std::string, std::string> values_;
  std::string lastLoadError_;
  bool loadErrorReported_ = false;
};

}  // namespace vorn
