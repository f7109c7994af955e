#include "io/raw/raw_decoder.h"

#include <libraw/libraw.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/parallel.h"
#include "io/input_limits.h"

namespace vorn::raw {
namespace {

// LibRaw's 16-bit output spans 0..65535 with auto-brightening off, so this is the scale factor
// that comes with every frame it decodes.
constexpr float kRawOutputScale = 65535.0f;

// Bytes a decoder may ask for past the end of a complete file: bit readers fetch a little ahead.
constexpr std::int64_t kReadAheadSlack = 4096;

/// A memory stream that notices when a decoder looks for data the file does not have: LibRaw
/// reads a truncated file as zeros and calls it a success.
class CheckedStream final : public LibRaw_buffer_datastream {
 public:
  explicit CheckedStream(const RawInput& input)
      : LibRaw_buffer_datastream(const_cast<unsigned char*>(input.bytes.get()), input.length),
        length_(static_cast<INT64>(input.length)) {}

  int read(void* ptr, size_t size, size_t count) override {
    const INT64 before = tell();
    const int items = LibRaw_buffer_datastream::read(ptr, size, count);
    if (checking_) {
      const INT64 wanted = static_cast<INT64>(size * count);
      const INT64 got = tell() - before;
      if (got < wanted) missing_ += wanted - got;
    }
    return items;
  }
  int seek(INT64 offset, int whence) override {
    if (checking_) {
      const INT64 base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? tell() : length_;
      if (base + offset > length_) pastEnd_ = true;
    }
    return LibRaw_buffer_datastream::seek(offset, whence);
  }
  int get_char() override {
    const int c = LibRaw_buffer_datastream::get_char();
    if (c < 0 && checking_) ++missing_;
    return c;
  }

  /// Starts watching; parsing the metadata may legitimately follow offsets out of the file.
  void startChecking() { checking_ = true; }
  bool truncated() const { return pastEnd_ || missing_ > kReadAheadSlack; }

 private:
  INT64 length_;
  bool checking_ = false;
  // Parallel decoders read through one stream from several threads.
  std::atomic<bool> pastEnd_{false};
  std::atomic<std::int64_t> missing_{0};
};

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
  CheckedStream stream(input);
  auto decoder = std::make_unique<LibRaw>();
  configure(*decoder, false);
  return describeIdentified(*decoder, decoder->open_datastream(&stream), identity);
}

DecodeOutcome decodeRaw(const RawInput& input, bool halfSize, const std::function<bool()>& stop,
                        RawFrame& result, const std::function<void()>& beforeProcess) {
  CheckedStream stream(input);
  auto decoder = std::make_unique<LibRaw>();
  configure(*decoder, halfSize);
  ProgressContext progress{&stop, decoder.get(), {}};
  decoder->set_progress_handler(&onProgress, &progress);

  int rc = decoder->open_datastream(&stream);
  if (rc != LIBRAW_SUCCESS) return librawFailure("identify", rc);
  if (stop()) return failure("identify", kImageReaderCancelled, "cancelled");

  stream.startChecking();
  rc = decoder->unpack();
  if (rc != LIBRAW_SUCCESS) return librawFailure("unpack", rc);
  if (stream.truncated())
    return failure("unpack", kImageReaderCorrupt, "image data lies beyond the end of the file");
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
