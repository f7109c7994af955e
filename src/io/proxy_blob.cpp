#include <Magick++.h>

#include <climits>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/log_failure.h"
#include "io/blob_header.h"
#include "io/color_profile_code.h"
#include "io/magick_environment.h"
#include "io/memory_limit.h"
#include "vorn/io/image_compressor.h"

namespace vorn {
namespace {

using CompressorException = ImageCompressorLosslessZlib::CompressorException;
using Frame = _ImageData<PixelRGB<float>>;

// The format's compression type 13 is ZipCompression in ImageMagick 6; the JPEG coder ignores it.
constexpr Magick::CompressionType kProxyCompression = Magick::ZipCompression;
static_assert(kProxyCompression == 13);
constexpr std::size_t kJpegQuality = 90;
constexpr std::uint8_t kJpegSignature[] = {0xFF, 0xD8, 0xFF};
constexpr std::size_t kHeader = ImageCompressorProxy::kProxyHeaderSize;

Magick::Image decodeJpeg(const Magick::Blob& encoded, bool headerOnly) {
  Magick::Image image;
  image.magick("JPEG");  // the coder is named, never guessed from the bytes
  if (headerOnly)
    image.ping(encoded);
  else
    image.read(encoded);
  return image;
}

std::shared_ptr<Frame> decodeProxy(const std::vector<std::uint8_t>& blob) {
  if (blob.size() < kHeader)
    throw std::runtime_error("Proxy blob is shorter than its 12-byte header");
  const detail::ProxyHeader header = detail::readProxyHeader(blob.data());
  const std::string claimed = std::to_string(header.width) + " x " + std::to_string(header.height);
  if (header.width == 0 || header.height == 0)
    throw std::runtime_error("Proxy blob has a zero side: " + claimed);
  if (header.width > INT_MAX || header.height > INT_MAX ||
      std::uint64_t(header.width) * header.height > detail::maxImagePixels())
    throw std::runtime_error("Proxy blob claims " + claimed + " pixels, more than the limit");
  std::shared_ptr<ColorProfile> profile;
  if (!detail::from_colorProfileCode(header.colorProfileCode, profile))
    throw std::runtime_error("Proxy blob names no known colour profile: code " +
                             std::to_string(header.colorProfileCode));
  const std::size_t length = blob.size() - kHeader;
  if (length < sizeof kJpegSignature ||
      std::memcmp(blob.data() + kHeader, kJpegSignature, sizeof kJpegSignature) != 0)
    throw std::runtime_error("Proxy blob holds no JPEG image");

  detail::ensureMagickEnvironment();
  const Magick::Blob encoded(blob.data() + kHeader, length);
  // The header is read first so a lying size is refused before any pixel is decoded.
  const Magick::Image probe = decodeJpeg(encoded, true);
  const auto sizeMatches = [&](const Magick::Image& image) {
    return image.columns() == header.width && image.rows() == header.height;
  };
  const auto mismatch = [&](const Magick::Image& image) {
    return std::runtime_error("Proxy JPEG is " + std::to_string(image.columns()) + " x " +
                              std::to_string(image.rows()) + ", its header says " + claimed);
  };
  if (!sizeMatches(probe)) throw mismatch(probe);
  Magick::Image decoded = decodeJpeg(encoded, false);
  if (!sizeMatches(decoded)) throw mismatch(decoded);
  decoded.colorSpace(Magick::sRGBColorspace);

  const _Size<int> size(static_cast<int>(header.width), static_cast<int>(header.height));
  auto frame = std::make_shared<Frame>(size, profile);
  decoded.write(0, 0, header.width, header.height, "RGB", Magick::FloatPixel, frame->data);
  return frame;
}

}  // namespace

void ImageCompressorProxy::compress(const _ImageData<PixelRGB<float>>& image,
                                    std::vector<std::uint8_t>& blob) {
  if (image.width <= 0 || image.height <= 0 || image.empty()) return;
  const std::uint32_t code = detail::to_colorProfileCode(image.colorProfile);
  if (const std::string refusal = detail::magickSizeRefusal(image.size()); !refusal.empty())
    throw CompressorException("Proxy image " + refusal);
  if (const std::string refusal = detail::checkWorkingBytes(
          image.sizeInBytes(),
          "A proxy image of " + std::to_string(image.width) + " x " + std::to_string(image.height));
      !refusal.empty())
    throw CompressorException(refusal);
  // ImageMagick converts NaN to an integer without a check, so it is given clamped pixels.
  const std::shared_ptr<Frame> clamped = image.copy_saturated();
  Magick::Blob encoded;
  try {
    Magick::Image magick(static_cast<std::size_t>(image.width),
                         static_cast<std::size_t>(image.height), "RGB", Magick::FloatPixel,
                         clamped->data);
    magick.compressType(kProxyCompression);
    magick.quality(kJpegQuality);
    magick.depth(8);
    magick.magick("JPEG");
    magick.write(&encoded);
  } catch (const Magick::Exception& error) {
    throw CompressorException(std::string("JPEG encoding failed: ") + error.what());
  }

  std::vector<std::uint8_t> out(kHeader + encoded.length());
  detail::writeProxyHeader(out.data(), {static_cast<std::uint32_t>(image.width),
                                        static_cast<std::uint32_t>(image.height), code});
  std::memcpy(out.data() + kHeader, encoded.data(), encoded.length());
  blob = std::move(out);
}

void ImageCompressorProxy::uncompress(const std::vector<std::uint8_t>& blob,
                                      std::shared_ptr<_ImageData<PixelRGB<float>>>& image) {
  try {
    image = decodeProxy(blob);
  } catch (const std::exception& error) {
    VORN_LOG_FAILURE(error.what());
  }
}

}  // namespace vorn
