#include <chrono>
#include <filesystem>
#include <memory>
#include <ostream>

#include "apply_options.h"
#include "cli.h"
#include "effect_chain.h"
#include "vorn/core/file_utils.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/image_reader.h"

namespace vorn::cli {
namespace {

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

ExportParameters exportParameters(const ApplyOptions& options) {
  ExportParameters exported;
  exported.path = options.output;
  exported.jpegQuality = options.quality;
  exported.jpegSubsampling = options.subsampling;
  exported.jpegProgressive = options.progressive;
  exported.jpegOptimizeHuffman = options.optimizeHuffman;
  exported.tiffBitDepth = options.depth;
  exported.longestSide = options.longestSide;
  exported.exifSourcePath = options.input;
  switch (options.profile) {
    case ProfileChoice::Srgb:
      exported.colorProfile = ColorProfileType::sRGB();
      break;
    case ProfileChoice::Adobe:
      exported.colorProfile = ColorProfileType::adobeRGB();
      break;
    case ProfileChoice::ProPhoto:
      exported.colorProfile = ColorProfileType::proPhotoRGB();
      break;
    default:  // the working profile is the decoded frame's, known only after decoding
      break;
  }
  return exported;
}

}  // namespace

int runApply(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  ApplyOptions options;
  std::string error;
  if (!parseApplyOptions(args, options, error)) {
    err << "vorn apply: " << error << '\n' << kApplyUsage;
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

  ExportParameters exported = exportParameters(options);
  // The output is checked before the (slow) decode: folder, permissions and the written size.
  if (std::string reason;
      !ImageMagickReader::checkExport(ImageReader::getImageSize(options.input), exported, reason)) {
    err << "vorn apply: " << options.output << ": " << reason << '\n';
    return kExitFailed;
  }

  const auto started = std::chrono::steady_clock::now();
  std::shared_ptr<const ImageFrame> frame = decodeFullFrame(classifyImageFile(options.input), err);
  if (!frame) return kExitFailed;
  frame = applyEffects(std::move(frame), effects, error);
  if (!frame) {
    err << "vorn apply: " << error << '\n';
    return kExitFailed;
  }

  if (options.profile == ProfileChoice::Working) exported.colorProfile = frame->colorProfile;
  const bool written = ImageMagickReader::writeImageToFile(*frame, exported);
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
