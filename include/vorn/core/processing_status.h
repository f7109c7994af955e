#pragma once

#include <exception>
#include <memory>

namespace vorn {

/// The cancellation state of one render, shared between the thread that drives it and the one
/// that may stop it. Long effects poll the flag and throw cancelException to unwind.
class ImageProcessingStatus {
 public:
  /// Raised inside a render whose flag was set; the driver of the render catches it.
  class cancelException : public std::exception {
   public:
    const char* what() const noexcept override;
  };

  /// Shares `flag` (a new, clear one when empty).
  explicit ImageProcessingStatus(std::shared_ptr<bool> flag = {});

  /// Sets the flag; safe from any thread.
  void cancel();
  bool isCancelled() const;
  /// Throws cancelException when the flag is set.
  void throwIfCancelled() const;
  /// The flag itself, for EffectCallContext::cancel and ImageProcessorSettings.
  std::shared_ptr<bool> flag() const { return flag_; }

 private:
  std::shared_ptr<bool> flag_;
};

/// Reads a cancel flag that another thread may set at any time; a null flag is never set.
inline bool isCancelRequested(const bool* flag) {
  return flag != nullptr && __atomic_load_n(flag, __ATOMIC_RELAXED);
}

/// Sets a cancel flag so that readers on other threads see it (a plain store would race).
inline void requestCancel(bool* flag) {
  if (flag) __atomic_store_n(flag, true, __ATOMIC_RELAXED);
}

}  // namespace vorn
