#include "vorn/core/image_data.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include "core/image_data_internal.h"
#include "core/kernels.h"
#include "core/log_failure.h"
#include "core/parallel.h"
#include "core/pixel_traits.h"
#include "vorn/core/memory_manager.h"

namespace vorn {

namespace detail {

std::optional<_Rect<int>> clipToImage(const _Rect<int>& roi, _Size<int> size) {
  const long long left = std::max<long long>(roi.x, 0);
  const long long top = std::max<long long>(roi.y, 0);
  const long long right =
      std::min<long long>(static_cast<long long>(roi.x) + roi.width, size.width);
  const long long bottom =
      std::min<long long>(static_cast<long long>(roi.y) + roi.height, size.height);
  if (right - left < 1 || bottom - top < 1) return std::nullopt;
  return _Rect<int>(static_cast<int>(left), static_cast<int>(top), static_cast<int>(right - left),
                    static_cast<int>(bottom - top));
}

bool liesInside(const _Rect<int>& roi, _Size<int> size) {
  return roi.x >= 0 && roi.y >= 0 && roi.width >= 0 && roi.height >= 0 &&
         static_cast<long long>(roi.x) + roi.width <= size.width &&
         static_cast<long long>(roi.y) + roi.height <= size.height;
}

}  // namespace detail

namespace {

template <typename T>
void copyRows(const _ImageData<T>& src, const _Rect<int>& from, _ImageData<T>& dst, int dstX,
              int dstY) {
  const std::size_t rowBytes = static_cast<std::size_t>(from.width) * sizeof(T);
  if (from.width == src.width && from.width == dst.width && dstX == 0) {
    detail::parallelCopy(dst.row(dstY), src.row(from.y), rowBytes * from.height);
    return;
  }
  detail::parallelRows(from.height, [&](int first, int end) {
    for (int y = first; y < end; ++y)
      std::memcpy(dst.row(dstY + y) + dstX, src.row(from.y + y) + from.x, rowBytes);
  });
}

}  // namespace

template <typename T>
void _ImageData<T>::allocate(_Size<int> size) {
  if (size.width < 0 || size.height < 0) {
    char text[96];
    std::snprintf(text, sizeof text, "Invalid size %d x %d, the buffer is left empty", size.width,
                  size.height);
    VORN_LOG_FAILURE(text);
    size = _Size<int>();
  }
  width = size.width;
  height = size.height;
  data = nullptr;
  if (area() == 0) return;
  data = reinterpret_cast<T*>(MemoryManager::instance().allocate(sizeInBytes(), false));
  if (!data) {
    width = height = 0;
    throw std::bad_alloc();
  }
}

template <typename T>
void _ImageData<T>::release() {
  if (data) MemoryManager::instance().free(reinterpret_cast<std::uint8_t*>(data));
  data = nullptr;
  width = height = 0;
}

template <typename T>
_ImageData<T>::_ImageData(_Size<int> size, std::shared_ptr<ColorProfile> profile)
    : colorProfile(std::move(profile)) {
  allocate(size);
}

template <typename T>
_ImageData<T>::_ImageData(_Size<int> size, const T& fill, std::shared_ptr<ColorProfile> profile)
    : colorProfile(std::move(profile)) {
  allocate(size);
  fillRect(fill);
}

template <typename T>
_ImageData<T>::_ImageData(const _ImageData& other)
    : colorProfile(other.colorProfile), loadState(other.loadState) {
  allocate(other.size());
  if (data) detail::parallelCopy(data, other.data, sizeInBytes());
}

template <typename T>
_ImageData<T>::_ImageData(_ImageData&& other) noexcept
    : width(other.width),
      height(other.height),
      data(other.data),
      colorProfile(std::move(other.colorProfile)),
      loadState(other.loadState) {
  other.data = nullptr;
  other.width = other.height = 0;
}

template <typename T>
_ImageData<T>& _ImageData<T>::operator=(const _ImageData& other) {
  if (this == &other) return *this;
  if (size() != other.size()) {
    release();
    allocate(other.size());
  }
  if (data) detail::parallelCopy(data, other.data, sizeInBytes());
  colorProfile = other.colorProfile;
  loadState = other.loadState;
  return *this;
}

template <typename T>
_ImageData<T>& _ImageData<T>::operator=(_ImageData&& other) noexcept {
  if (this == &other) return *this;
  release();
  width = other.width;
  height = other.height;
  data = other.data;
  colorProfile = std::move(other.colorProfile);
  loadState = other.loadState;
  other.data = nullptr;
  other.width = other.height = 0;
  return *this;
}

template <typename T>
_ImageData<T>::~_ImageData() {
  release();
}

template <typename T>
bool _ImageData<T>::isSameType(const _ImageData& other) const {
  if (size() != other.size()) return false;
  if (colorProfile == other.colorProfile) return true;
  if (!colorProfile || !other.colorProfile) return false;
  return *colorProfile == *other.colorProfile;
}

template <typename T>
std::shared_ptr<_ImageData<T>> _ImageData<T>::copy(const _Rect<int>& roi) const {
  if (roi.isZero() || roi == rect()) return std::make_shared<_ImageData>(*this);
  const auto clipped = detail::clipToImage(roi, size());
  if (!clipped) {
    VORN_LOG_FAILURE("Roi rect is outside the ImageData");
    return {};
  }
  auto result = std::make_shared<_ImageData>(clipped->size(), colorProfile);
  copyRows(*this, *clipped, *result, 0, 0);
  result->loadState = loadState;
  return result;
}

template <typename T>
void _ImageData<T>::copyTo(std::shared_ptr<_ImageData>& dst, const _Rect<int>& roi) const {
  if (dst.get() == this) return;
  if (dst && dst->size() == size()) {
    // A same-sized destination always receives the whole image; roi is not looked at.
    dst->colorProfile = colorProfile;
    dst->loadState = loadState;
    if (data) detail::parallelCopy(dst->data, data, sizeInBytes());
    return;
  }
  dst = copy(roi);
}

template <typename T>
void _ImageData<T>::copyPartTo(std::shared_ptr<_ImageData>& dst, const _Rect<int>& roi) const {
  if (!dst || roi.isZero() || !isSameType(*dst)) {
    copyTo(dst, rect());
    return;
  }
  if (!detail::liesInside(roi, size())) {
    VORN_LOG_FAILURE("Invalid roi");
    return;
  }
  if (dst.get() != this && roi.width > 0 && roi.height > 0)
    copyRows(*this, roi, *dst, roi.x, roi.y);
  dst->loadState = loadState;
}

template <typename T>
std::shared_ptr<_ImageData<T>> _ImageData<T>::copy_saturated(const _Rect<int>& roi,
                                                             bool threaded) const {
  if constexpr (!std::is_same_v<T, PixelRGB<float>>) {
    (void)roi;
    (void)threaded;
    throw std::logic_error(
        "Not implemented \"std::shared_ptr<_ImageData<T>> _ImageData<T>::copy_saturated(Rect roi, "
        "bool b_threaded) const\"");
  } else {
    const _Rect<int> whole = rect();
    const auto clipped =
        roi.isZero() ? std::optional<_Rect<int>>(whole) : detail::clipToImage(roi, size());
    if (!clipped || area() == 0) {
      if (area() != 0) VORN_LOG_FAILURE("Roi rect is outside the ImageData");
      return area() == 0 ? std::make_shared<_ImageData>(*this) : nullptr;
    }
    auto result = std::make_shared<_ImageData>(clipped->size(), colorProfile);
    result->loadState = loadState;
    const auto body = [&](int first, int end) {
      for (int y = first; y < end; ++y)
        detail::clampCopyFloats(&result->row(y)->r, &(row(clipped->y + y) + clipped->x)->r,
                                static_cast<std::size_t>(clipped->width) * 3);
    };
    if (threaded) {
      detail::parallelRows(clipped->height, body);
    } else {
      body(0, clipped->height);
    }
    return result;
  }
}

template <typename T>
void _ImageData<T>::fillRect(const T& value, const _Rect<int>& roi) {
  _Rect<int> region = roi;
  if (roi.isZero()) {
    region = rect();
  } else if (!detail::liesInside(roi, size())) {
    VORN_LOG_FAILURE("Invalid roi");
    return;
  }
  detail::parallelRows(region.height, [&](int first, int end) {
    for (int y = first; y < end; ++y)
      std::fill_n(row(region.y + y) + region.x, region.width, value);
  });
}

template <typename T>
void _ImageData<T>::clamp() {
  if constexpr (detail::kIsFloatPixel<T>) {
    const std::size_t perRow = static_cast<std::size_t>(width) * detail::PixelTraits<T>::kChannels;
    detail::parallelRows(height, [&](int first, int end) {
      detail::clampFloats(detail::channels(row(first)),
                          perRow * static_cast<std::size_t>(end - first));
    });
  }
}

template <typename T>
std::uint64_t _ImageData<T>::selfCheck() const {
  if constexpr (!detail::kIsFloatPixel<T>) {
    return 0;  // every integer value is in range
  } else {
    constexpr int kChannels = detail::PixelTraits<T>::kChannels;
    // Colour must lie in [0, 1); masks and alpha legitimately reach 1, so they pass at 1 itself.
    constexpr bool kOneIsValid = !std::is_same_v<T, PixelRGB<float>>;
    std::uint64_t bad = 0;
    for (std::uint64_t i = 0; i < area(); ++i) {
      const float* c = detail::channels(data + i);
      bool ok = true;
      for (int k = 0; k < kChannels; ++k)
        ok = ok && c[k] >= 0.0f && (kOneIsValid ? c[k] <= 1.0f : c[k] < 1.0f);
      if (ok) continue;
      ++bad;
      std::string pixel = "(";
      for (int k = 0; k < kChannels; ++k) pixel += (k ? ", " : "") + std::to_string(c[k]);
      pixel += ") at " + std::to_string(i % static_cast<std::uint64_t>(width)) + ", " +
               std::to_string(i / static_cast<std::uint64_t>(width));
      VORN_LOG_FAILURE(("Bad pixel value " + pixel).c_str());
    }
    return bad;
  }
}

template class _ImageData<float>;
template class _ImageData<PixelRGB<unsigned char>>;
template class _ImageData<PixelRGB<float>>;
template class _ImageData<PixelRGBA<float>>;
template class _ImageData<SkinPixel<153>>;

}  // namespace vorn
