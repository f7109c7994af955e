#include "io/raster/jpeg_decoder.h"

#include <turbojpeg.h>

#include <climits>
#include <string>

#include "io/raster/jpeg_decoding.h"

namespace vorn::detail {

// libjpeg itself reads the header, so that its warnings meet the same policy as the scan's.
RasterStatus readJpegHeader(const std::uint8_t* data, std::size_t size, JpegHeader& header,
                            FailOn failOn) {
  if (size > static_cast<std::size_t>(ULONG_MAX))
    return RasterStatus::failure(kImageReaderCorrupt, "header", "stream too long");
  jpeg_decompress_struct cinfo{};
  JpegDecodeErrors errors;
  prepareJpegDecoder(cinfo, errors, failOn);
  struct Destroy {
    jpeg_decompress_struct& cinfo;
    ~Destroy() { jpeg_destroy_decompress(&cinfo); }
  } destroy{cinfo};
  if (!readJpegHeaderOnly(cinfo, errors, data, size)) return jpegDecoderFailure(errors, "header");
  if (cinfo.image_width == 0 || cinfo.image_height == 0)
    return RasterStatus::failure(kImageReaderCorrupt, "header", "zero image size");
  header.size =
      _Size<int>(static_cast<int>(cinfo.image_width), static_cast<int>(cinfo.image_height));
  header.cmyk = cinfo.jpeg_color_space == JCS_CMYK || cinfo.jpeg_color_space == JCS_YCCK;
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
