#include <chrono>
#include <filesystem>
#include <memory>
#include <ostream>

#include "apply_options.h"
#include "cli.h"
#include "effect_chain.h"
#include "vorn/core/file_utils.h"
#include "vorn/effects/lens_effects.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/image_metadata.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/streamed_export.h"
#include "vorn/presets/layered_edit.h"

namespace vorn::cli {
namespace {

bool samePath(const std::string& a, const std::string& b) {
  std::error_code error;
  return std::filesystem::exists(b, error) && std::filesystem::equivalent(a, b, error);
}

// The frame the export will shrink to `longestSide`: the decoder may stop at any scale that
// still covers it. Nothing is gained when the size is unknown or no shrinking is asked for.
_Size<int> coverFor(_Size<int> input, int longestSide) {
  if (longestSide <= 0 || input.width <= 0 || input.height <= 0) return {0, 0};
  return input.width >= input.height ? _Size<int>(longestSide, 0) : _Size<int>(0, longestSide);
}

void reportInputFailure(const char* command, const std::string& path, ImageReaderErrorCode code,
                        std::ostream& err) {
  err << command << ": " << path << ": ";
  switch (code) {
    case kImageReaderCorrupt:
      err << "the file's data is damaged or unreadable (code 6)\n";
      break;
    case kImageReaderTooLarge:
      err << "the image is beyond the pixel cap or the memory bound (code 7)\n";
      break;
    default:
      err << "the file cannot be decoded (code " << code << ")\n";
  }
}

// The command owns the decoded frame outright, so the effects can run on it in place.
OwnedFrame decodeOwnedFrame(const char* command, const ImageFileClass& file,
                            const ApplyOptions& options, _Size<int> inputSize, std::ostream& err) {
  FrameRequest request;
  request.cover = coverFor(inputSize, options.longestSide);
  request.failOn = options.failOn;
  request.outOfProcess = !options.inProcess;
  OwnedFrame decoded = ImageReader::decodeFrame(file, request);
  if (decoded.frame && !decoded.frame->empty()) return decoded;
  reportInputFailure(command, file.path, decoded.errorCode, err);
  return {};
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

/// A lens correction given no shot corrects for the camera and lens the input file names.
void nameLensShots(const std::vector<std::shared_ptr<Effect>>& effects,
                   const ImageFileClass& file) {
  std::shared_ptr<const ImageMetadata> metadata;
  for (const std::shared_ptr<Effect>& effect : effects) {
    auto* lens = dynamic_cast<LensCorrectionEffect*>(effect.get());
    if (!lens || lens->shot()) continue;
    if (!metadata) metadata = ImageReader::readMetadata(file);
    if (!metadata) return;
    lens->setShot(LensShot::fromMetadata(*metadata));
  }
}

}  // namespace

int runApply(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  ApplyOptions options;
  std::string error;
  if (!parseApplyOptions(args, options, error)) {
    err << "vorn apply: " << error << '\n' << kApplyUsage;
    return kExitUsage;
  }
  // Every effect and preset is checked before the (slow) decode so that a typo costs nothing.
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
  LayeredEdit edit;
  if (!readPresets(options.presets, edit, error)) {
    err << "vorn apply: " << error << '\n';
    return kExitUsage;
  }
  return applyToFile("vorn apply", options, effects, edit, out, err);
}

int applyToFile(const char* command, const ApplyOptions& options,
                const std::vector<std::shared_ptr<Effect>>& effects, const LayeredEdit& edit,
                std::ostream& out, std::ostream& err) {
  std::string error;
  if (!std::filesystem::is_regular_file(options.input)) {
    err << command << ": " << options.input << ": no such file\n";
    return kExitFailed;
  }
  if (imageFileFormatOfExtension(getFileExtension(options.input)) == ImageFileFormat::Unknown) {
    err << command << ": " << options.input << ": not a supported image file (raw, JPEG or TIFF)\n";
    return kExitFailed;
  }
  if (samePath(options.input, options.output)) {
    err << command << ": the output would overwrite the input " << options.input << '\n';
    return kExitUsage;
  }

  ExportParameters exported = exportParameters(options);
  const ImageFileClass file = classifyImageFile(options.input);
  nameLensShots(effects, file);
  const _Size<int> inputSize = ImageReader::getImageSize(file);
  // The output is checked before the (slow) decode: folder, permissions and the written size.
  if (std::string reason; !ImageMagickReader::checkExport(inputSize, exported, reason)) {
    err << command << ": " << options.output << ": " << reason << '\n';
    return kExitFailed;
  }

  const auto started = std::chrono::steady_clock::now();
  const auto report = [&](_Size<int> outputSize) {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::size_t layers = 0;
    for (const auto& preset : edit.presets) layers += preset.first.layers.size();
    out << options.output << ": " << outputSize.width << " x " << outputSize.height << ", ";
    if (layers > 0) out << layers << " preset layer" << (layers == 1 ? "" : "s") << ", ";
    out << effects.size() << " effect" << (effects.size() == 1 ? "" : "s") << ", " << seconds
        << " s\n";
    return kExitOk;
  };
  // Per-pixel edits of an upright JPEG stream through in bands: no full frame is ever made.
  // "--profile working" names the decoded frame's profile, so it takes the whole-frame path.
  if (options.profile != ProfileChoice::Working && !edit.needsProcessor() &&
      effectsRunBandByBand(effects)) {
    const StreamedExportResult streamed =
        exportStreamed(file, options.failOn, exported, effectsOnBands(effects, inputSize, error));
    switch (streamed.status) {
      case StreamedExportStatus::Written:
        return report(streamed.size);
      case StreamedExportStatus::InputFailed:
        reportInputFailure(command, file.path, streamed.code, err);
        return kExitFailed;
      case StreamedExportStatus::ProcessFailed:
        err << command << ": " << error << '\n';
        return kExitFailed;
      case StreamedExportStatus::OutputFailed:
        err << command << ": " << options.output << ": could not be written (see the log)\n";
        return kExitFailed;
      case StreamedExportStatus::NotStreamable:
        break;
    }
  }

  const OwnedFrame decoded = decodeOwnedFrame(command, file, options, inputSize, err);
  if (!decoded.frame) return kExitFailed;
  std::shared_ptr<const ImageFrame> result = decoded.frame;
  if (edit.needsProcessor()) {
    // Layers, masks, blend modes and a crop need the image processor.
    result = renderLayered(decoded, edit, effects, error);
  } else if (!applyEffects(decoded.frame, effects, error)) {
    result = nullptr;
  }
  if (!result) {
    err << command << ": " << error << '\n';
    return kExitFailed;
  }

  if (options.profile == ProfileChoice::Working) exported.colorProfile = result->colorProfile;
  const bool written = ImageMagickReader::writeImageToFile(*result, exported);
  if (!written) {
    err << command << ": " << options.output << ": could not be written (see the log)\n";
    return kExitFailed;
  }
  return report(ImageMagickReader::writtenSize(result->size(), exported));
}

}  // namespace vorn::cli
