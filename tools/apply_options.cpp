#include "apply_options.h"

#include <array>
#include <charconv>
#include <utility>

#include "vorn/core/file_utils.h"

namespace vorn::cli {

bool parseInt(const std::string& text, int low, int high, int& value) {
  const char* end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, value);
  return status == std::errc() && stop == end && value >= low && value <= high;
}

namespace {

template <typename Choice, std::size_t N>
bool parseChoice(const std::string& text,
                 const std::array<std::pair<const char*, Choice>, N>& names, Choice& value) {
  for (const auto& [name, choice] : names) {
    if (text == name) {
      value = choice;
      return true;
    }
  }
  return false;
}

constexpr std::array<std::pair<const char*, ProfileChoice>, 4> kProfiles = {{
    {"srgb", ProfileChoice::Srgb},
    {"adobe", ProfileChoice::Adobe},
    {"prophoto", ProfileChoice::ProPhoto},
    {"working", ProfileChoice::Working},
}};

constexpr std::array<std::pair<const char*, JpegSubsampling>, 4> kSubsamplings = {{
    {"auto", JpegSubsampling::Auto},
    {"444", JpegSubsampling::S444},
    {"422", JpegSubsampling::S422},
    {"420", JpegSubsampling::S420},
}};

bool isJpegPath(const std::string& path) {
  const std::string extension = getFileExtension(path);
  return extension == "jpg" || extension == "jpeg";
}

bool isTiffPath(const std::string& path) {
  const std::string extension = getFileExtension(path);
  return extension == "tif" || extension == "tiff";
}

// Options that take a value; false with `error` set for a bad one.
bool parseValue(const std::string& option, const std::string& value, ApplyOptions& options,
                std::string& error) {
  bool valid = true;
  if (option == "--effect") {
    options.effects.push_back(value);
  } else if (option == "--preset") {
    options.presets.push_back(value);
  } else if (option == "--quality") {
    valid = parseInt(value, 1, 100, options.quality);
  } else if (option == "--depth") {
    valid = parseInt(value, 8, 32, options.depth) &&
            (options.depth == 8 || options.depth == 16 || options.depth == 32);
  } else if (option == "--long-side") {
    valid = parseInt(value, 1, 1 << 16, options.longestSide);
  } else if (option == "--profile") {
    valid = parseChoice(value, kProfiles, options.profile);
  } else if (option == "--subsampling") {
    valid = parseChoice(value, kSubsamplings, options.subsampling);
  } else if (option == "--fail-on") {
    valid = parseFailOn(value, options.failOn);
  } else {
    error = "unknown option " + option;
    return false;
  }
  if (!valid) error = "bad value \"" + value + "\" for " + option;
  return valid;
}

// The combinations the output's format cannot hold.
bool checkOutputFormat(const ApplyOptions& options, bool jpegOnlyGiven, std::string& error) {
  const bool jpeg = isJpegPath(options.output);
  if (!jpeg && !isTiffPath(options.output)) {
    error = options.output + ": the output must end in .jpg, .jpeg, .tif or .tiff";
  } else if (options.depth == 32 && jpeg) {
    error = "--depth 32 writes a float TIFF; name the output .tif or .tiff";
  } else if (jpeg && options.depth != 8) {
    error = "JPEG holds 8 bits per channel; --depth " + std::to_string(options.depth) +
            " needs a TIFF output";
  } else if (!jpeg && jpegOnlyGiven) {
    error = "--subsampling, --progressive and --optimize-huffman are for JPEG output";
  }
  return error.empty();
}

}  // namespace

const char* const kApplyUsage =
    "usage: vorn apply IN OUT [--preset FILE.json]... [--effect ID[:Name=value,...]]...\n"
    "                 [--quality 1-100] [--depth 8|16|32] [--long-side PIXELS]\n"
    "                 [--profile srgb|adobe|prophoto|working]\n"
    "                 [--subsampling auto|444|422|420] [--progressive] [--optimize-huffman]\n"
    "                 [--fail-on none|truncated|error] [--in-process]\n"
    "  --fail-on: which damage in the input refuses it: error (the default: any the decoder\n"
    "             reports), truncated (only data that ends early) or none (keep what decodes)\n"
    "  --in-process: decode a raw file in this process, not in the loader child that keeps a\n"
    "             decoder crash from ending the command\n";

const char* const kRenderUsage =
    "usage: vorn render DOCUMENT.json OUT [--quality 1-100] [--depth 8|16|32] [--long-side "
    "PIXELS]\n"
    "                 [--profile srgb|adobe|prophoto|working]\n"
    "                 [--subsampling auto|444|422|420] [--progressive] [--optimize-huffman]\n"
    "                 [--fail-on none|truncated|error] [--in-process]\n"
    "  renders the document's photo with its layers, crop and orientation\n"
    "  --in-process: decode a raw photo in this process, not in the loader child\n";

bool parseApplyOptions(const std::vector<std::string>& args, ApplyOptions& options,
                       std::string& error) {
  options = ApplyOptions{};
  error.clear();
  std::vector<std::string> positional;
  bool jpegOnlyGiven = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      positional.push_back(arg);
    } else if (arg == "--progressive") {
      options.progressive = jpegOnlyGiven = true;
    } else if (arg == "--optimize-huffman") {
      options.optimizeHuffman = jpegOnlyGiven = true;
    } else if (arg == "--in-process") {
      options.inProcess = true;
    } else if (i + 1 == args.size()) {
      error = "option " + arg + " needs a value";
      return false;
    } else {
      jpegOnlyGiven = jpegOnlyGiven || arg == "--subsampling";
      if (!parseValue(arg, args[++i], options, error)) return false;
    }
  }
  if (positional.size() != 2) {
    error = "expected an input and an output file";
    return false;
  }
  options.input = positional[0];
  options.output = positional[1];
  return checkOutputFormat(options, jpegOnlyGiven, error);
}

}  // namespace vorn::cli
