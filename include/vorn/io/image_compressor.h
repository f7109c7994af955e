#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vorn/core/image_data.h"
#include "vorn/core/mask_image.h"
#include "vorn/core/pixel.h"

namespace vorn {

/// The two words that open a tracked blob; a blob written today holds 0xFFFFFFFF in both.
struct STrackVersionFormat {
  std::int32_t first = -1;
  std::int32_t second = -1;

  /// True exactly when neither word is 0xFFFFFFFF.
  bool isUntrackedVersion() const { return first != -1 && second != -1; }
};

/// Identifies the stream of a tracked blob: format version major.minor and the compressor.
struct SCompressedDataSignature {
  std::uint32_t versionMajor = 1;
  std::uint32_t versionMinor = 0;
  std::uint32_t compressor = 1;  ///< 1: one zlib stream
};

/// Describes the image inside a tracked blob; readers use only width and height.
struct SCompressedImageFormat {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  // Words a, b and d are informational: the in-memory sample size in bytes, the channels per
  // pixel and the planes of the image (4, 1, 1 for a float mask).
  std::uint32_t sampleSize = 4;
  std::uint32_t channelCount = 1;
  std::uint32_t colorProfileCode = 7;
  std::uint32_t planeCount = 1;
  std::uint32_t compressionLevel = 0xFFFFFFFFu;  ///< zlib level, signed, stored as its bits
  std::uint64_t streamLength = 0;
};

/// The zlib layer: tracked, untracked and headerless blobs. Failures throw CompressorException.
class ImageCompressorLosslessZlib {
 public:
  /// Thrown for every zlib failure and for blobs that cannot be read.
  class CompressorException : public std::exception {
   public:
    explicit CompressorException(std::string message) : message_(std::move(message)) {}
    const char* what() const noexcept override { return message_.c_str(); }
    const std::string& message() const noexcept { return message_; }

   private:
    std::string message_;
  };

  static constexpr std::size_t kTrackedHeaderSize = 56;
  static constexpr std::size_t kUntrackedHeaderSize = 8;

  /// Writes a tracked blob of width x height source bytes; nothing unless both sides are
  /// non-zero, e is 1 and f is 0.
  static void compressEx(const std::vector<std::uint8_t>& source,
                         std::vector<std::uint8_t>& destination, unsigned width, unsigned height,
                         unsigned a, unsigned b, unsigned colorCode, unsigned d, int level,
                         unsigned e, unsigned f);
  /// Inflates the stream of a tracked blob into a destination of at least expectedLength bytes;
  /// bytes the stream does not reach are left as they were.
  static void uncompressEx(const std::vector<std::uint8_t>& source,
                           std::vector<std::uint8_t>& destination, std::uint64_t expectedLength,
                           unsigned e, unsigned f);
  /// Inflates the stream of an untracked blob (from offset 8) into length bytes at destination.
  static void uncompress(const std::vector<std::uint8_t>& source, float* destination,
                         std::uint64_t length);
  /// One zlib stream of byteCount raw bytes, no header.
  static void compressSimple(const PixelRGB<float>* data, std::vector<std::uint8_t>& destination,
                             std::uint64_t byteCount, int level);
  /// Inflates a headerless stream that must fill exactly byteCount bytes.
  static void decompressSimple(const std::vector<std::uint8_t>& source,
                               PixelRGB<float>* destination, std::uint64_t byteCount);
};

/// The blob entry points used by the rest of the library: masks and JPEG proxy images.
class ImageCompressorProxy {
 public:
  static constexpr std::size_t kProxyHeaderSize = 12;

  /// Quantises the mask to bytes and writes a tracked blob; throws CompressorException.
  static void compressMask(const MaskImage& mask, std::vector<std::uint8_t>& blob);
  /// Reads either mask layout into a new mask; a blob that cannot be read leaves mask as it was
  /// and is logged.
  static void uncompressMask(const std::vector<std::uint8_t>& blob,
                             std::shared_ptr<MaskImage>& mask);
  /// Reads a tracked mask blob; throws CompressorException.
  static std::shared_ptr<MaskImage> uncompressMask_1_0(const std::vector<std::uint8_t>& blob);
  /// Reads an untracked (float) mask blob, its samples exactly as stored; throws
  /// CompressorException.
  static std::shared_ptr<MaskImage> uncompressMask_untracked(const std::vector<std::uint8_t>& blob);

  /// Encodes the frame as a JPEG proxy blob; throws CompressorException for a profile without
  /// a code.
  static void compress(const _ImageData<PixelRGB<float>>& image, std::vector<std::uint8_t>& blob);
  /// Decodes a proxy blob into a new frame with its profile; a blob that cannot be read leaves
  /// image as it was and is logged.
  static void uncompress(const std::vector<std::uint8_t>& blob,
                         std::shared_ptr<_ImageData<PixelRGB<float>>>& image);
};

}  // namespace vorn
