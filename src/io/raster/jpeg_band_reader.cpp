#include "io/raster/jpeg_band_reader.h"

#include <climits>

#include "core/parallel.h"
#include "io/raster/jpeg_decoding.h"
#include "io/raster/orientation.h"

namespace vorn::detail {

// libjpeg keeps pointers into both structures: they live at a fixed address for the reader's life.
struct JpegBandReader::Decoder {
  jpeg_decompress_struct cinfo{};
  JpegDecodeErrors errors;
  FailOn failOn = FailOn::Error;
  bool created = false;
  ~Decoder() {
    if (created) jpeg_destroy_decompress(&cinfo);
  }
};

JpegBandReader::JpegBandReader() = default;
JpegBandReader::~JpegBandReader() = default;

RasterStatus JpegBandReader::open(const std::uint8_t* data, std::size_t size, FailOn failOn,
                                  std::string name) {
  name_ = std::move(name);
  if (size > static_cast<std::size_t>(ULONG_MAX))
    return failure_ = RasterStatus::failure(kImageReaderCorrupt, "header", "stream too long");
  decoder_ = std::make_unique<Decoder>();
  Decoder& d = *decoder_;
  d.failOn = failOn;
  prepareJpegDecoder(d.cinfo, d.errors, failOn);
  d.created = true;
  if (!startJpegDecoder(d.cinfo, d.errors, data, size, 1))
    return failure_ = jpegDecoderFailure(d.errors, "header");
  if (d.cinfo.output_components != 3)
    return failure_ =
               RasterStatus::failure(kImageReaderFailed, "header", "not an RGB or YCbCr JPEG");
  if (!beginJpegRows(d.cinfo, d.errors)) return failure_ = jpegDecoderFailure(d.errors, "decode");
  size_ =
      _Size<int>(static_cast<int>(d.cinfo.output_width), static_cast<int>(d.cinfo.output_height));
  return failure_ = RasterStatus::success();
}

RasterStatus JpegBandReader::read(int count, ImageFrame& band) {
  if (!failure_.ok() || !decoder_) return failure_;
  if (count <= 0 || count > size_.height - nextRow_ || band.width != size_.width ||
      band.height < count)
    return failure_ = RasterStatus::failure(kImageReaderFailed, "decode",
                                            "rows asked for outside the image or the band");
  const std::size_t rowBytes = static_cast<std::size_t>(size_.width) * 3;
  try {
    bytes_.resize(rowBytes * static_cast<std::size_t>(count));
    std::vector<JSAMPROW> rows(static_cast<std::size_t>(count));
    for (std::size_t r = 0; r < rows.size(); ++r) rows[r] = bytes_.data() + r * rowBytes;
    if (!readJpegRows(decoder_->cinfo, decoder_->errors, rows.data(), count))
      return failure_ = jpegDecoderFailure(decoder_->errors, "decode");
  } catch (const std::bad_alloc&) {
    return failure_ = RasterStatus::failure(kImageReaderFailed, "decode", "out of memory");
  }
  const _Size<int> stored(size_.width, count);
  parallelRows(count, [&](int first, int end) {
    convertRgb8Rows(bytes_.data() + static_cast<std::size_t>(first) * rowBytes, rowBytes, first,
                    end - first, stored, 1, band);
  });
  nextRow_ += count;
  return RasterStatus::success();
}

RasterStatus JpegBandReader::finish() {
  if (!failure_.ok() || !decoder_) return failure_;
  if (nextRow_ != size_.height)
    return failure_ = RasterStatus::failure(kImageReaderFailed, "decode", "rows left unread");
  return failure_ = concludeJpegDecode(decoder_->cinfo, decoder_->errors, decoder_->failOn, name_);
}

}  // namespace vorn::detail
