#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn {

/// Interleaved pixel structs: channels lie in memory in the order the name spells, unpadded.
template <typename T>
struct PixelRGB {
  T r, g, b;
  constexpr PixelRGB() : r(), g(), b() {}
  constexpr explicit PixelRGB(T v) : r(v), g(v), b(v) {}
  constexpr PixelRGB(T pr, T pg, T pb) : r(pr), g(pg), b(pb) {}
  constexpr bool operator==(const PixelRGB&) const = default;
};

template <typename T>
struct PixelBGR {
  T b, g, r;
  constexpr PixelBGR() : b(), g(), r() {}
  constexpr PixelBGR(T pr, T pg, T pb) : b(pb), g(pg), r(pr) {}
  constexpr bool operator==(const PixelBGR&) const = default;
};

template <typename T>
struct PixelRGBA {
  T r, g, b, a;
  constexpr PixelRGBA() : r(), g(), b(), a() {}
  constexpr PixelRGBA(T pr, T pg, T pb, T pa) : r(pr), g(pg), b(pb), a(pa) {}
  constexpr bool operator==(const PixelRGBA&) const = default;
};

template <typename T>
struct PixelBGRA {
  T b, g, r, a;
  constexpr PixelBGRA() : b(), g(), r(), a() {}
  constexpr PixelBGRA(T pr, T pg, T pb, T pa) : b(pb), g(pg), r(pr), a(pa) {}
  constexpr bool operator==(const PixelBGRA&) const = default;
};

template <typename T>
struct PixelARGB {
  T a, r, g, b;
  constexpr PixelARGB() : a(), r(), g(), b() {}
  constexpr PixelARGB(T pa, T pr, T pg, T pb) : a(pa), r(pr), g(pg), b(pb) {}
  constexpr bool operator==(const PixelARGB&) const = default;
};

/// Per-pixel skin-analysis record: N class scores of one byte each (decided here; only its
/// size matters to the buffers).
template <int N>
struct SkinPixel {
  std::uint8_t scores[N];
};

static_assert(sizeof(PixelRGB<unsigned char>) == 3);
static_assert(sizeof(PixelRGB<unsigned short>) == 6);
static_assert(sizeof(PixelRGB<float>) == 12);
static_assert(sizeof(PixelBGR<unsigned char>) == 3);
static_assert(sizeof(PixelBGR<unsigned short>) == 6);
static_assert(sizeof(PixelRGBA<unsigned char>) == 4);
static_assert(sizeof(PixelRGBA<unsigned short>) == 8);
static_assert(sizeof(PixelRGBA<float>) == 16);
static_assert(sizeof(PixelBGRA<unsigned char>) == 4);
static_assert(sizeof(PixelARGB<float>) == 16);
static_assert(sizeof(SkinPixel<153>) == 153);
static_assert(offsetof(PixelBGR<unsigned char>, b) == 0 && offsetof(PixelARGB<float>, a) == 0);

/// Limits one float channel to [0, 1]; NaN becomes 0.
constexpr float clampChannel(float v) {
  v = v > 0.0f ? v : 0.0f;
  return v > 1.0f ? 1.0f : v;
}

/// Each channel limited to [0, 1]; NaN becomes 0.
constexpr PixelRGB<float> clampValue(PixelRGB<float> p) {
  return PixelRGB<float>(clampChannel(p.r), clampChannel(p.g), clampChannel(p.b));
}

/// Colour limited to [0, 1]; alpha is deliberately forced to 1.
constexpr PixelRGBA<float> clampValue(PixelRGBA<float> p) {
  return PixelRGBA<float>(clampChannel(p.r), clampChannel(p.g), clampChannel(p.b), 1.0f);
}

/// 8-bit pixels are always in range.
constexpr PixelRGB<unsigned char> clampValue(PixelRGB<unsigned char> p) { return p; }

}  // namespace vorn
