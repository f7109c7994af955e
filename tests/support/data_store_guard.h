#pragma once

#include <string>

#include "vorn/core/data_store.h"

namespace vorn::test {

/// Puts one DataStore key back as it was (value, or absence) when the guard goes out of scope,
/// so a test that changes a setting cannot leak it into the tests that run after it.
class DataStoreGuard {
 public:
  explicit DataStoreGuard(std::string key)
      : key_(std::move(key)),
        existed_(DataStore::instance().contains(key_)),
        value_(DataStore::instance().getString(key_, {})) {}
  ~DataStoreGuard() {
    if (existed_)
      DataStore::instance().set(key_, value_);
    else
      DataStore::instance().remove(key_);
  }
  DataStoreGuard(const DataStoreGuard&) = delete;
  DataStoreGuard& operator=(const DataStoreGuard&) = delete;

 private:
  std::string key_;
  bool existed_;
  std::string value_;
};

}  // namespace vorn::test
