#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "vorn/io/image.h"

namespace vorn {

/// The kinds of image file the reader tells apart, by a file's name or by its first bytes.
enum class ImageFileFormat : std::int32_t { Unknown = 0, Jpeg, Tiff, Raw };

/// What one file is, decided once, with its contents: the reader's queries and opens take it in
/// place of the path so that the file is read once however many questions are asked of it.
struct ImageFileClass {
  std::string path;
  std::string extension;  ///< lower case, without the dot
  /// By extension: Jpeg, Tiff, Raw (any extension of the raw set) or Unknown.
  ImageFileFormat format = ImageFileFormat::Unknown;
  /// By the first bytes: Jpeg, Tiff (which DNG and most raw files also begin like) or Unknown.
  ImageFileFormat signature = ImageFileFormat::Unknown;
  /// Decoded by the raw decoder: a raw extension, or a TIFF whose camera model is a raw one.
  bool raw = false;
  /// "Exif.Image.Model" in lower case; read for TIFF files only, where it decides `raw`.
  std::string cameraModel;
  /// 0 when the contents were read; 4 for a missing or unreadable file, 7 for an oversized one.
  ImageReaderErrorCode readCode = kImageReaderFailed;
  /// Why the contents were not read (or could not be); empty when they were.
  std::string readError;
  /// The whole file; null when it was not read.
  std::shared_ptr<const std::uint8_t[]> bytes;
  std::size_t size = 0;

  bool isRead() const { return readCode == kImageReaderOk && bytes != nullptr; }
  bool isDng() const { return extension == "dng"; }
  bool isHeic() const { return extension == "heic"; }
};

/// The format an extension (lower case, without the dot) names; Unknown outside the 32 supported.
ImageFileFormat imageFileFormatOfExtension(const std::string& extension);
/// Reads the file once and classifies it by name, signature and (for a TIFF) camera model.
ImageFileClass classifyImageFile(const std::string& path);
/// Classifies by name alone, reading the file only where the name cannot decide: a TIFF, which
/// is raw or not by its camera model.
ImageFileClass classifyImageFileByName(const std::string& path);

}  // namespace vorn
