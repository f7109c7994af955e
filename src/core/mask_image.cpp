#include "vorn/core/mask_image.h"
#include <algorithm>
#include <atomic>
#include <cstring>

#include "core/log_failure.h"
#include "core/parallel.h"

namespace vorn {
namespace {

constexpr std::size_t kGrain = std::size_t(64) << 10;

template <typename Body>
void forEachValue(MaskImage& mask, Body&& body) {
  float* values = mask.data;
  detail::parallelChunks(mask.area(), kGrain, [&](std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i) values[i] = body(values[i], i);
  });
}

}  // namespace

MaskImage::MaskImage(const float* values, _Size<int> size) : _ImageData<float>(size) {
  if (data && values) detail::parallelCopy(data, values, sizeInBytes());
}

MaskImage::MaskImage(_Size<int> size, float fill) : _ImageData<float>(size, fill) {}

void MaskImage::setFilled() {
  setFillWith(1.0f);
}

void MaskImage::setEmpty() {
  if (data) std::memset(data, 0, sizeInBytes());
}

void MaskImage::setFillWith(float value) {
  forEachValue(*this, [value](float, std::size_t) { return value; });
}

void MaskImage::invert() {
  forEachValue(*this, [](float v, std::size_t) { return 1.0f - v; });
}

void MaskImage::unionWithMask(const MaskImage& other) {
  if (other.size() != size()) {
    VORN_LOG_FAILURE("Different sizes.");
    return;
  }
  const float* theirs = other.data;
  forEachValue(*this, [theirs](float v, std::size_t i) { return std::max(v, theirs[i]); });
}

std::uint64_t MaskImage::zeroPixelsCount() const {
  const float* values = data;
  std::atomic<std::uint64_t> zeros{0};
  detail::parallelChunks(area(), kGrain, [&](std::size_t first, std::size_t end) {
    std::uint64_t count = 0;
    for (std::size_t i = first; i != end; ++i) count += values[i] == 0.0f;
    zeros.fetch_add(count, std::memory_order_relaxed);
  });
  return zeros.load(std::memory_order_relaxed);
}

std::shared_ptr<MaskImage> MaskImage::thumbnail(_Size<int> size) const {
  auto plane = _ImageData<float>::thumbnail(size);
  if (!plane) return {};
  return std::make_shared<MaskImage>(std::move(*plane));
}

void discretizeMask(const MaskImage& mask, std::vector<std::uint8_t>& out) {
  out.resize(mask.area());
  const float* values = mask.data;
  std::uint8_t* bytes = out.data();
  detail::parallelChunks(mask.area(), kGrain, [&](std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i) {
      // NaN fails the first test and becomes 0; truncation makes only 1.0 itself reach 255.
      float v = values[i] > 0.0f ? values[i] : 0.0f;
      v = v > 1.0f ? 1.0f : v;
      bytes[i] = static_cast<std::uint8_t>(v * 255.0f);
    }
  });
}

}  // namespace vorn
