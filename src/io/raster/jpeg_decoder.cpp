#include "io/raster/jpeg_decoder.h"

#include <turbojpeg.h>

#include <climits>
#include <string>

namespace vorn::detail {
namespace {

class Decompressor {
 public:
  Decompressor() : handle_(tjInitDecompress()) {}
  ~Decompressor() {
    if (handle_) tjDestroy(handle_);
  }
  Decompressor(const Decompressor&) = delete;
  Decompressor& operator=(const Decompressor&) = delete;

  tjhandle get() const { return handle_; }
  std::string error() const { return tjGetErrorStr2(handle_); }

 private:
  tjhandle handle_;
};

bool fitsDecoderLength(std::size_t size) {
  return size <= static_cast<std::size_t>(ULONG_MAX);
}

}  // namespace

RasterStatus readJpegHeader(const std::uint8_t* data, std::size_t size, JpegHeader& header) {
  Decompressor decoder;
  if (!decoder.get()) return RasterStatus::failure(kImageReaderFailed, "header", "no decoder");
  if (!fitsDecoderLength(size))
    return RasterStatus::failure(kImageReaderCorrupt, "header", "stream too long");
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(decoder.get(), data, static_cast<unsigned long>(size), &width, &height,
                          &subsampling, &colorspace) != 0)
    return RasterStatus::failure(kImageReaderCorrupt, "header", decoder.error());
  if (width <= 0 || height <= 0)
    return RasterStatus::failure(kImageReaderCorrupt, "header", "zero image size");
  header.size = _Size<int>(width, height);
  header.cmyk = colorspace == TJCS_CMYK || colorspace == TJCS_YCCK;
  return RasterStatus::success();
}

int jpegScaleDenominator(_Size<int> stored, _Size<int> cover) {
  if (cover.width <= 0 && cover.height <= 0) return 1;
  for (int denominator : {8, 4, 2}) {
    const _Size<int> scaled = jpegScaledSize(stored, denominator);
    if ((cover.width <= 0 || scaled.width >= cover.width) &&
        (cover.height <= 0 || scaled.height >= cover.height))
      return denominator;
  }
  return 1;
}

int jpegFitDenominator(_Size<int> stored, _Size<int> box) {
  if (box.width <= 0 && box.height <= 0) return 1;
  for (int denominator : {1, 2, 4}) {
    const _Size<int> scaled = jpegScaledSize(stored, denominator);
    if ((box.width <= 0 || scaled.width <= box.width) &&
        (box.height <= 0 || scaled.height <= box.height))
      return denominator;
  }
  return 8;
}

_Size<int> jpegScaledSize(_Size<int> stored, int denominator) {
  const tjscalingfactor factor{1, denominator};
  return _Size<int>(TJSCALED(stored.width, factor), TJSCALED(stored.height, factor));
}

}  // namespace vorn::detail
