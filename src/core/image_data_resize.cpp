#include <cmath>

#include "core/log_failure.h"
#include "core/resample.h"
#include "vorn/core/image_data.h"

namespace vorn {

template <typename T>
std::shared_ptr<_ImageData<T>> _ImageData<T>::resize(_Size<int> size, const _Rect<int>& roi,
                                                     bool highQuality) const {
  if ((size.width == 0 && size.height == 0) || size == this->size())
    return std::make_shared<_ImageData>(*this);
  if (size.width < 1 || size.height < 1) return {};
  auto result = std::make_shared<_ImageData>(size, colorProfile);
  result->loadState = loadState;
  if (!detail::resampleImage(*this, roi, *result, highQuality)) return {};
  return result;
}

template <typename T>
bool _ImageData<T>::resizeTo(std::shared_ptr<_ImageData>& dst, _Size<int> size, bool highQuality,
                             const _Rect<int>& roi) const {
  // As in resize: no size, or the buffer's own, is a copy of the whole image.
  if ((size.width == 0 && size.height == 0) || size == this->size()) {
    copyTo(dst);
    return true;
  }
  if (size.width < 1 || size.height < 1 || dst.get() == this) {
    VORN_LOG_FAILURE("Can't resize image");
    return false;
  }
  if (!dst || dst->size() != size) dst = std::make_shared<_ImageData>(size, colorProfile);
  dst->colorProfile = colorProfile;
  dst->loadState = loadState;
  if (!detail::resampleImage(*this, roi, *dst, highQuality)) {
    VORN_LOG_FAILURE("Can't resize image");
    return false;
  }
  return true;
}

template <typename T>
std::shared_ptr<_ImageData<T>> _ImageData<T>::thumbnail(_Size<int> size) const {
  _Size<int> target = size;
  if (size.width < 1 || size.height < 1) {
    if (size.width != 0 || size.height != 0) VORN_LOG_FAILURE("Incorrect size value");
    target.width = std::min(width / 4, 120);
    target.height =
        (target.width == 0 || width == 0)
            ? 0
            : static_cast<int>(std::roundf(static_cast<float>(target.width) /
                                           static_cast<float>(width) * static_cast<float>(height)));
  }
  return resize(target, _Rect<int>(), false);
}

#define VORN_INSTANTIATE_RESIZE(T)                                                             \
  template std::shared_ptr<_ImageData<T>> _ImageData<T>::resize(_Size<int>, const _Rect<int>&, \
                                                                bool) const;                   \
  template bool _ImageData<T>::resizeTo(std::shared_ptr<_ImageData<T>>&, _Size<int>, bool,     \
                                        const _Rect<int>&) const;                              \
  template std::shared_ptr<_ImageData<T>> _ImageData<T>::thumbnail(_Size<int>) const;

VORN_INSTANTIATE_RESIZE(float)
VORN_INSTANTIATE_RESIZE(PixelRGB<unsigned char>)
VORN_INSTANTIATE_RESIZE(PixelRGB<float>)
VORN_INSTANTIATE_RESIZE(PixelRGBA<float>)

}  // namespace vorn
