#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "vorn/core/affine_transform.h"
#include "vorn/core/color_profile.h"
#include "vorn/core/geometry.h"
#include "vorn/core/image_load_state.h"
#include "vorn/core/pixel.h"

namespace vorn {

/// A width x height row-major pixel array (stride = width) drawn from MemoryManager, with a
/// shared colour profile and a load state. Held through std::shared_ptr; every operation that
/// makes a new buffer returns a new one. A region argument of (0, 0, 0, 0) means the whole image.
/// Host code reads the public fields directly (img->data[y * img->width + x]); a member cannot
/// also be a function of the same name, so width, height and colorProfile are read as fields.
template <typename T>
class _ImageData {
 public:
  using PixelType = T;

  int width = 0;
  int height = 0;
  /// width x height pixels from MemoryManager, owned by the buffer; null when empty.
  T* data = nullptr;
  /// Shared between copies; empty means no profile.
  std::shared_ptr<ColorProfile> colorProfile;
  ImageLoadState loadState = FULL_LOADED;

  /// Pixels are not cleared. Negative sides give an empty 0 x 0 buffer and a log line;
  /// std::bad_alloc when the pool cannot supply the bytes.
  explicit _ImageData(_Size<int> size, std::shared_ptr<ColorProfile> profile = {});
  _ImageData(_Size<int> size, const T& fill, std::shared_ptr<ColorProfile> profile = {});
  /// Same size, same profile object, same load state, pixels copied.
  _ImageData(const _ImageData& other);
  _ImageData(_ImageData&& other) noexcept;
  /// Deep assignment: a shared array would be freed twice.
  _ImageData& operator=(const _ImageData& other);
  _ImageData& operator=(_ImageData&& other) noexcept;
  ~_ImageData();

  _Size<int> size() const { return _Size<int>(width, height); }
  _Rect<int> rect() const { return _Rect<int>(0, 0, width, height); }
  std::uint64_t area() const {
    return static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
  }
  std::uint64_t sizeInBytes() const { return area() * sizeof(T); }
  std::uint64_t sizeInMBytes() const { return sizeInBytes() >> 20; }
  bool empty() const { return data == nullptr; }

  T* row(int y) { return data + static_cast<std::ptrdiff_t>(y) * width; }
  const T* row(int y) const { return data + static_cast<std::ptrdiff_t>(y) * width; }
  T& at(int x, int y) { return row(y)[x]; }
  const T& at(int x, int y) const { return row(y)[x]; }

  void setColorProfile(std::shared_ptr<ColorProfile> profile) { colorProfile = std::move(profile); }
  ImageLoadState getLoadState() const { return loadState; }
  void setLoadState(ImageLoadState state) { loadState = state; }
  /// Same size and profiles equal by name (two missing profiles are equal).
  bool isSameType(const _ImageData& other) const;

  /// The pixels of roi clipped to the image; empty pointer when nothing of it is inside.
  std::shared_ptr<_ImageData> copy(const _Rect<int>& roi = {}) const;
  /// A same-sized dst keeps its array and always receives the whole image; otherwise
  /// dst becomes copy(roi).
  void copyTo(std::shared_ptr<_ImageData>& dst, const _Rect<int>& roi = {}) const;
  /// Copies roi to the same place of an existing dst of the same size and profile.
  void copyPartTo(std::shared_ptr<_ImageData>& dst, const _Rect<int>& roi) const;
  /// A copy with every channel limited to [0, 1]; PixelRGB<float> only, others throw
  /// std::logic_error.
  std::shared_ptr<_ImageData> copy_saturated(const _Rect<int>& roi = {},
                                             bool threaded = true) const;
  void fillRect(const T& value, const _Rect<int>& roi = {});
  /// Limits every channel to [0, 1] in place; NaN becomes 0.
  void clamp();

  /// A resampled copy of roi: the exact area average when shrinking; `highQuality` picks
  /// Lanczos over bilinear when enlarging. (0, 0) or the buffer's own size copies the whole
  /// image. Empty pointer when roi is not inside the image.
  std::shared_ptr<_ImageData> resize(_Size<int> size, const _Rect<int>& roi = {},
                                     bool highQuality = false) const;
  /// As resize, into dst (reused when its size already fits), so (0, 0) or the buffer's own size
  /// copies the whole image; false and a log line on failure.
  bool resizeTo(std::shared_ptr<_ImageData>& dst, _Size<int> size, bool highQuality = false,
                const _Rect<int>& roi = {}) const;
  /// A small copy; (0, 0) picks min(width / 4, 120) wide at the image's aspect.
  std::shared_ptr<_ImageData> thumbnail(_Size<int> size = {}) const;
  /// Renders into the existing dst the part srcRect of this buffer seen through transform,
  /// bilinear, supersampled where a destination pixel spans 1.1 source pixels or more.
  void copyAffineTransformedTo(std::shared_ptr<_ImageData>& dst, _Rect<float> srcRect,
                               const AffineTransform& transform, _Rect<int> dstRoi = {}) const;

  /// Converts into the profile dst already carries (dst may be this buffer itself).
  bool colorTransform(std::shared_ptr<_ImageData>& dst) const;
  /// Converts into the profile given as ICC bytes; dst is made when empty or of another size.
  bool colorTransform(std::shared_ptr<_ImageData>& dst, const void* icc, std::size_t length) const;
  bool colorTransform(std::shared_ptr<_ImageData>& dst,
                      std::shared_ptr<ColorProfile> profile) const;

  /// Logs "Bad pixel value " for every pixel outside [0, 1); returns how many there were.
  std::uint64_t selfCheck() const;

  /// The destination-to-source matrix of copyAffineTransformedTo and how many source pixels
  /// one destination pixel spans at least and at most.
  static AffineTransform adaptAffineTransformForCoppying(const AffineTransform& transform,
                                                         _Rect<float> srcRect, _Size<int> dstSize,
                                                         float& minScale, float& maxScale);

 private:
  void allocate(_Size<int> size);
  void release();
};

extern template class _ImageData<float>;
extern template class _ImageData<PixelRGB<unsigned char>>;
extern template class _ImageData<PixelRGB<float>>;
extern template class _ImageData<PixelRGBA<float>>;
extern template class _ImageData<SkinPixel<153>>;

using ImageDataRGBf = _ImageData<PixelRGB<float>>;
using ImageDataRGB8 = _ImageData<PixelRGB<unsigned char>>;

}  // namespace vorn
