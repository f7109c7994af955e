#pragma once

#include <string>
#include <vector>

#include "vorn/io/fail_on.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn::cli {

/// Which profile `--profile` asks for; Default leaves the choice to the export (sRGB for 8-bit,
/// the working profile for 16 and 32 bits).
enum class ProfileChoice { Default, Srgb, Adobe, ProPhoto, Working };

/// The arguments of `vorn apply`, as parsed; nothing is opened or checked against files here.
struct ApplyOptions {
  std::string input;
  std::string output;
  std::vector<std::string> effects;  ///< `--effect` texts, in order
  std::vector<std::string> presets;  ///< `--preset` files, stacked in order below the effects
  int quality = 92;
  int depth = 8;  ///< 32 writes a float TIFF that keeps values above 1
  int longestSide = 0;
  ProfileChoice profile = ProfileChoice::Default;
  JpegSubsampling subsampling = JpegSubsampling::Auto;
  bool progressive = false;
  bool optimizeHuffman = false;
  /// `--fail-on`: which damage in the input's data refuses it.
  FailOn failOn = FailOn::Error;
  /// `--in-process`: raw files decode in this process instead of a loader child.
  bool inProcess = false;
};

/// The usage lines of `vorn apply`.
extern const char* const kApplyUsage;

/// The usage lines of `vorn render`.
extern const char* const kRenderUsage;

/// A whole decimal integer within [low, high]; false for anything else.
bool parseInt(const std::string& text, int low, int high, int& value);

/// Parses the words after `apply`; false and `error` naming the bad word or combination.
bool parseApplyOptions(const std::vector<std::string>& args, ApplyOptions& options,
                       std::string& error);

}  // namespace vorn::cli
