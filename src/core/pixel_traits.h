#pragma once

#include <cstdint>
#include <type_traits>

#include "vorn/core/pixel.h"

namespace vorn::detail {

/// Channel layout of a pixel type, for code that works on the interleaved channel array.
template <typename T>
struct PixelTraits;

template <>
struct PixelTraits<float> {
  using Channel = float;
  static constexpr int kChannels = 1;
};
template <>
struct PixelTraits<PixelRGB<unsigned char>> {
  using Channel = unsigned char;
  static constexpr int kChannels = 3;
};
template <>
struct PixelTraits<PixelRGB<float>> {
  using Channel = float;
  static constexpr int kChannels = 3;
};
template <>
struct PixelTraits<PixelRGBA<float>> {
  using Channel = float;
  static constexpr int kChannels = 4;
};
template <int N>
struct PixelTraits<SkinPixel<N>> {
  using Channel = std::uint8_t;
  static constexpr int kChannels = N;
};

template <typename T>
inline constexpr bool kIsFloatPixel = std::is_same_v<typename PixelTraits<T>::Channel, float>;

template <typename T>
typename PixelTraits<T>::Channel* channels(T* p) {
  return reinterpret_cast<typename PixelTraits<T>::Channel*>(p);
}
template <typename T>
const typename PixelTraits<T>::Channel* channels(const T* p) {
  return reinterpret_cast<const typename PixelTraits<T>::Channel*>(p);
}

}  // namespace vorn::detail
