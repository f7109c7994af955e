#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vorn/core/color_profile.h"
#include "vorn/core/geometry.h"
#include "vorn/io/image.h"

namespace Magick {
class Image;
}

namespace vorn {

/// How an encoded file is written.
struct ExportParameters {
  /// Target file; its extension picks the format: jpg/jpeg or tif/tiff.
  std::string path;
  int jpegQuality = 92;  ///< 1..100
  int tiffBitDepth = 8;  ///< 8 or 16
  /// Profile the pixels are converted into and that is embedded; null keeps the frame's (sRGB
  /// when the frame has none).
  std::shared_ptr<ColorProfile> colorProfile;
  /// Longer side of the written image (aspect kept); 0 leaves the size alone.
  int longestSide = 0;
  /// Exact size of the written image; used when both sides are positive and longestSide is 0.
  _Size<int> size{0, 0};
  /// EXIF orientation 1..8 applied to the pixels on the way out (1 writes them as they are).
  int orientation = 1;
  /// File whose EXIF is copied (orientation reset to 1, dimensions updated); empty copies none.
  std::string exifSourcePath;
};

/// Decodes JPEG and TIFF files into float frames and writes all encoded output.
class ImageMagickReader {
 public:
  /// Decodes path; a positive `size` lets a JPEG be decoded at the smallest DCT scale that still
  /// covers it. Codes: 0 ok, 4 unreadable or not what its extension says, 6 corrupt, 7 too large.
  ImageReaderErrorCode openImage(const std::string& path, _Size<int> size);
  /// The image of the last successful openImage; empty before one.
  std::shared_ptr<Image> getOpenedImage() const { return image_; }

  /// Writes one frame through a temporary file beside the target; false and a log line on failure.
  static bool writeImageToFile(const _ImageData<PixelRGB<float>>& frame,
                               const ExportParameters& parameters);
  /// Writes the frames as the pages of one TIFF (a JPEG holds only one frame).
  static bool writeImagesToFile(const std::vector<std::shared_ptr<const ImageFrame>>& frames,
                                const ExportParameters& parameters);
  /// Writes a 32-bit float RGB TIFF that keeps values outside [0, 1] (NaN and Inf become 0).
  static bool writeHDRImageToFile(const _ImageData<PixelRGB<float>>& frame,
                                  const std::string& path);

 private:
  /// Applies parameters.orientation to the pixels.
  static void flipRotateImage(Magick::Image& image, const ExportParameters& parameters);
  /// Format, depth, quality and compression of the encoder.
  static void SetAdditionalExportParams(Magick::Image& image, const ExportParameters& parameters);

  std::shared_ptr<Image> image_;
};

}  // namespace vorn
