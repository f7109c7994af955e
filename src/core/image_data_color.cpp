#include <lcms2.h>

#include <algorithm>
#include <new>
#include <string>
#include <thread>
#include <type_traits>

#include "core/color_engine.h"
#include "core/color_matrix_shaper.h"
#include "core/log_failure.h"
#include "core/parallel.h"
#include "vorn/core/image_data.h"

namespace vorn {
namespace {

template <typename T>
struct EngineLayout;

template <>
struct EngineLayout<PixelRGB<float>> {
  static constexpr cmsUInt32Number format = TYPE_RGB_FLT;
  static constexpr cmsUInt32Number flags = 0;
};

template <>
struct EngineLayout<PixelRGB<unsigned char>> {
  static constexpr cmsUInt32Number format = TYPE_RGB_8;
  static constexpr cmsUInt32Number flags = 0;
};

// Decision: RGBA float converts its colour and carries alpha through unchanged.
template <>
struct EngineLayout<PixelRGBA<float>> {
  static constexpr cmsUInt32Number format = TYPE_RGBA_FLT;
  static constexpr cmsUInt32Number flags = cmsFLAGS_COPY_ALPHA;
};

/// dst keeps its array when it already has the source's size.
template <typename T>
bool prepareTarget(const _ImageData<T>& src, std::shared_ptr<_ImageData<T>>& dst,
                   const std::shared_ptr<ColorProfile>& target) {
  // Decision: an empty dst or one of another size is replaced by a new buffer of the source's size.
  if (dst && dst->size() == src.size()) return true;
  try {
    dst = std::make_shared<_ImageData<T>>(src.size(), target);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

constexpr const char* kNoMemory = "Not enough memory for the destination buffer";

/// The conversion behind every overload; returns why it failed, empty on success, so the
/// caller logs under its own signature.
template <typename T>
std::string convertInto(const _ImageData<T>& src, std::shared_ptr<_ImageData<T>>& dst,
                        const std::shared_ptr<ColorProfile>& target) {
  if (dst.get() == &src && src.colorProfile == target) return {};
  // Decision: unreadable ICC bytes or a transform lcms cannot build fail before dst is touched.
  if (target && !target->isValid()) return "Could not read the ICC profile";

  if constexpr (std::is_same_v<T, float>) {
    // Decision: masks and grey planes have no colour to convert; pixels are copied unchanged
    // and only the profile is attached.
    if (!prepareTarget(src, dst, target)) return kNoMemory;
    if (dst.get() != &src) detail::parallelCopy(dst->data, src.data, src.sizeInBytes());
  } else {
    using Layout = EngineLayout<T>;
    // Decision: a missing profile counts as sRGB, at either end.
    const std::shared_ptr<ColorProfile> source =
        src.colorProfile ? src.colorProfile : ColorProfileType::sRGB();
    const std::shared_ptr<ColorProfile> output = target ? target : ColorProfileType::sRGB();
    if constexpr (std::is_same_v<T, PixelRGB<float>> || std::is_same_v<T, PixelRGBA<float>>) {
      // Matrix-shaper pairs (every standard profile) skip lcms's per-pixel stage walk.
      if (const auto fast = detail::findMatrixShaperTransform(source, output)) {
        if (!prepareTarget(src, dst, target)) return kNoMemory;
        constexpr int channels = static_cast<int>(sizeof(T) / sizeof(float));
        const std::size_t rowFloats = static_cast<std::size_t>(src.width) * channels;
        const float* from = reinterpret_cast<const float*>(src.data);
        float* to = reinterpret_cast<float*>(dst->data);
        detail::parallelRows(src.height, [&](int first, int end) {
          const std::size_t at = static_cast<std::size_t>(first) * rowFloats;
          detail::runMatrixShaperTransform(*fast, from + at, to + at,
                                           static_cast<std::size_t>(end - first) * src.width,
                                           channels);
        });
        dst->setColorProfile(target);
        dst->setLoadState(src.getLoadState());
        return {};
      }
    }
    detail::takeColorEngineError();
    const detail::ProfileHandle in = detail::openProfile(source->iccProfile());
    if (!in) return "Could not read the source ICC profile";
    const detail::ProfileHandle out = detail::openProfile(output->iccProfile());
    if (!out) return "Could not read the ICC profile";
    // NOCACHE is lcms's documented condition for one transform shared by several threads; it
    // only drops the repeat-pixel shortcut and changes no value.
    const detail::TransformHandle transform(
        cmsCreateTransformTHR(detail::colorEngineContext(), in.get(), Layout::format, out.get(),
                              Layout::format, INTENT_PERCEPTUAL, Layout::flags | cmsFLAGS_NOCACHE));
    if (!transform) {
      const std::string reason = detail::takeColorEngineError();
      return "Could not create the colour transform from \"" + source->name() + "\" to \"" +
             output->name() + "\"" + (reason.empty() ? std::string() : ": " + reason);
    }
    if (!prepareTarget(src, dst, target)) return kNoMemory;

    // One equal chunk per hardware thread, the remainder after them.
    const std::size_t count = src.area();
    const std::size_t threads = std::max(1u, std::thread::hardware_concurrency());
    const std::size_t chunk = count / threads;
    const T* from = src.data;
    T* to = dst->data;
    if (chunk > 0) {
      detail::parallelChunks(threads, 1, [&](std::size_t first, std::size_t end) {
        for (std::size_t i = first; i < end; ++i)
          detail::runColorTransform(transform.get(), from + i * chunk, to + i * chunk, chunk,
                                    sizeof(T));
      });
    }
    const std::size_t done = chunk * threads;
    detail::runColorTransform(transform.get(), from + done, to + done, count - done, sizeof(T));
  }
  dst->setColorProfile(target);
  dst->setLoadState(src.getLoadState());
  return {};
}

}  // namespace

template <typename T>
bool _ImageData<T>::colorTransform(std::shared_ptr<_ImageData>& dst) const {
  // Decision: an empty dst carries no profile, so it gets a new buffer in sRGB, none attached.
  const std::string failure =
      convertInto(*this, dst, dst ? dst->colorProfile : ColorProfileType::None());
  if (!failure.empty()) VORN_LOG_FAILURE(failure.c_str());
  return failure.empty();
}

template <typename T>
bool _ImageData<T>::colorTransform(std::shared_ptr<_ImageData>& dst, const void* icc,
                                   std::size_t length) const {
  if (icc == nullptr && length > 0) {
    VORN_LOG_FAILURE("Could not read the ICC profile");
    return false;
  }
  const std::string failure =
      convertInto(*this, dst, std::make_shared<ColorProfile>(Blob(icc, length)));
  if (!failure.empty()) VORN_LOG_FAILURE(failure.c_str());
  return failure.empty();
}

template <typename T>
bool _ImageData<T>::colorTransform(std::shared_ptr<_ImageData>& dst,
                                   std::shared_ptr<ColorProfile> profile) const {
  // The caller's profile object itself is attached, so identity checks on it keep working.
  const std::string failure = convertInto(*this, dst, profile);
  if (!failure.empty()) VORN_LOG_FAILURE(failure.c_str());
  return failure.empty();
}

#define VORN_INSTANTIATE_COLOR_TRANSFORM(T)                                                 \
  template bool _ImageData<T>::colorTransform(std::shared_ptr<_ImageData<T>>&) const;       \
  template bool _ImageData<T>::colorTransform(std::shared_ptr<_ImageData<T>>&, const void*, \
                                              std::size_t) const;                           \
  template bool _ImageData<T>::colorTransform(std::shared_ptr<_ImageData<T>>&,              \
                                              std::shared_ptr<ColorProfile>) const;

VORN_INSTANTIATE_COLOR_TRANSFORM(float)
VORN_INSTANTIATE_COLOR_TRANSFORM(PixelRGB<unsigned char>)
VORN_INSTANTIATE_COLOR_TRANSFORM(PixelRGB<float>)
VORN_INSTANTIATE_COLOR_TRANSFORM(PixelRGBA<float>)

#undef VORN_INSTANTIATE_COLOR_TRANSFORM

}  // namespace vorn
