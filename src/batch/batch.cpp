#include "vorn/batch.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "batch/batch_run.h"
#include "io/raster/thumbnail_out_of_process.h"
#include "vorn/batch_edit.h"
#include "vorn/effects/color_effects.h"
#include "vorn/io/image_file_class.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/thumbnails.h"
#include "vorn/presets/layered_edit.h"

namespace vorn::batch {
namespace {

std::string required(const char* text, const char* what) {
  if (!text || !*text) throw BatchFailure(VORN_BATCH_BAD_ARGUMENT, std::string(what) + " is empty");
  return text;
}

VornBatchOptions optionsOrDefault(const VornBatchOptions* options) {
  VornBatchOptions chosen;
  vornBatchDefaultOptions(&chosen);
  return options ? *options : chosen;
}

void checkInput(const std::string& input, const std::string& output) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(input, error))
    throw BatchFailure(VORN_BATCH_INPUT_MISSING, input + ": no such file");
  if (std::filesystem::exists(output, error) && std::filesystem::equivalent(input, output, error))
    throw BatchFailure(VORN_BATCH_BAD_ARGUMENT, output + ": the output would overwrite the input");
}

Preset readPreset(const std::string& path) {
  try {
    return readPresetFile(path);
  } catch (const PresetError& e) {
    throw BatchFailure(VORN_BATCH_BAD_PRESET, e.what());
  }
}

void addPresetFile(const std::string& path, LayeredEdit& edit) {
  edit.presets.emplace_back(readPreset(path), std::filesystem::path(path).parent_path().string());
}

// The shared path of the rendering calls: decode, render the layers, write atomically.
void renderToFile(const std::string& input, const LayeredEdit& edit, const std::string& output,
                  const VornBatchOptions& options, const BatchRun& run, bool replace = true) {
  checkInput(input, output);
  std::error_code ignored;
  // Checked before the decode so that a kept output costs nothing; the rename checks again.
  if (!replace && std::filesystem::symlink_status(output, ignored).type() !=
                      std::filesystem::file_type::not_found)
    throwOutputExists(output);
  ExportParameters exported = exportParametersFor(output, options);
  exported.exifSourcePath = input;
  run.stage(0.0, "decode");
  const ImageFileClass file = classifyImageFile(input);
  FrameRequest request;
  request.cancel = run.stopFlag();
  request.outOfProcess = options.inProcess == 0;
  // A smaller output lets the decoder stop at a coarser scale that still covers it; a crop is
  // given in full-size pixels, so it needs the whole frame.
  const _Size<int> size = ImageReader::getImageSize(file);
  if (!edit.crop && options.longSide > 0 && size.width > 0 && size.height > 0)
    request.cover = size.width >= size.height ? _Size<int>(options.longSide, 0)
                                              : _Size<int>(0, options.longSide);
  OwnedFrame decoded = ImageReader::decodeFrame(file, request);
  if (run.cancelled()) throw BatchFailure(VORN_BATCH_CANCELLED, "cancelled");
  if (!decoded.frame || decoded.frame->empty())
    throw BatchFailure(VORN_BATCH_INPUT_FAILED, input + ": the file cannot be decoded (code " +
                                                    std::to_string(decoded.errorCode) + ")");
  run.stage(0.4, "render");
  std::string error;
  const std::shared_ptr<const ImageDataRGBf> result =
      renderLayered(decoded, edit, {}, error, run.stopFlag());
  if (run.cancelled()) throw BatchFailure(VORN_BATCH_CANCELLED, "cancelled");
  if (!result) throw BatchFailure(VORN_BATCH_RENDER_FAILED, input + ": " + error);
  run.stage(0.8, "write");
  writeFrameAtomically(*result, exported, run, replace);
  run.stage(1.0, "done");
}

// Looks at the top level only, without building the tree: deep or huge hostile files stop early.
struct SourceKeyFinder : nlohmann::json_sax<nlohmann::json> {
  int depth = 0;
  bool found = false;
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return ++depth <= kMaxDepth; }
  bool end_object() override { return --depth >= 0; }
  bool start_array(std::size_t) override { return ++depth <= kMaxDepth; }
  bool end_array() override { return --depth >= 0; }
  bool key(string_t& name) override {
    if (depth == 1 && name == "source") found = true;
    return !found;  // nothing more is needed once the key is seen
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }
  static constexpr int kMaxDepth = 64;
};

// A document names its source; a preset does not. Malformed or oversized files are left to the
// preset reader, whose error names the line.
bool isDocumentFile(const std::string& path) {
  std::error_code error;
  const std::uintmax_t bytes = std::filesystem::file_size(path, error);
  if (error || bytes > (16u << 20)) return false;
  std::ifstream stream(path, std::ios::binary);
  SourceKeyFinder finder;
  nlohmann::json::sax_parse(stream, &finder, nlohmann::json::input_format_t::json, false);
  return finder.found;
}

}  // namespace

