#include "core/color_engine.h"

#include <cstdint>
#include <limits>

namespace vorn::detail {
namespace {

thread_local std::string lastEngineError;

void keepEngineError(cmsContext, cmsUInt32Number, const char* text) {
  lastEngineError = text ? text : "";
}

}  // namespace

cmsContext colorEngineContext() {
  // Never destroyed: transforms may still be built while statics are torn down.
  static const cmsContext context = [] {
    cmsContext created = cmsCreateContext(nullptr, nullptr);
    cmsSetLogErrorHandlerTHR(created, keepEngineError);
    return created;
  }();
  return context;
}

std::string takeColorEngineError() {
  std::string text;
  text.swap(lastEngineError);
  return text;
}

ProfileHandle openProfile(const Blob& icc) {
  if (icc.empty() || icc.size() > std::numeric_limits<cmsUInt32Number>::max()) return {};
  return ProfileHandle(cmsOpenProfileFromMemTHR(colorEngineContext(), icc.data(),
                                                static_cast<cmsUInt32Number>(icc.size())));
}

void runColorTransform(cmsHTRANSFORM transform, const void* in, void* out, std::size_t pixels,
                       std::size_t pixelBytes) {
  constexpr std::size_t kMaxRun = std::size_t(1) << 30;
  auto* src = static_cast<const std::uint8_t*>(in);
  auto* dst = static_cast<std::uint8_t*>(out);
  while (pixels > 0) {
    const std::size_t run = pixels < kMaxRun ? pixels : kMaxRun;
    cmsDoTransform(transform, src, dst, static_cast<cmsUInt32Number>(run));
    src += run * pixelBytes;
    dst += run * pixelBytes;
    pixels -= run;
  }
}

}  // namespace vorn::detail
