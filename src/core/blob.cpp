#include "vorn/core/blob.h"

#include <cstring>

namespace vorn {

Blob::Blob(const void* data, std::size_t n) : size_(n) {
  if (n == 0) return;
  bytes_ = std::make_unique_for_overwrite<std::uint8_t[]>(n);
  std::memcpy(bytes_.get(), data, n);
}

Blob::Blob(std::unique_ptr<std::uint8_t[]> bytes, std::size_t n) noexcept
    : bytes_(std::move(bytes)), size_(n) {}

Blob::Blob(const Blob& other) : Blob(other.data(), other.size()) {}

Blob::Blob(Blob&& other) noexcept : bytes_(std::move(other.bytes_)), size_(other.size_) {}

Blob& Blob::operator=(const Blob& other) {
  if (this != &other) *this = Blob(other);
  return *this;
}

Blob& Blob::operator=(Blob&& other) noexcept {
  bytes_ = std::move(other.bytes_);
  size_ = other.size_;
  return *this;
}

}  // namespace vorn
