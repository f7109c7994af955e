#include "io/raw/raw_decoder.h"

#include <libraw/libraw.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/parallel.h"
#include "io/input_limits.h"
#include "io/memory_limit.h"
#include "io/raw/raw_stream.h"
#include "vorn/core/log.h"

namespace vorn::raw {
namespace {

// LibRaw's 16-bit output spans 0..65535 with auto-brightening off, so this is the scale factor
// that comes with every frame it decodes.
constexpr float kRawOutputScale = 65535.0f;

/// LibRaw with a look at the raw image's own TIFF directory, which it keeps to itself.
class InspectedLibRaw final : public LibRaw {
 public:
  /// True when the raw image says it is a colour filter mosaic (photometric CFA) but the
  /// decoder could not read a filter pattern from it: the pattern tag is damaged.
  bool mosaicPatternLost() {
    if (imgdata.idata.filters != 0) return false;
    const libraw_internal_data_t& internal = *get_internal_data_pointer();
    const unsigned count =
        std::min<unsigned>(internal.identify_data.tiff_nifds, LIBRAW_IFD_MAXCOUNT);
    for (unsigned i = 0; i < count; ++i) {
      if (tiff_ifd[i].offset == internal.unpacker_data.data_offset)
        return tiff_ifd[i].phint == kPhotometricCfa;
    }
    return false;
  }

