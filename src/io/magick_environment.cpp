#include "io/magick_environment.h"

#include <Magick++.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <mutex>
#include <string>

#include "vorn/core/data_store.h"

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

// ImageMagick fills its coder and format tables lazily on first use, with checks that are not
// safe when several threads get there at once; one round trip per coder settles them up front.
void warmUpCoders() {
  for (const char* coder : {"JPEG", "TIFF"}) {
    try {
      Magick::Image pixel(Magick::Geometry(1, 1), Magick::Color("gray"));
      pixel.magick(coder);
      Magick::Blob encoded;
      pixel.write(&encoded);
      Magick::Image decoded;
      decoded.magick(coder);
      decoded.read(encoded);
    } catch (const Magick::Exception&) {
      // A missing coder shows up, with its file and stage, when a real photo is opened.
    }
  }
}

}  // namespace

std::uint64_t maxImagePixels() {
  const std::string text = DataStore::instance().getString(kMaxPixelsSetting, {});
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, value);
  if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end) return kDefaultMaxPixels;
  // The setting only raises the cap; a smaller value keeps the default.
  return std::max(value, kDefaultMaxPixels);
}

void ensureMagickEnvironment() {
  static std::once_flag once;
  std::call_once(once, [] {
    Magick::InitializeMagick(nullptr);
    // The callers already run on TBB workers; ImageMagick's own OpenMP team would oversubscribe.
    Magick::ResourceLimits::thread(1);
    warmUpCoders();
  });
  const std::uint64_t cap = maxImagePixels();
  if (gAppliedCap.load(std::memory_order_acquire) == cap) return;
  std::lock_guard lock(gLimitsMutex);
  if (gAppliedCap.load(std::memory_order_relaxed) == cap) return;
  applyLimits(cap);
  gAppliedCap.store(cap, std::memory_order_release);
}

}  // namespace vorn::detail
