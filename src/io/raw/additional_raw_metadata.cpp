#include "vorn/io/additional_raw_metadata.h"

#include <exception>

#include "core/log_failure.h"

namespace vorn {
namespace {

template <typename T>
T valueOf(const std::shared_ptr<IFuture<T>>& future) {
  T value{};
  if (!future) return value;
  try {
    if (future->hasValue()) future->get(value);
  } catch (...) {
    VORN_LOG_FAILURE("Obtaining auto detected values failed!");
    value = T{};
  }
  return value;
}

template <typename T>
void waitFor(const std::shared_ptr<IFuture<T>>& future) {
  if (!future) return;
  try {
    T ignored{};
    future->get(ignored);
  } catch (...) {
    VORN_LOG_FAILURE("Obtaining auto detected values failed!");
  }
}

}  // namespace

AdditionalRawMetadataSync::AdditionalRawMetadataSync(
    std::shared_ptr<const AdditionalRawMetadata> finished) {
  if (!finished) return;
  tone_ = finished->getAutoDetectedTone();
  ca_ = finished->getAutoDetectedCA();
  distortion_ = finished->getAutoDetectedDistortion();
}

AdditionalRawMetadata::AutoDetectedTone AdditionalRawMetadataSync::getAutoDetectedTone() const {
  return tone_;
}
AutoDetectedLensCorrection::ca_t AdditionalRawMetadataSync::getAutoDetectedCA() const {
  return ca_;
}
AutoDetectedLensCorrection::distortion_t AdditionalRawMetadataSync::getAutoDetectedDistortion()
    const {
  return distortion_;
}
void AdditionalRawMetadataSync::removeCAdata() {
  ca_ = {};
}

void AdditionalRawMetadataAsync::scheduleTone(std::shared_ptr<IFuture<AutoDetectedTone>> future) {
  std::lock_guard lock(mutex_);
  tone_ = std::move(future);
}
void AdditionalRawMetadataAsync::scheduleCA(
    std::shared_ptr<IFuture<AutoDetectedLensCorrection::ca_t>> future) {
  std::lock_guard lock(mutex_);
  ca_ = std::move(future);
}
void AdditionalRawMetadataAsync::scheduleDistortion(
    std::shared_ptr<IFuture<AutoDetectedLensCorrection::distortion_t>> future) {
  std::lock_guard lock(mutex_);
  distortion_ = std::move(future);
}

// Each getter copies its future's pointer so that get() never runs under the mutex.
AdditionalRawMetadata::AutoDetectedTone AdditionalRawMetadataAsync::getAutoDetectedTone() const {
  std::unique_lock lock(mutex_);
  auto future = tone_;
  lock.unlock();
  return valueOf(future);
}
AutoDetectedLensCorrection::ca_t AdditionalRawMetadataAsync::getAutoDetectedCA() const {
  std::unique_lock lock(mutex_);
  auto future = ca_;
  lock.unlock();
  return valueOf(future);
}
AutoDetectedLensCorrection::distortion_t AdditionalRawMetadataAsync::getAutoDetectedDistortion()
    const {
  std::unique_lock lock(mutex_);
  auto future = distortion_;
  lock.unlock();
  return valueOf(future);
}

void AdditionalRawMetadataAsync::removeCAdata() {
  std::lock_guard lock(mutex_);
  ca_.reset();
}

void AdditionalRawMetadataAsync::wait() const {
  std::unique_lock lock(mutex_);
  auto tone = tone_;
  auto ca = ca_;
  auto distortion = distortion_;
  lock.unlock();
  waitFor(tone);
  waitFor(ca);
  waitFor(distortion);
}

}  // namespace vorn
