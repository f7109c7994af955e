#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vorn/core/color_profile.h"
#include "vorn/core/geometry.h"
#include "vorn/io/image.h"

namespace vorn {

/// Chroma subsampling of a JPEG export.
enum class JpegSubsampling {
  Auto,  ///< 4:4:4 from quality 90 up, 4:2:0 below
  S444,
  S422,
  S420,
};

/// How an encoded file is written.
struct ExportParameters {
  /// Target file; its extension picks the format: jpg/jpeg or tif/tiff.
  std::string path;
  int jpegQuality = 92;  ///< 1..100
  JpegSubsampling jpegSubsampling = JpegSubsampling::Auto;
  /// Progressive scans; like optimised tables, the encoder then holds every coefficient.
  bool jpegProgressive = false;
  /// Optimal Huffman tables make the encoder hold every DCT coefficient of the image (2 bytes a
  /// sample: 144 MB for 24 MP at 4:4:4) for a second pass, for files about 3 % smaller; off by
  /// default, as in the common encoders.
  bool jpegOptimizeHuffman = false;
  int tiffBitDepth = 8;  ///< 8, 16, or 32 for float samples that keep values outside [0, 1]
  /// Profile the pixels are converted into and that is embedded; null picks sRGB for 8-bit
  /// output (viewers that ignore profiles assume it) and the frame's own for 16 and 32 bits.
  std::shared_ptr<ColorProfile> colorProfile;
  /// Longer side of the written image (aspect kept); 0 leaves the size alone.
  int longestSide = 0;
  /// Exact size of the written image; used when both sides are positive and longestSide is 0.
  _Size<int> size{0, 0};
  /// EXIF orientation 1..8 applied to the pixels on the way out (1 writes them as they are).
  int orientation = 1;
  /// File whose EXIF and XMP are copied (orientation reset to 1, dimensions updated); empty
  /// copies none.
  std::string exifSourcePath;
};

/// Decodes JPEG and TIFF files into float frames and writes JPEG and TIFF files.
class ImageMagickReader {
 public:
  /// Decodes path; a positive `size` lets a JPEG be decoded at the smallest DCT scale that still
  /// covers it. Codes: 0 ok, 4 unreadable or not what its extension says, 6 corrupt, 7 too large.
  ImageReaderErrorCode openImage(const std::string& path, _Size<int> size);
  /// The image of the last successful openImage; empty before one.
  std::shared_ptr<Image> getOpenedImage() const { return image_; }

  /// Checks, before any decoding, that a frame of `frameSize` can be written with `parameters`:
  /// format and options, the output folder and its permissions, the written size against the
  /// format's limits, the pixel cap and the memory bound. False with a reason naming the limit.
  static bool checkExport(_Size<int> frameSize, const ExportParameters& parameters,
                          std::string& reason);
  /// The size of the image that writing a frame of `frameSize` with `parameters` makes.
  static _Size<int> writtenSize(_Size<int> frameSize, const ExportParameters& parameters);
  /// Writes one frame, streaming its rows into the encoder; false and a log line on failure.
  static bool writeImageToFile(const _ImageData<PixelRGB<float>>& frame,
                               const ExportParameters& parameters);
  /// Writes the frames as the pages of one TIFF (a JPEG holds only one frame).
  static bool writeImagesToFile(const std::vector<std::shared_ptr<const ImageFrame>>& frames,
                                const ExportParameters& parameters);
  /// Writes a 32-bit float RGB TIFF that keeps values outside [0, 1] (NaN and Inf become 0).
  static bool writeHDRImageToFile(const _ImageData<PixelRGB<float>>& frame,
                                  const std::string& path);

 private:
  std::shared_ptr<Image> image_;
};

}  // namespace vorn
