#include "io/magick_environment.h"

#include <Magick++.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>

#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

// Bytes ImageMagick's Q16 pixel cache holds per pixel (four 16-bit channels).
constexpr std::uint64_t kCacheBytesPerPixel = 4 * sizeof(MagickCore::Quantum);

std::mutex gLimitsMutex;
std::atomic<std::uint64_t> gAppliedCap{0};

void applyLimits(std::uint64_t cap) {
  // The system's policy.xml may hold lower maxima; ImageMagick keeps the lower of the two.
  Magick::ResourceLimits::width(cap);
  Magick::ResourceLimits::height(cap);
  Magick::ResourceLimits::area(cap);
  Magick::ResourceLimits::memory(std::min(cap, UINT64_MAX / kCacheBytesPerPixel) *
                                 kCacheBytesPerPixel);
}

// Only the two formats vorn reads and writes, no external programs, no indirect file names:
// a file that claims to be something else cannot reach any other coder.
constexpr const char* kSecurityPolicy =
    "<policymap>"
    "<policy domain=\"delegate\" rights=\"none\" pattern=\"*\"/>"
    "<policy domain=\"path\" rights=\"none\" pattern=\"@*\"/>"
    "<policy domain=\"coder\" rights=\"none\" pattern=\"*\"/>"
    "<policy domain=\"coder\" rights=\"read|write\" pattern=\"{JPEG,TIFF}\"/>"
    "</policymap>";

void restrictCoders() {
  MagickCore::ExceptionInfo* exception = MagickCore::AcquireExceptionInfo();
  if (MagickCore::SetMagickSecurityPolicy(kSecurityPolicy, exception) == MagickCore::MagickFalse)
    LogWarning("%s", "ImageMagick refused vorn's coder policy; its system policy stays in force");
  MagickCore::DestroyExceptionInfo(exception);
}

// ImageMagick fills its coder and format tables lazily on first use, with checks that are not
// safe when several threads get there at once; one round trip per coder settles them up front.
void warmUpCoders() {
  const unsigned char gray[3] = {128, 128, 128};
  for (const char* coder : {"JPEG", "TIFF"}) {
    try {
      Magick::Image pixel(1, 1, "RGB", Magick::CharPixel, gray);
      pixel.magick(coder);
      Magick::Blob encoded;
      pixel.write(&encoded);
      Magick::Image decoded;
      decoded.magick(coder);
      decoded.read(encoded);
    } catch (const Magick::Exception& error) {
      LogWarning("ImageMagick cannot round-trip %s: %s", coder, error.what());
    }
  }
}

}  // namespace

void ensureMagickEnvironment() {
  static std::once_flag once;
  std::call_once(once, [] {
    Magick::InitializeMagick(nullptr);
    // The callers already run on TBB workers; ImageMagick's own OpenMP team would oversubscribe.
    Magick::ResourceLimits::thread(1);
    restrictCoders();
    warmUpCoders();
  });
  const std::uint64_t cap = maxImagePixels();
  if (gAppliedCap.load(std::memory_order_acquire) == cap) return;
  std::lock_guard lock(gLimitsMutex);
  if (gAppliedCap.load(std::memory_order_relaxed) == cap) return;
  applyLimits(cap);
  gAppliedCap.store(cap, std::memory_order_release);
}

std::string magickSizeRefusal(_Size<int> size) {
  ensureMagickEnvironment();
  const auto width = static_cast<std::uint64_t>(std::max(size.width, 0));
  const auto height = static_cast<std::uint64_t>(std::max(size.height, 0));
  const std::string text = std::to_string(width) + " x " + std::to_string(height);
  if (width > Magick::ResourceLimits::width())
    return text + " is wider than ImageMagick's limit of " +
           std::to_string(Magick::ResourceLimits::width()) + " pixels";
  if (height > Magick::ResourceLimits::height())
    return text + " is taller than ImageMagick's limit of " +
           std::to_string(Magick::ResourceLimits::height()) + " pixels";
  if (width * height > Magick::ResourceLimits::area())
    return text + " exceeds ImageMagick's area limit of " +
           std::to_string(Magick::ResourceLimits::area()) + " pixels";
  return {};
}

}  // namespace vorn::detail
