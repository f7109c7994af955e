#pragma once

#include <memory>
#include <mutex>

#include "vorn/core/geometry.h"
#include "vorn/core/mask_image.h"
#include "vorn/pipeline/image_transform_settings.h"
#include "vorn/pipeline/shared_flag.h"

namespace vorn {

/// A layer's mask with the reductions renders read. The working mask is the full mask itself
/// (shared, no copy); thumbnail and preview are exact area averages of it, built on first use
/// and afterwards refreshed only over the blocks a change covers; the render for one transform
/// is kept for the last settings asked. Every call is serialised by one mutex, but the
/// returned pixels change in place when update() writes, so renders and brush strokes on one
/// layer must not overlap.
class LayerMask {
 public:
  /// Long side of the thumbnail (the mask's own size when smaller).
  static constexpr int kThumbnailLongSide = 120;
  /// Long side of the preview (the mask's own size when smaller).
  static constexpr int kPreviewLongSide = 1024;

  LayerMask() = default;
  /// Deep: the mask and every cache are copied, not shared.
  LayerMask(const LayerMask& other);
  LayerMask& operator=(const LayerMask& other);
  ~LayerMask();

  /// The full mask, in layer pixels; a caller that edits it must call resetCache().
  std::shared_ptr<MaskImage> mask() const;
  bool hasMask() const;
  /// Takes the mask (null removes it); caches are dropped and the whole mask reported changed.
  void set(std::shared_ptr<MaskImage> mask);

  std::shared_ptr<const MaskImage> workingMask() const;
  std::shared_ptr<const MaskImage> thumbnail();
  std::shared_ptr<const MaskImage> preview();
  /// The canvas ROI of `settings` seen through its layer transform at its output size; empty
  /// when the settings have no render. Outside the layer it holds the resampler's background.
  std::shared_ptr<const MaskImage> previewForTransform(const ImageTransformSettings& settings);
  void resetCache();

  /// What changed since clearUpdateRects(), in mask pixels; all-zero when nothing did.
  _Rect<int> workingUpdateRect() const;
  /// The same change in preview pixels.
  _Rect<int> previewUpdateRect() const;
  /// Also clears `pending` under the same lock, so a write cannot slip between the two.
  void clearUpdateRects(SharedFlag& pending);

  /// Writes `content` into `rect` of the mask, refreshes the caches over it and sets `pending`.
  /// `content` is either rect-sized or mask-sized (then its own `rect` is read); false and a
  /// log line when there is no mask, the rect is not inside it or the content does not fit.
  bool update(const MaskImage& content, const _Rect<int>& rect, SharedFlag& pending);

  /// The size of a reduction whose long side is at most `longSide`, never enlarged.
  static _Size<int> reducedSize(_Size<int> mask, int longSide);

 private:
  /// Allocates and fills a cache of `size` from the mask; empty when there is no mask.
  std::shared_ptr<MaskImage> buildReduction(_Size<int> size) const;
  void refreshTransformed(const _Rect<int>& rect);
  void copyFrom(const LayerMask& other);

  mutable std::mutex mutex_;
  std::shared_ptr<MaskImage> mask_;
  std::shared_ptr<MaskImage> thumbnail_;
  std::shared_ptr<MaskImage> preview_;
  std::shared_ptr<MaskImage> transformed_;
  ImageTransformSettings transformedFor_;
  _Rect<int> workingUpdate_;
};

}  // namespace vorn
