// The preset reader on arbitrary text: it either refuses with PresetError or returns a preset
// that writes and reads back equal.
#include <cstdint>
#include <string>

#include "vorn/presets/preset.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size copy, so AddressSanitizer sees any read past the end of the text.
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    const vorn::Preset preset = vorn::parsePreset(text, "fuzz.json");
    if (!(vorn::parsePreset(vorn::presetText(preset), "again.json") == preset)) __builtin_trap();
  } catch (const vorn::PresetError&) {
  }
  return 0;
}
