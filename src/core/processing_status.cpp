#include "vorn/core/processing_status.h"

namespace vorn {

const char* ImageProcessingStatus::cancelException::what() const noexcept {
  return "Processing cancelled";
}

ImageProcessingStatus::ImageProcessingStatus(std::shared_ptr<bool> flag)
    : flag_(flag ? std::move(flag) : std::make_shared<bool>(false)) {}

void ImageProcessingStatus::cancel() {
  requestCancel(flag_.get());
}

bool ImageProcessingStatus::isCancelled() const {
  return isCancelRequested(flag_.get());
}

void ImageProcessingStatus::throwIfCancelled() const {
  if (isCancelled()) throw cancelException();
}

}  // namespace vorn