BatchOutcome renderEditToFile(const std::string& input, const LayeredEdit& edit,
                              const std::string& output, const VornBatchOptions& options,
                              bool replace, VornBatchProgress progress, void* user,
                              const volatile int* cancel) {
  return runCaught([&] {
    const BatchRun run(progress, user, cancel);
    run.stage(0.0, "start");
    renderToFile(required(input.c_str(), "input"), edit, required(output.c_str(), "output"),
                 options, run, replace);
  });
}

}  // namespace vorn::batch

using namespace vorn;
using namespace vorn::batch;

extern "C" {

void vornBatchDefaultOptions(VornBatchOptions* options) {
  if (!options) return;
  options->quality = 92;
  options->depth = 8;
  options->longSide = 0;
  options->inProcess = 0;
}

int applyPreset(const char* input, const char* presetPath, const char* output,
                const VornBatchOptions* options, VornBatchProgress progress, void* user,
                const volatile int* cancel, int* errorCode, char* message, size_t messageSize) {
  return runBatchCall(errorCode, message, messageSize, [&] {
    const BatchRun run(progress, user, cancel);
    run.stage(0.0, "start");
    const std::string in = required(input, "input"), out = required(output, "output");
    LayeredEdit edit;
    addPresetFile(required(presetPath, "preset"), edit);
    renderToFile(in, edit, out, optionsOrDefault(options), run);
  });
}

int applyRawDevelop(const char* input, const char* presetPath, const char* output,
                    const VornBatchOptions* options, VornBatchProgress progress, void* user,
                    const volatile int* cancel, int* errorCode, char* message, size_t messageSize) {
  return runBatchCall(errorCode, message, messageSize, [&] {
    const BatchRun run(progress, user, cancel);
    run.stage(0.0, "start");
    const std::string in = required(input, "input"), out = required(output, "output");
    checkInput(in, out);
    if (!classifyImageFile(in).raw)
      throw BatchFailure(VORN_BATCH_INPUT_FAILED, in + ": not a raw file");
    // The default development is a one-effect layer under any preset's own layers.
    Preset develop;
    develop.layers.emplace_back();
    develop.layers.back().effects.push_back({std::string(RawDevelopEffect::kId), {}, {}});
    LayeredEdit edit;
    edit.presets.emplace_back(develop, std::string());
    if (presetPath && *presetPath) addPresetFile(presetPath, edit);
    renderToFile(in, edit, out, optionsOrDefault(options), run);
  });
}

int generateThumbnail(const char* input, const char* output, const VornBatchOptions* options,
                      VornBatchProgress progress, void* user, const volatile int* cancel,
                      int* errorCode, char* message, size_t messageSize) {
  return runBatchCall(errorCode, message, messageSize, [&] {
    const BatchRun run(progress, user, cancel);
    run.stage(0.0, "start");
    const std::string in = required(input, "input"), out = required(output, "output");
    checkInput(in, out);
    VornBatchOptions chosen = optionsOrDefault(options);
    if (chosen.longSide < 0 || chosen.longSide > 65535)
      throw BatchFailure(VORN_BATCH_BAD_ARGUMENT, "long side must be 0...65535");
    const int side = chosen.longSide > 0 ? chosen.longSide : 256;
    chosen.longSide = 0;  // the thumbnail comes at its size; the writer leaves it alone
    const ExportParameters exported = exportParametersFor(out, chosen);
    run.stage(0.1, "decode");
    // High quality: an embedded preview only when it covers the side (enlarged it turns soft),
    // else a DCT-scaled JPEG or half-size raw decode, both far cheaper than a full decode.
    const std::shared_ptr<ImageFrame> frame =
        chosen.inProcess ? getThumbnailBySide(in, side, true, nullptr, run.stopFlag())
                         : detail::thumbnailBySideOutOfProcess(in, side, true, run.stopFlag());
    if (run.cancelled()) throw BatchFailure(VORN_BATCH_CANCELLED, "cancelled");
    if (!frame || frame->empty())
      throw BatchFailure(VORN_BATCH_INPUT_FAILED, in + ": the file cannot be decoded");
    run.stage(0.8, "write");
    writeFrameAtomically(*frame, exported, run);
    run.stage(1.0, "done");
  });
}

int doPictoramix(const char* source, const char* editPath, const char* output,
                 const VornBatchOptions* options, VornBatchProgress progress, void* user,
                 const volatile int* cancel, int* errorCode, char* message, size_t messageSize) {
  return runBatchCall(errorCode, message, messageSize, [&] {
    const BatchRun run(progress, user, cancel);
    run.stage(0.0, "start");
    const std::string edits = required(editPath, "preset or document"),
                      out = required(output, "output");
    LayeredEdit edit;
    std::string in = source ? source : "";
    if (isDocumentFile(edits)) {
      PresetDocument document;
      try {
        document = readDocumentFile(edits);
      } catch (const PresetError& e) {
        throw BatchFailure(VORN_BATCH_BAD_PRESET, e.what());
      }
      std::string documentSource;
      edit = layeredEditOf(document, edits, documentSource);
      if (in.empty()) in = documentSource;
    } else {
      addPresetFile(edits, edit);
    }
    renderToFile(required(in.c_str(), "source"), edit, out, optionsOrDefault(options), run);
  });
}

}  // extern "C"
