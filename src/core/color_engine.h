#pragma once

#include <lcms2.h>

#include <cstddef>
#include <memory>
#include <string>

#include "vorn/core/blob.h"

namespace vorn::detail {

/// The library's own lcms context, so its error handler does not replace the host's.
cmsContext colorEngineContext();
/// The last message lcms reported on this thread (cleared by the call); empty when none.
std::string takeColorEngineError();

struct ProfileCloser {
  void operator()(void* profile) const { cmsCloseProfile(profile); }
};
using ProfileHandle = std::unique_ptr<void, ProfileCloser>;

struct TransformDeleter {
  void operator()(void* transform) const { cmsDeleteTransform(transform); }
};
using TransformHandle = std::unique_ptr<void, TransformDeleter>;

/// Opens ICC bytes in the library's context; null when lcms cannot read them.
ProfileHandle openProfile(const Blob& icc);

/// cmsDoTransform over any number of pixels: lcms counts them in 32 bits.
void runColorTransform(cmsHTRANSFORM transform, const void* in, void* out, std::size_t pixels,
                       std::size_t pixelBytes);

}  // namespace vorn::detail