 private:
  static constexpr int kPhotometricCfa = 32803;
};

/// What LibRaw's data-error callback reported: its warnings of corrupt or missing image data.
struct DataErrors {
  // Parallel decoders may report from several threads.
  std::atomic<int> count{0};
  std::atomic<bool> endOfFile{false};  ///< an unexpected end of file rather than corrupt data
  std::atomic<int> firstOffset{-1};
};

void onDataError(void* data, const char* /*file*/, const int offset) {
  auto* errors = static_cast<DataErrors*>(data);
  if (errors->count++ == 0) errors->firstOffset = offset;
  if (offset < 0) errors->endOfFile = true;
}

ImageReaderErrorCode codeOf(int librawError) {
  switch (librawError) {
    case LIBRAW_SUCCESS:
      return kImageReaderOk;
    case LIBRAW_CANCELLED_BY_CALLBACK:
      return kImageReaderCancelled;
    case LIBRAW_UNSUFFICIENT_MEMORY:
    case LIBRAW_TOO_BIG:
    case LIBRAW_MEMPOOL_OVERFLOW:
      return kImageReaderTooLarge;
    case LIBRAW_DATA_ERROR:
    case LIBRAW_IO_ERROR:
    case LIBRAW_BAD_CROP:
      return kImageReaderCorrupt;
    default:
      return kImageReaderFailed;
  }
}

DecodeOutcome failure(const char* stage, ImageReaderErrorCode code, std::string message) {
  DecodeOutcome outcome;
  outcome.code = code;
  outcome.stage = stage;
  outcome.message = std::move(message);
  return outcome;
}

DecodeOutcome librawFailure(const char* stage, int librawError) {
  return failure(stage, codeOf(librawError), libraw_strerror(librawError));
}

void configure(LibRaw& decoder, bool halfSize) {
  libraw_output_params_t& p = decoder.imgdata.params;
  p.half_size = halfSize ? 1 : 0;
  // ProPhoto primaries, linear 16 bit: melissa RGB is these primaries with the sRGB curve, which
  // the float conversion applies, so the shadows keep their 16-bit precision.
  p.output_color = 4;
  p.output_bps = 16;
  p.gamm[0] = 1.0;
  p.gamm[1] = 1.0;
  p.no_auto_bright = 1;
  p.use_camera_wb = 1;
  p.user_qual = 3;  // AHD: the decoder's own default demosaic, sharp without being slow
  p.highlight = 0;
  // The raw buffer holds at most four 16-bit samples per pixel of the largest allowed sensor.
  const std::uint64_t capMb =
      (std::min<std::uint64_t>(detail::maxImagePixels(), UINT64_MAX / 8u) * 8u >> 20) + 1u;
  p.max_raw_memory_mb = static_cast<unsigned>(std::clamp<std::uint64_t>(capMb, 64u, 1u << 20));
}

/// Value of a 16-bit sample in melissa RGB: scaled to 0..1, then the sRGB curve.
struct ToneTable {
  std::array<float, 65536> values;
  ToneTable() {
    const double reciprocal = 1.0 / static_cast<double>(kRawOutputScale);
    for (std::size_t i = 0; i < values.size(); ++i) {
      const double v = std::min(1.0, static_cast<double>(i) * reciprocal);
      values[i] =
          static_cast<float>(v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1.0 / 2.4) - 0.055);
    }
  }
};

// Trivially destructible, so pool threads still reading it at process exit read valid memory.
const float* toneTable() {
  static const ToneTable table;
  return table.values.data();
}

std::string text(const char* value) {
  std::string s(value);
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

float finiteOrZero(float v) {
  return std::isfinite(v) && v > 0.0f ? v : 0.0f;
}

/// EXIF light source code of CIE D65.
constexpr int kExifD65 = 21;

/// The DNG calibration the decoder read (three-colour cameras only: the 3 x 3 part of each
/// matrix) and the as-shot multipliers; a matrix with a non-finite entry stays absent.
void fillCameraColor(const libraw_colordata_t& color, ImageMetadata::CameraColor& out) {
  const auto take = [](std::array<float, 9>& to, auto at) {
    std::array<float, 9> m{};
    for (std::size_t i = 0; i < 9; ++i) {
      m[i] = at(i / 3, i % 3);
      if (!std::isfinite(m[i])) return;
    }
    to = m;
  };
  const libraw_dng_color_t* dng = color.dng_color;
  // colormatrix is [camera colour][XYZ]; forwardmatrix is [XYZ][camera colour].
  take(out.colorMatrix1, [&](std::size_t r, std::size_t c) { return dng[0].colormatrix[r][c]; });
  take(out.colorMatrix2, [&](std::size_t r, std::size_t c) { return dng[1].colormatrix[r][c]; });
  take(out.forwardMatrix1,
       [&](std::size_t r, std::size_t c) { return dng[0].forwardmatrix[r][c]; });
  take(out.forwardMatrix2,
       [&](std::size_t r, std::size_t c) { return dng[1].forwardmatrix[r][c]; });
  out.illuminant1 = dng[0].illuminant;
  out.illuminant2 = dng[1].illuminant;
  // Files without a DNG calibration still have the decoder's own daylight matrix for the camera.
  const bool calibrated = std::any_of(out.colorMatrix1.begin(), out.colorMatrix1.end(),
                                      [](float v) { return v != 0.0f; });
  if (!calibrated) {
    take(out.colorMatrix1, [&](std::size_t r, std::size_t c) { return color.cam_xyz[r][c]; });
    out.illuminant1 = kExifD65;
    out.colorMatrix2 = {};
    out.illuminant2 = 0;
  }
  const float green = color.cam_mul[1];
  if (std::isfinite(green) && green > 0.0f) {
    for (std::size_t c = 0; c < 3; ++c)
      out.asShotMultipliers[c] = finiteOrZero(color.cam_mul[c] / green);
  }
}

void fillMetadata(const LibRaw& decoder, ImageMetadata& metadata) {
  const libraw_data_t& d = decoder.imgdata;
  metadata.cameraName = text(d.idata.make);
  metadata.cameraModel = text(d.idata.model);
  metadata.fNumber = finiteOrZero(d.other.aperture);
  metadata.aperture = metadata.fNumber > 0.0f ? 2.0f * std::log2(metadata.fNumber) : 0.0f;
  metadata.shutterSpeed = finiteOrZero(d.other.shutter);
  metadata.isoSpeed = finiteOrZero(d.other.iso_speed);
  metadata.focalLen = finiteOrZero(d.other.focal_len);
  metadata.focalLen35mm = static_cast<float>(d.lens.FocalLengthIn35mmFormat);
  metadata.minFocalLen = finiteOrZero(d.lens.MinFocal);
  metadata.maxFocalLen = finiteOrZero(d.lens.MaxFocal);
  metadata.lensMaker = text(d.lens.LensMake);
  metadata.lensModel = text(d.lens.Lens);
  if (d.lens.makernotes.LensID != 0) metadata.lensId = std::to_string(d.lens.makernotes.LensID);
  metadata.sizeRawMatrix = {d.sizes.raw_width, d.sizes.raw_height};
  metadata.mutableParameters.orientation = orientationFromFlip(d.sizes.flip);
  fillCameraColor(d.color, metadata.cameraColor);
}

struct ProgressContext {
  const std::function<bool()>* stop = nullptr;
  LibRaw* decoder = nullptr;
  _Size<int> beforeStretch;
};

int onProgress(void* data, LibRaw_progress stage, int iteration, int /*expected*/) {
  auto* context = static_cast<ProgressContext*>(data);
  // Stretching for non-square pixels changes the frame's size; the size before it is recorded.
  if (stage == LIBRAW_PROGRESS_STRETCH && iteration == 0) {
    const libraw_image_sizes_t& s = context->decoder->imgdata.sizes;
    context->beforeStretch = _Size<int>(s.width, s.height);
  }
  return (*context->stop)() ? 1 : 0;
}

std::shared_ptr<ImageFrame> toFloatFrame(const LibRaw& decoder, ImageLoadState state) {
  const libraw_image_sizes_t& s = decoder.imgdata.sizes;
  const int width = s.width;
  const int height = s.height;
  const int flip = s.flip;
  const bool transpose = (flip & 4) != 0;
  const bool grey = decoder.imgdata.idata.colors < 3;
  const _Size<int> out = transpose ? _Size<int>(height, width) : _Size<int>(width, height);
  auto frame = std::make_shared<ImageFrame>(out, ColorProfileType::melissaRGB());
  frame->setLoadState(state);
  const float* lut = toneTable();
  const ushort(*image)[4] = decoder.imgdata.image;
  // Same index mapping as LibRaw's own flip_index, so the frame matches its memory images.
  detail::parallelRows(out.height, [&](int firstRow, int endRow) {
    for (int y = firstRow; y < endRow; ++y) {
      PixelRGB<float>* dst = frame->row(y);
      for (int x = 0; x < out.width; ++x) {
        int row = transpose ? x : y;
        int col = transpose ? y : x;
        if (flip & 2) row = height - 1 - row;
        if (flip & 1) col = width - 1 - col;
        const ushort* px = image[static_cast<std::size_t>(row) * static_cast<std::size_t>(width) +
                                 static_cast<std::size_t>(col)];
        dst[x] = grey ? PixelRGB<float>(lut[px[0]])
                      : PixelRGB<float>(lut[px[0]], lut[px[1]], lut[px[2]]);
      }
    }
  });
  return frame;
}

DecodeOutcome describeIdentified(const LibRaw& decoder, int openResult, RawIdentity& identity) {
  if (openResult != LIBRAW_SUCCESS) return librawFailure("identify", openResult);
  const libraw_image_sizes_t& s = decoder.imgdata.sizes;
  if (s.raw_width == 0 || s.raw_height == 0 || s.width == 0 || s.height == 0)
    return failure("identify", kImageReaderCorrupt, "the file declares no pixels");
  const std::uint64_t pixels = std::uint64_t(s.raw_width) * std::uint64_t(s.raw_height);
  const std::uint64_t limit = detail::maxImagePixels();
  if (pixels > limit)
    return failure("identify", kImageReaderTooLarge,
                   "the file declares " + std::to_string(s.raw_width) + "x" +
                       std::to_string(s.raw_height) + " pixels, more than the limit of " +
                       std::to_string(limit));
  identity.geometry = RawFrameGeometry{};
  identity.geometry.decoderSize = _Size<int>(s.width, s.height);
  identity.geometry.pixelAspect = s.pixel_aspect > 0.0 ? s.pixel_aspect : 1.0;
  identity.geometry.orientation = orientationFromFlip(s.flip);
  identity.isDng = decoder.imgdata.idata.dng_version != 0;
  identity.hasMosaic = decoder.imgdata.idata.filters != 0;
  const unsigned declaredBits =
      const_cast<LibRaw&>(decoder).get_internal_data_pointer()->unpacker_data.tiff_bps;
  int bits = 0;
  for (unsigned maximum = decoder.imgdata.color.maximum; maximum != 0; maximum >>= 1) ++bits;
  identity.bitsPerSample =
      declaredBits > 0 && declaredBits <= 16 ? static_cast<int>(declaredBits) : std::min(bits, 16);
  fillMetadata(decoder, identity.metadata);
  DecodeOutcome outcome;
  outcome.code = kImageReaderOk;
  return outcome;
}

/// Damage found while decoding: an outcome to return when the policy fails its kind, else a
/// log line and the decode goes on with what there is.
struct DamageCheck {
  FailOn policy;
  const std::string& path;
  DecodeOutcome outcome;

  bool fails(const char* stage, bool truncation, const std::string& what) {
    if (!damageFails(policy, truncation)) {
      LogWarning("%s: %s: %s (kept under the fail-on policy)", path.c_str(), stage, what.c_str());
      return false;
    }
    outcome = failure(stage, kImageReaderCorrupt,
                      what + " (damaged data, refused by the fail-on policy)");
    return true;
  }
};

std::string describe(const DataErrors& errors) {
  const std::string reports = " (" + std::to_string(errors.count.load()) + " reports)";
  if (errors.endOfFile) return "the image data ends early" + reports;
  return "corrupt image data near byte " + std::to_string(errors.firstOffset.load()) + reports;
}

// A decoder that meets damaged data may stop without a word, leaving the raw buffer as it was
// allocated. Image data takes at least a byte for every thousand pixels even at deflate's best
// ratio; a stop shows as a handful of bytes read for millions of pixels.
constexpr std::uint64_t kMostPixelsPerByte = 4096;

bool stoppedEarly(const LibRaw& decoder, const RawStream& stream) {
  const libraw_image_sizes_t& s = decoder.imgdata.sizes;
  const std::uint64_t pixels = std::uint64_t(s.raw_width) * s.raw_height;
  return static_cast<std::uint64_t>(stream.consumed()) * kMostPixelsPerByte < pixels;
}

// Compressions this LibRaw was built without leave the frame black; they are not damage.
DecodeOutcome missingCodec(const LibRaw& decoder) {
  const unsigned warnings = decoder.imgdata.process_warnings;
  if (warnings & (LIBRAW_WARN_NO_JPEGLIB | LIBRAW_WARN_NO_JASPER))
    return failure("unpack", kImageReaderFailed,
                   "the raw decoder was built without the codec of this file's image data");
  DecodeOutcome fine;
  fine.code = kImageReaderOk;
  return fine;
}

// What the decode holds at its peak: LibRaw's raw buffer (up to four 16-bit samples a pixel),
// its processed image (four a pixel) and the float frame made from it.
std::uint64_t decodeBytes(const LibRaw& decoder, bool halfSize) {
  const libraw_image_sizes_t& s = decoder.imgdata.sizes;
  const std::uint64_t raw = std::uint64_t(s.raw_width) * s.raw_height;
  const std::uint64_t samples = decoder.imgdata.idata.filters != 0 ? 1 : 4;
  std::uint64_t out = std::uint64_t(s.width) * s.height;
  if (halfSize) out /= 4;
  return raw * samples * sizeof(ushort) + out * (4 * sizeof(ushort) + sizeof(PixelRGB<float>));
}

}  // namespace

int orientationFromFlip(int flip) {
  // LibRaw's flip: bit 0 mirrors columns, bit 1 mirrors rows, bit 2 transposes first.
  static constexpr std::array<int, 8> kOrientation = {1, 2, 4, 3, 5, 8, 6, 7};
  return flip >= 0 && flip < 8 ? kOrientation[static_cast<std::size_t>(flip)] : 1;
}

std::string describeFailure(const DecodeOutcome& outcome, const std::string& path) {
  return std::string(outcome.stage) + " '" + path + "': " + outcome.message;
}

DecodeOutcome rawInputOf(const ImageFileClass& file, std::shared_ptr<const RawInput>& input) {
  if (!file.isRead()) return failure("read", file.readCode, file.readError);
  if (file.size == 0) return failure("read", kImageReaderFailed, "the file is empty");
  auto data = std::make_shared<RawInput>();
  data->path = file.path;
  data->bytes = file.bytes;
  data->length = file.size;
  input = std::move(data);
  DecodeOutcome outcome;
  outcome.code = kImageReaderOk;
  return outcome;
}

DecodeOutcome identifyRaw(const RawInput& input, RawIdentity& identity) {
  RawStream stream(input.bytes.get(), input.length);
  auto decoder = std::make_unique<LibRaw>();
  configure(*decoder, false);
  return describeIdentified(*decoder, decoder->open_datastream(&stream), identity);
}

DecodeOutcome decodeRaw(const RawInput& input, bool halfSize, FailOn failOn,
                        const std::function<bool()>& stop, RawFrame& result,
                        const std::function<void()>& beforeProcess) {
  RawStream stream(input.bytes.get(), input.length);
  auto decoder = std::make_unique<InspectedLibRaw>();
  configure(*decoder, halfSize);
  ProgressContext progress{&stop, decoder.get(), {}};
  decoder->set_progress_handler(&onProgress, &progress);
  DataErrors dataErrors;
  decoder->set_dataerror_handler(&onDataError, &dataErrors);
  DamageCheck damage{failOn, input.path, {}};

  int rc = decoder->open_datastream(&stream);
  if (rc != LIBRAW_SUCCESS) return librawFailure("identify", rc);
  if (stop()) return failure("identify", kImageReaderCancelled, "cancelled");
  if (decoder->mosaicPatternLost() &&
      damage.fails("identify", false, "its colour filter pattern cannot be read"))
    return damage.outcome;
  const std::string memory =
      detail::checkWorkingBytes(decodeBytes(*decoder, halfSize), "decoding the raw image");
  if (!memory.empty()) return failure("identify", kImageReaderTooLarge, memory);

  stream.startChecking();
  rc = decoder->unpack();
  if (rc != LIBRAW_SUCCESS) return librawFailure("unpack", rc);
  if (DecodeOutcome missing = missingCodec(*decoder); missing.code != kImageReaderOk)
    return missing;
  if (stream.truncated() &&
      damage.fails("unpack", true, "image data lies beyond the end of the file"))
    return damage.outcome;
  if (dataErrors.count > 0 && damage.fails("unpack", dataErrors.endOfFile, describe(dataErrors)))
    return damage.outcome;
  if (stoppedEarly(*decoder, stream) &&
      damage.fails("unpack", true,
                   "the decoder stopped after " + std::to_string(stream.consumed()) +
                       " bytes, before any image data (the frame would be empty)"))
    return damage.outcome;
  if (stop()) return failure("unpack", kImageReaderCancelled, "cancelled");
  if (beforeProcess) {
    beforeProcess();
    if (stop()) return failure("unpack", kImageReaderCancelled, "cancelled");
  }

  rc = decoder->dcraw_process();
  if (rc != LIBRAW_SUCCESS) return librawFailure("process", rc);
  if (stop()) return failure("process", kImageReaderCancelled, "cancelled");
  const libraw_image_sizes_t& s = decoder->imgdata.sizes;
  if (!decoder->imgdata.image || s.width == 0 || s.height == 0)
    return failure("process", kImageReaderCorrupt, "the decoder produced no pixels");

  result.frame = toFloatFrame(*decoder, halfSize ? QUARTER_LOADED : FULL_LOADED);
  result.sensorSize =
      progress.beforeStretch.width > 0 ? progress.beforeStretch : _Size<int>(s.width, s.height);
  DecodeOutcome outcome;
  outcome.code = kImageReaderOk;
  outcome.stage = "convert";
  return outcome;
}

}  // namespace vorn::raw
