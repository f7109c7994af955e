#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "vorn/io/image.h"

namespace vorn::detail {

class MatrixShaperTransform;

/// Upright float rows [first, first + count) of a picture that is never whole in memory, one
/// row after the other from the returned pixel on; asked for in order, top to bottom.
using BandSupplier = std::function<const PixelRGB<float>*(int first, int count)>;

/// How the written samples are stored.
enum class SampleFormat { U8, U16, F32 };

/// Bytes of one stored sample.
std::size_t sampleBytes(SampleFormat format);

/// The rows of one written image, made on demand from a float frame without a full-size copy:
/// turned by the EXIF orientation, converted into the output profile, then limited to [0, 1] and
/// rounded (8 and 16 bits) or kept as they are with NaN and Inf set to 0 (float).
class ExportRows {
 public:
  ExportRows();
  ~ExportRows();
  ExportRows(const ExportRows&) = delete;
  ExportRows& operator=(const ExportRows&) = delete;

  /// Binds the frame (which must outlive this object); false with a reason when no conversion
  /// between the frame's profile and `target` can be built. A null profile counts as sRGB.
  bool prepare(const ImageFrame& frame, int orientation, std::shared_ptr<ColorProfile> target,
               SampleFormat format, std::string& reason);

  /// Binds a picture of `size` in `source` whose rows `supplier` makes on demand, in order and
  /// upright; as prepare() otherwise.
  bool prepareStream(_Size<int> size, std::shared_ptr<ColorProfile> source, BandSupplier supplier,
                     std::shared_ptr<ColorProfile> target, SampleFormat format,
                     std::string& reason);

  _Size<int> size() const { return size_; }
  SampleFormat format() const { return format_; }
  std::size_t rowBytes() const;
  /// The profile embedded in the file.
  const std::shared_ptr<ColorProfile>& profile() const { return target_; }
  /// Rows handed to an encoder at once: about 4 MiB of float rows, a multiple of 16 (the
  /// tallest JPEG block row), 16 to 256 rows; small enough to stay in cache, large enough that
  /// splitting them over the workers pays.
  int bandRows() const;
  /// Writes rows [first, first + count) of the output, rowBytes() apart, over the workers.
  void fill(int first, int count, std::uint8_t* out) const;

 private:
  bool prepareConversion(const std::shared_ptr<ColorProfile>& source,
                         std::shared_ptr<ColorProfile> target, std::string& reason);
  void fillRow(const PixelRGB<float>* start, float* scratch, std::uint8_t* out) const;

  const ImageFrame* frame_ = nullptr;
  BandSupplier supplier_;  // set instead of frame_ for a streamed picture
  _Size<int> size_;
  SampleFormat format_ = SampleFormat::U8;
  std::shared_ptr<ColorProfile> target_;
  // Source pixel of output (x, y): origin_ + x * stepX_ + y * stepY_, in pixels.
  std::ptrdiff_t origin_ = 0, stepX_ = 1, stepY_ = 0;
  std::shared_ptr<const MatrixShaperTransform> matrixShaper_;
  std::shared_ptr<void> engineTransform_;  // lcms, for profiles that are not matrix-shaper
};

}  // namespace vorn::detail
