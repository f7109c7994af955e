#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace vorn {

/// An owned byte buffer, immutable once built.
class Blob {
 public:
  Blob() = default;
  /// Copies n bytes from data (nothing is read when n is 0).
  Blob(const void* data, std::size_t n);
  /// Takes the array as it is.
  Blob(std::unique_ptr<std::uint8_t[]> bytes, std::size_t n) noexcept;
  Blob(const Blob& other);
  Blob(Blob&& other) noexcept;
  Blob& operator=(const Blob& other);
  Blob& operator=(Blob&& other) noexcept;
  ~Blob() = default;

  const void* data() const { return bytes_.get(); }
  const std::uint8_t* bytes() const { return bytes_.get(); }
  std::size_t size() const { return size_; }
  std::size_t length() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::size_t size_ = 0;
};

}  // namespace vorn
