#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "vorn/core/image_data.h"

namespace vorn {

/// A selection mask: 0 not selected to 1 fully selected, no colour profile.
class MaskImage : public _ImageData<float> {
 public:
  /// Values are not cleared.
  explicit MaskImage(_Size<int> size) : _ImageData<float>(size) {}
  /// Copies width x height values.
  MaskImage(const float* values, _Size<int> size);
  MaskImage(_Size<int> size, float fill);
  explicit MaskImage(_ImageData<float>&& plane) noexcept : _ImageData<float>(std::move(plane)) {}

  void setFilled();
  void setEmpty();
  void setFillWith(float value);
  /// v becomes 1 - v.
  void invert();
  /// Every value becomes the larger of the two; masks of another size are refused with a log line.
  void unionWithMask(const MaskImage& other);
  /// Values that are exactly zero (-0 included).
  std::uint64_t zeroPixelsCount() const;
  std::shared_ptr<MaskImage> thumbnail(_Size<int> size = {}) const;
};

/// One byte a value: clamped to [0, 1] (NaN to 0), times 255, truncated.
void discretizeMask(const MaskImage& mask, std::vector<std::uint8_t>& out);

}  // namespace vorn
