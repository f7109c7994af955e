#pragma once

#include <atomic>

namespace vorn {

/// A flag several threads may set and read; copies take the current value.
class SharedFlag {
 public:
  explicit SharedFlag(bool value = false) : value_(value) {}
  SharedFlag(const SharedFlag& other) : value_(other.get()) {}
  SharedFlag& operator=(const SharedFlag& other) {
    set(other.get());
    return *this;
  }
  bool get() const { return value_.load(std::memory_order_acquire); }
  void set(bool value) { value_.store(value, std::memory_order_release); }

 private:
  std::atomic<bool> value_;
};

}  // namespace vorn
