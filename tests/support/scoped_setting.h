#pragma once

#include <string>

#include "vorn/core/data_store.h"

namespace vorn::test {

/// Sets a settings key for the scope; the old value (or an empty one, which reads as the
/// default, when there was none) comes back on exit.
class ScopedSetting {
 public:
  ScopedSetting(std::string key, const std::string& value)
      : key_(std::move(key)), previous_(DataStore::instance().getString(key_, {})) {
    DataStore::instance().set(key_, value);
  }
  ~ScopedSetting() { DataStore::instance().set(key_, previous_); }
  ScopedSetting(const ScopedSetting&) = delete;
  ScopedSetting& operator=(const ScopedSetting&) = delete;

 private:
  std::string key_;
  std::string previous_;
};

}  // namespace vorn::test
