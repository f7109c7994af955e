#pragma once

#include <cstddef>

namespace vorn::detail {

/// Entries of each shared tone table; an entry i stands for the value i / kToneTableScale.
inline constexpr std::size_t kToneTableSize = 65535;
inline constexpr float kToneTableScale = 65535.0f;

/// The shared forward (A) and backward (B) tone tables, built once (at library start, or on
/// first use by a host that skips it) and read-only afterwards.
struct ToneTables {
  const float* forward;
  const float* backward;
};
const ToneTables& toneTables();
/// Builds the tone family's shared tables ahead of the first render.
inline void initializeToneEffects() {
  toneTables();
}

/// The perceptual-to-linear (sRGB decoding) curve that table A samples.
float perceptualToLinear(float value);
/// The linear-to-perceptual (sRGB encoding) curve that table B samples; undoes the first.
float linearToPerceptual(float value);

}  // namespace vorn::detail
