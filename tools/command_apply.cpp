#include <charconv>
#include <chrono>
#include <filesystem>
#include <memory>
#include <ostream>

#include "cli.h"
#include "effect_chain.h"
#include "vorn/core/file_utils.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/image_reader.h"

namespace vorn::cli {
namespace {

struct ApplyOptions {
  std::string input;
  std::string output;
  std::vector<std::string> effects;
  int quality = 92;
  int depth = 8;  // 32 writes a float TIFF that keeps values above 1
  int longestSide = 0;
};

constexpr const char* kUsage =
    "usage: vorn apply IN OUT [--effect ID[:Name=value,...]]... [--quality 1-100]\n"
    "                 [--depth 8|16|32] [--long-side PIXELS]\n";

bool parseInt(const std::string& text, int low, int high, int& value) {
  const char* end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, value);
  return status == std::errc() && stop == end && value >= low && value <= high;
}

bool parseOptions(const std::vector<std::string>& args, ApplyOptions& options, std::string& error) {
  std::vector<std::string> positional;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      positional.push_back(arg);
      continue;
    }
    if (i + 1 == args.size()) {
      error = "option " + arg + " needs a value";
      return false;
    }
    const std::string& value = args[++i];
    bool valid = true;
    if (arg == "--effect") {
      options.effects.push_back(value);
    } else if (arg == "--quality") {
      valid = parseInt(value, 1, 100, options.quality);
    } else if (arg == "--depth") {
      valid = parseInt(value, 8, 32, options.depth) &&
              (options.depth == 8 || options.depth == 16 || options.depth == 32);
    } else if (arg == "--long-side") {
      valid = parseInt(value, 1, 1 << 16, options.longestSide);
    } else {
      error = "unknown option " + arg;
      return false;
    }
    if (!valid) {
      error = "bad value \"" + value + "\" for " + arg;
      return false;
    }
  }
  if (positional.size() != 2) {
    error = "expected an input and an output file";
    return false;
  }
  options.input = positional[0];
  options.output = positional[1];
  return true;
}

bool isJpegPath(const std::string& path) {
  const std::string extension = getFileExtension(path);
  return extension == "jpg" || extension == "jpeg";
}

bool isTiffPath(const std::string& path) {
  const std::string extension = getFileExtension(path);
  return extension == "tif" || extension == "tiff";
}

bool samePath(const std::string& a, const std::string& b) {
  std::error_code error;
  return std::filesystem::exists(b, error) && std::filesystem::equivalent(a, b, error);
}

// Raw sources deliver their full frame on loader threads; the command waits for it.
std::shared_ptr<const ImageFrame> decodeFullFrame(const ImageFileClass& file, std::ostream& err) {
  const std::string& path = file.path;
  const ImageResult opened = ImageReader::instance().open_sync(
      file, ImageReader::kNoResizeSize, kOpenDefault, std::make_shared<bool>(false), {});
  if (!opened.image || opened.errorCode != kImageReaderOk) {
    err << "vorn apply: " << path << ": the file cannot be decoded (code " << opened.errorCode
        << ")\n";
    return nullptr;
  }
  opened.image->waitForFullRaw();
  ConstImageFrame frame = opened.image->workingImage();
  if (!frame || frame->width <= 0 || frame->height <= 0) {
    err << "vorn apply: " << path << ": decoding stopped before the full image was read\n";
    return nullptr;
  }
  return frame;
}

}  // namespace

int runApply(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  ApplyOptions options;
  std::string error;
  if (!parseOptions(args, options, error)) {
    err << "vorn apply: " << error << '\n' << kUsage;
    return kExitUsage;
  }
  if (!isJpegPath(options.output) && !isTiffPath(options.output)) {
    err << "vorn apply: " << options.output
        << ": the output must end in .jpg, .jpeg, .tif or .tiff\n";
    return kExitUsage;
  }
  if (options.depth == 32 && !isTiffPath(options.output)) {
    err << "vorn apply: --depth 32 writes a float TIFF; name the output .tif or .tiff\n";
    return kExitUsage;
  }
  if (!isTiffPath(options.output) && options.depth != 8) {
    err << "vorn apply: JPEG holds 8 bits per channel; --depth " << options.depth
        << " needs a TIFF output\n";
    return kExitUsage;
  }
  // Every effect is checked before the (slow) decode so that a typo costs nothing.
  std::vector<std::shared_ptr<Effect>> effects;
  for (const std::string& text : options.effects) {
    EffectRequest request;
    std::vector<std::string> warnings;
    std::shared_ptr<Effect> effect;
    if (parseEffectRequest(text, request, error))
      effect = makeRequestedEffect(request, error, warnings);
    if (!effect) {
      err << "vorn apply: " << error << '\n';
      return kExitUsage;
    }
    for (const std::string& warning : warnings) err << "vorn apply: warning: " << warning << '\n';
    effects.push_back(std::move(effect));
  }
  if (!std::filesystem::is_regular_file(options.input)) {
    err << "vorn apply: " << options.input << ": no such file\n";
    return kExitFailed;
  }
  if (imageFileFormatOfExtension(getFileExtension(options.input)) == ImageFileFormat::Unknown) {
    err << "vorn apply: " << options.input << ": not a supported image file (raw, JPEG or TIFF)\n";
    return kExitFailed;
  }
  if (samePath(options.input, options.output)) {
    err << "vorn apply: the output would overwrite the input " << options.input << '\n';
    return kExitUsage;
  }

  const auto started = std::chrono::steady_clock::now();
  std::shared_ptr<const ImageFrame> frame = decodeFullFrame(classifyImageFile(options.input), err);
  if (!frame) return kExitFailed;
  frame = applyEffects(std::move(frame), effects, error);
  if (!frame) {
    err << "vorn apply: " << error << '\n';
    return kExitFailed;
  }

  ExportParameters exported;
  exported.path = options.output;
  exported.jpegQuality = options.quality;
  exported.tiffBitDepth = options.depth == 16 ? 16 : 8;
  exported.longestSide = options.longestSide;
  exported.exifSourcePath = options.input;
  // The float TIFF keeps the frame's own size and values; resizing is for display outputs.
  const bool written = options.depth == 32
                           ? ImageMagickReader::writeHDRImageToFile(*frame, options.output)
                           : ImageMagickReader::writeImageToFile(*frame, exported);
  if (!written) {
    err << "vorn apply: " << options.output << ": could not be written (see the log)\n";
    return kExitFailed;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const _Size<int> outputSize = ImageReader::getImageSize(options.output);
  out << options.output << ": " << outputSize.width << " x " << outputSize.height << ", "
      << effects.size() << " effect" << (effects.size() == 1 ? "" : "s") << ", " << seconds
      << " s\n";
  return kExitOk;
}

}  // namespace vorn::cli
