// The `vorn apply` argument parser and the effect requests it collects, on words split from the
// input at zero bytes. Parsing touches no file, so any input is safe to run.
#include <cstdint>
#include <string>
#include <vector>

#include "apply_options.h"
#include "effect_chain.h"
#include "vorn/core/file_utils.h"
#include "vorn/core/log.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vorn::Logger::LogInstance().SetVerbosity(vorn::Log::kMaxVerbosity);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> args(1);
  for (std::size_t i = 0; i < size && args.size() <= 64; ++i) {
    if (data[i] == 0) {
      args.emplace_back();
    } else {
      args.back().push_back(static_cast<char>(data[i]));
    }
  }
  vorn::cli::ApplyOptions options;
  std::string error;
  if (!vorn::cli::parseApplyOptions(args, options, error)) {
    if (error.empty()) __builtin_trap();  // every refusal says why
    return 0;
  }
  // What parsing accepts is what the export can be asked for.
  const std::string extension = vorn::getFileExtension(options.output);
  const bool jpeg = extension == "jpg" || extension == "jpeg";
  if (!jpeg && extension != "tif" && extension != "tiff") __builtin_trap();
  if (options.quality < 1 || options.quality > 100) __builtin_trap();
  if (options.depth != 8 && options.depth != 16 && options.depth != 32) __builtin_trap();
  if (jpeg && options.depth != 8) __builtin_trap();
  for (const std::string& text : options.effects) {
    vorn::cli::EffectRequest request;
    std::vector<std::string> warnings;
    if (vorn::cli::parseEffectRequest(text, request, error))
      vorn::cli::makeRequestedEffect(request, error, warnings);
  }
  return 0;
}
