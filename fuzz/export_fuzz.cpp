// A fuzzed JPEG or TIFF decoded from memory and written back as JPEG and as TIFF, with the
// depth, orientation and size taken from the input's last bytes. Whatever decodes must export,
// and the written file must hold the size the options ask for.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "vorn/core/log.h"
#include "vorn/io/image_magick_reader.h"
#include "vorn/io/image_reader.h"

namespace {

std::string gFolder;

bool isJpegOrTiff(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return false;
  return (data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) ||
         std::memcmp(data, "II*\0", 4) == 0 || std::memcmp(data, "MM\0*", 4) == 0;
}

vorn::_Size<int> writtenSize(vorn::_Size<int> frame, const vorn::ExportParameters& p) {
  vorn::_Size<int> size = frame;
  if (p.longestSide > 0) {
    const double scale = static_cast<double>(p.longestSide) / std::max(frame.width, frame.height);
    const auto side = [scale](int length) {
      return std::max(1, static_cast<int>(std::round(length * scale)));
    };
    size = {side(frame.width), side(frame.height)};
  }
  return p.orientation >= 5 ? vorn::_Size<int>(size.height, size.width) : size;
}

void exportAndCheck(const vorn::ImageFrame& frame, const vorn::ExportParameters& p) {
  if (!vorn::ImageMagickReader::writeImageToFile(frame, p)) __builtin_trap();
  vorn::ImageMagickReader reader;
  if (reader.openImage(p.path, {-1, -1}) != vorn::kImageReaderOk) __builtin_trap();
  const auto back = reader.getOpenedImage()->workingImage();
  if (!back || back->size() != writtenSize(frame.size(), p)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vorn::Logger::LogInstance().SetVerbosity(vorn::Log::kMaxVerbosity);  // no console noise
  gFolder =
      (std::filesystem::temp_directory_path() / ("vorn_fuzz_export_" + std::to_string(::getpid())))
          .string();
  std::filesystem::create_directories(gFolder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (!isJpegOrTiff(data, size)) return 0;
  const vorn::ImageResult result =
      vorn::ImageReader::open(const_cast<std::uint8_t*>(data), static_cast<std::uint64_t>(size));
  if (!result.image) return 0;
  const auto frame = result.image->workingImage();
  // Large frames are valid but slow; the fuzzer looks for faults, not for throughput.
  if (!frame || frame->empty() || frame->area() > (1u << 20)) return 0;

  const std::uint8_t options = data[size - 1];
  vorn::ExportParameters p;
  p.orientation = 1 + (options >> 2) % 8;
  p.longestSide = (options & 0x80) ? 1 + data[size - 2] % 64 : 0;
  p.jpegQuality = 1 + data[size - 3] % 100;
  p.jpegProgressive = (options & 0x40) != 0;
  p.path = gFolder + "/out.jpg";
  exportAndCheck(*frame, p);
  static constexpr int kDepths[] = {8, 16, 32};
  p.tiffBitDepth = kDepths[options % 3];
  p.path = gFolder + "/out.tif";
  exportAndCheck(*frame, p);
  return 0;
}
