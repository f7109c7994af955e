#include "effects/render.h"

#include <immintrin.h>

#include <algorithm>
#include <cfloat>
#include <cstring>

#include "core/image_data_internal.h"
#include "vorn/io/image.h"

namespace vorn::detail {

std::optional<_Rect<int>> renderRegion(const EffectCallContext& call) {
  if (!call.source) return std::nullopt;
  return clipToImage(call.roi.isZero() ? call.source->rect() : call.roi, call.source->size());
}

// The caller normally supplies the destination; an empty one is made here rather than
// failing, a wrong-sized one is refused.
bool prepareDestination(EffectCallContext& call) {
  if (!call.source || call.source->empty()) return false;
  if (!call.destination) {
    call.destination = std::make_shared<ImageRGBf>(call.source->size(), call.source->colorProfile);
  }
  return !call.destination->empty() && call.destination->size() == call.source->size();
}

void copyRegion(const ImageRGBf& source, ImageRGBf& destination, _Rect<int> region) {
  if (source.data == destination.data) return;
  if (region.x == 0 && region.width == source.width) {
    parallelCopy(destination.row(region.y), source.row(region.y),
                 static_cast<std::size_t>(region.height) * source.width * sizeof(PixelRGB<float>));
    return;
  }
  const std::size_t rowBytes = static_cast<std::size_t>(region.width) * sizeof(PixelRGB<float>);
  parallelRows(region.height, [&](int first, int end) {
    for (int y = region.y + first; y < region.y + end; ++y)
      std::memcpy(destination.row(y) + region.x, source.row(y) + region.x, rowBytes);
  });
}

bool copySourceToDestination(EffectCallContext& call) {
  const auto region = renderRegion(call);
  if (!region || !prepareDestination(call)) return false;
  copyRegion(*call.source, *call.destination, *region);
  return true;
}

namespace {

// Each step is one instruction: NaN masked to 0, then a min and a max. The same steps written
// as scalar selects are merged by the compiler into a chain of blends three times as long.
void makeFiniteSse2(float* values, std::size_t count) {
  const __m128 high = _mm_set1_ps(FLT_MAX);
  const __m128 low = _mm_set1_ps(-FLT_MAX);
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const __m128 v = _mm_loadu_ps(values + i);
    _mm_storeu_ps(values + i,
                  _mm_max_ps(_mm_min_ps(_mm_and_ps(v, _mm_cmpord_ps(v, v)), high), low));
  }
  for (; i < count; ++i) values[i] = finiteValue(values[i]);
}

__attribute__((target("avx2"))) void makeFiniteAvx2(float* values, std::size_t count) {
  const __m256 high = _mm256_set1_ps(FLT_MAX);
  const __m256 low = _mm256_set1_ps(-FLT_MAX);
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 v = _mm256_loadu_ps(values + i);
    const __m256 ordered = _mm256_and_ps(v, _mm256_cmp_ps(v, v, _CMP_ORD_Q));
    _mm256_storeu_ps(values + i, _mm256_max_ps(_mm256_min_ps(ordered, high), low));
  }
  for (; i < count; ++i) values[i] = finiteValue(values[i]);
}

// One instruction maps a whole vector by the class of each value: NaN to +0, +Inf to the
// largest float, -Inf to the lowest, anything else to itself.
__attribute__((target("avx512f"))) void makeFiniteAvx512(float* values, std::size_t count) {
  // Nibble j answers class j: QNaN, SNaN, zero, one, -Inf, +Inf, negative, positive.
  const __m512i table = _mm512_set1_epi32(0x11EF1188);
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m512 v = _mm512_loadu_ps(values + i);
    _mm512_storeu_ps(values + i, _mm512_fixupimm_ps(v, v, table, 0));
  }
  for (; i < count; ++i) values[i] = finiteValue(values[i]);
}

}  // namespace

void makeFinite(float* values, std::size_t count) {
  static const auto kernel = [] {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f")) return makeFiniteAvx512;
    return __builtin_cpu_supports("avx2") ? makeFiniteAvx2 : makeFiniteSse2;
  }();
  kernel(values, count);
}

bool makeFiniteWith(FiniteIsa isa, float* values, std::size_t count) {
  __builtin_cpu_init();
  switch (isa) {
    case FiniteIsa::Sse2:
      makeFiniteSse2(values, count);
      return true;
    case FiniteIsa::Avx2:
      if (!__builtin_cpu_supports("avx2")) return false;
      makeFiniteAvx2(values, count);
      return true;
    case FiniteIsa::Avx512:
      if (!__builtin_cpu_supports("avx512f")) return false;
      makeFiniteAvx512(values, count);
      return true;
  }
  return false;
}

RenderSetup makeRenderSetup(const EffectCallContext& call, _Rect<int> readable, float spatialScale,
                            const EffectContext* context) {
  const bool hasReference = call.reference && !call.reference->empty();
  // Without a reference a region render measures only what it may read, never pixels that a
  // chain has not rendered yet.
  const ImageRGBf& statistics = hasReference ? *call.reference : *call.source;
  // The frame's size: the owner's whole image, else the whole-picture reference, else the source.
  _Size<int> frameSize = hasReference ? call.reference->size() : call.source->size();
  _Point<int> origin;
  if (context) {
    if (context->imageSize.width > 0 && context->imageSize.height > 0)
      frameSize = context->imageSize;
    origin = context->origin;
  }
  return RenderSetup{statistics,
                     hasReference ? call.reference->rect() : readable,
                     spatialScale,
                     RenderControl(call.cancel),
                     _Rect<int>(-origin.x, -origin.y, frameSize.width, frameSize.height),
                     call.image ? call.image->metadata() : nullptr};
}

}  // namespace vorn::detail
