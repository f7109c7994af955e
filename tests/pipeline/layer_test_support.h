#pragma once

#include <cstdint>
#include <memory>

#include "vorn/core/mask_image.h"
#include "vorn/io/image.h"
#include "vorn/io/image_metadata.h"

namespace vorn::test {

/// An Image over a finished frame of `size` holding a ramp.
inline std::shared_ptr<Image> makePlainImage(_Size<int> size) {
  auto frame = std::make_shared<ImageFrame>(size);
  for (int y = 0; y < size.height; ++y)
    for (int x = 0; x < size.width; ++x)
      frame->at(x, y) =
          PixelRGB<float>(static_cast<float>(x) / static_cast<float>(size.width),
                          static_cast<float>(y) / static_cast<float>(size.height), 0.5f);
  return std::make_shared<Image>(
      std::make_shared<ImageSource>(frame, std::make_shared<ImageMetadata>()));
}

/// Fills a mask with values from a fixed pseudo-random sequence seeded by `seed`.
inline void fillNoise(MaskImage& mask, std::uint32_t seed) {
  std::uint32_t state = seed * 2654435761u + 1u;
  for (int y = 0; y < mask.height; ++y) {
    float* row = mask.row(y);
    for (int x = 0; x < mask.width; ++x) {
      state = state * 1664525u + 1013904223u;
      row[x] = static_cast<float>(state >> 8) / static_cast<float>(1u << 24);
    }
  }
}

/// Same size and the same values to the last bit.
inline bool samePixels(const _ImageData<float>& a, const _ImageData<float>& b) {
  if (a.size() != b.size()) return false;
  for (int y = 0; y < a.height; ++y)
    for (int x = 0; x < a.width; ++x)
      if (a.at(x, y) != b.at(x, y)) return false;
  return true;
}

}  // namespace vorn::test
