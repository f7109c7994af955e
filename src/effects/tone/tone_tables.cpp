#include "effects/tone/tone_tables.h"

#include <cmath>
#include <memory>

#include <tbb/task_arena.h>

#include "core/parallel.h"

namespace vorn::detail {

// A decodes the sRGB transfer curve and B encodes it: exposure then multiplies light, and
// B[index of A(u)] returns u up to the table step.
float perceptualToLinear(float value) {
  if (value <= 0.04045f) return value / 12.92f;
  return std::pow((value + 0.055f) / 1.055f, 2.4f);
}

float linearToPerceptual(float value) {
  if (value <= 0.0031308f) return value * 12.92f;
  return 1.055f * std::pow(value, 1.0f / 2.4f) - 0.055f;
}

namespace {

struct OwnedToneTables {
  std::unique_ptr<float[]> forward{new float[kToneTableSize]};
  std::unique_ptr<float[]> backward{new float[kToneTableSize]};
  ToneTables view{forward.get(), backward.get()};

  OwnedToneTables() {
    // Isolated: a worker waiting here must not pick up an outer task that needs these tables.
    tbb::this_task_arena::isolate([&] {
      parallelChunks(kToneTableSize, 4096, [&](std::size_t first, std::size_t end) {
        for (std::size_t i = first; i < end; ++i) {
          const float u = static_cast<float>(i) / kToneTableScale;
          forward[i] = perceptualToLinear(u);
          backward[i] = linearToPerceptual(u);
        }
      });
    });
  }
};

}  // namespace

const ToneTables& toneTables() {
  static const OwnedToneTables tables;
  return tables.view;
}

}  // namespace vorn::detail
