#include "io/raster/export_rows.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

#include "core/color_matrix_shaper.h"
#include "core/kernels.h"
#include "core/parallel.h"
#include "io/raster/orientation.h"
#include "io/raster/profile_match.h"

namespace vorn::detail {
namespace {

void keepFinite(const float* values, std::size_t count, float* out) {
  for (std::size_t i = 0; i < count; ++i) {
    const bool finite = (std::bit_cast<std::uint32_t>(values[i]) & 0x7f800000u) != 0x7f800000u;
    out[i] = finite ? values[i] : 0.0f;
  }
}

bool sameProfile(const ColorProfile& a, const ColorProfile& b) {
  return a == b && a.iccProfile().size() == b.iccProfile().size();
}

// Half an 8-bit step: an 8-bit file in a profile this close to the asked one (another vendor's
// sRGB, say) keeps its own profile and pixels; converting would move no value by a whole code.
constexpr float kEightBitMatch = 0.5f / 255.0f;

}  // namespace

std::size_t sampleBytes(SampleFormat format) {
  switch (format) {
    case SampleFormat::U8:
      return 1;
    case SampleFormat::U16:
      return 2;
    case SampleFormat::F32:
      return 4;
  }
  return 1;
}

ExportRows::ExportRows() = default;
ExportRows::~ExportRows() = default;

bool ExportRows::prepare(const ImageFrame& frame, int orientation,
                         std::shared_ptr<ColorProfile> target, SampleFormat format,
                         std::string& reason) {
  frame_ = &frame;
  format_ = format;
  orientation = normalizedOrientation(orientation);
  size_ = orientedSize(frame.size(), orientation);
  const std::ptrdiff_t w = frame.width, h = frame.height;
  // Where output (0, 0) comes from and how a step right or down moves in the source.
  switch (orientation) {
    case 2:
      origin_ = w - 1, stepX_ = -1, stepY_ = w;
      break;
    case 3:
      origin_ = (h - 1) * w + w - 1, stepX_ = -1, stepY_ = -w;
      break;
    case 4:
      origin_ = (h - 1) * w, stepX_ = 1, stepY_ = -w;
      break;
    case 5:
      origin_ = 0, stepX_ = w, stepY_ = 1;
      break;
    case 6:
      origin_ = (h - 1) * w, stepX_ = -w, stepY_ = 1;
      break;
    case 7:
      origin_ = (h - 1) * w + w - 1, stepX_ = -w, stepY_ = -1;
      break;
    case 8:
      origin_ = w - 1, stepX_ = w, stepY_ = -1;
      break;
    default:
      origin_ = 0, stepX_ = 1, stepY_ = w;
      break;
  }

  supplier_ = nullptr;
  return prepareConversion(frame.colorProfile, std::move(target), reason);
}

bool ExportRows::prepareStream(_Size<int> size, std::shared_ptr<ColorProfile> source,
                               BandSupplier supplier, std::shared_ptr<ColorProfile> target,
                               SampleFormat format, std::string& reason) {
  frame_ = nullptr;
  supplier_ = std::move(supplier);
  format_ = format;
  size_ = size;
  origin_ = 0, stepX_ = 1, stepY_ = size.width;
  return prepareConversion(source, std::move(target), reason);
}

bool ExportRows::prepareConversion(const std::shared_ptr<ColorProfile>& frameProfile,
                                   std::shared_ptr<ColorProfile> target, std::string& reason) {
  const std::shared_ptr<ColorProfile> source =
      frameProfile ? frameProfile : ColorProfileType::sRGB();
  target_ = target ? std::move(target) : source;
  matrixShaper_.reset();
  engineTransform_.reset();
  if (sameProfile(*source, *target_)) return true;
  if (format_ == SampleFormat::U8 && profilesMatch(*source, *target_, kEightBitMatch)) {
    target_ = source;
    return true;
  }
  if (!target_->isValid()) {
    reason = "the output ICC profile cannot be read";
    return false;
  }
  matrixShaper_ = findMatrixShaperTransform(source, target_);
  if (matrixShaper_) return true;
  TransformHandle transform = floatTransform(*source, *target_);
  if (!transform) {
    reason = "no colour conversion from \"" + source->name() + "\" to \"" + target_->name() + "\"";
    return false;
  }
  engineTransform_ = std::shared_ptr<void>(transform.release(), TransformDeleter());
  return true;
}

std::size_t ExportRows::rowBytes() const {
  return static_cast<std::size_t>(size_.width) * 3 * sampleBytes(format_);
}

int ExportRows::bandRows() const {
  constexpr std::size_t kBandBytes = std::size_t(4) << 20;
  const std::size_t rowFloatBytes =
      std::max<std::size_t>(1, static_cast<std::size_t>(size_.width) * sizeof(PixelRGB<float>));
  const std::size_t rows = kBandBytes / rowFloatBytes / 16 * 16;
  return static_cast<int>(std::clamp<std::size_t>(rows, 16, 256));
}

void ExportRows::fillRow(const PixelRGB<float>* start, float* scratch, std::uint8_t* out) const {
  const std::size_t width = static_cast<std::size_t>(size_.width);
  const std::size_t count = width * 3;
  const bool converting = matrixShaper_ || engineTransform_;
  const float* values = &start->r;
  if (stepX_ != 1 || converting) {
    if (stepX_ == 1) {
      std::memcpy(scratch, values, count * sizeof(float));
    } else {
      for (std::size_t x = 0; x < width; ++x) {
        const PixelRGB<float>& p = start[static_cast<std::ptrdiff_t>(x) * stepX_];
        scratch[3 * x] = p.r, scratch[3 * x + 1] = p.g, scratch[3 * x + 2] = p.b;
      }
    }
    if (matrixShaper_) runMatrixShaperTransform(*matrixShaper_, scratch, scratch, width, 3);
    if (engineTransform_)
      runColorTransform(engineTransform_.get(), scratch, scratch, width, sizeof(PixelRGB<float>));
    values = scratch;
  }
  switch (format_) {
    case SampleFormat::U8:
      quantizeToBytes(values, count, out);
      break;
    case SampleFormat::U16:
      quantizeToWords(values, count, reinterpret_cast<std::uint16_t*>(out));
      break;
    case SampleFormat::F32:
      keepFinite(values, count, reinterpret_cast<float*>(out));
      break;
  }
}

void ExportRows::fill(int first, int count, std::uint8_t* out) const {
  const std::size_t stride = rowBytes();
  const bool needsScratch = stepX_ != 1 || matrixShaper_ || engineTransform_;
  // A streamed picture's band starts at its first row; a frame's rows are found from the origin.
  const PixelRGB<float>* start =
      supplier_ ? supplier_(first, count) : frame_->data + origin_ + first * stepY_;
  parallelRows(count, [&](int begin, int end) {
    std::vector<float> scratch(needsScratch ? static_cast<std::size_t>(size_.width) * 3 : 0);
    for (int r = begin; r < end; ++r)
      fillRow(start + r * stepY_, scratch.data(), out + static_cast<std::size_t>(r) * stride);
  });
}

}  // namespace vorn::detail
