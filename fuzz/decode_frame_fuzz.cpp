// A fuzzed JPEG or TIFF decoded in this thread into a frame the caller owns, under the fail-on
// policy and the cover size taken from the input's last byte: the lenient policies drive the
// decoders on past damage, where a strict one would stop at once. Raw files are left out:
// LibRaw 0.20 crashes on mutations of its TIFF parser's input through any stream, which only
// decoding in a child process can contain. A full-size decode is repeated through the streamed
// export, which must agree with it on whether the data is whole.
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "vorn/core/data_store.h"
#include "vorn/core/log.h"
#include "vorn/io/image_reader.h"
#include "vorn/io/streamed_export.h"

namespace {

std::string gOutput;

// A JPEG or TIFF classified as the reader would classify a file of that name.
bool classified(const std::uint8_t* data, std::size_t size, vorn::ImageFileClass& file) {
  const bool jpeg = size >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF;
  const bool tiff =
      size >= 4 && (std::memcmp(data, "II*\0", 4) == 0 || std::memcmp(data, "MM\0*", 4) == 0);
  if (!jpeg && !tiff) return false;
  file.path = jpeg ? "fuzz.jpg" : "fuzz.tif";
  file.extension = jpeg ? "jpg" : "tif";
  file.format = file.signature = jpeg ? vorn::ImageFileFormat::Jpeg : vorn::ImageFileFormat::Tiff;
  auto bytes = std::make_shared<std::uint8_t[]>(size);
  std::memcpy(bytes.get(), data, size);
  file.bytes = std::move(bytes);
  file.size = size;
  file.readCode = vorn::kImageReaderOk;
  file.readError.clear();
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vorn::Logger::LogInstance().SetVerbosity(vorn::Log::kMaxVerbosity);  // no console noise
  // A forged header may declare the largest allowed image; the lenient policies would then
  // decode gigabytes of grey. The fuzzer looks for faults, not for throughput.
  vorn::DataStore::instance().set("ImageReader.MaxPixels", "4194304");
  const auto folder = std::filesystem::temp_directory_path() /
                      ("vorn_fuzz_decode_frame_" + std::to_string(::getpid()));
  std::filesystem::create_directories(folder);
  gOutput = (folder / "out.jpg").string();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vorn::ImageFileClass file;
  if (!classified(data, size, file)) return 0;
  const std::uint8_t options = data[size - 1];
  vorn::FrameRequest request;
  static constexpr vorn::FailOn kPolicies[] = {vorn::FailOn::None, vorn::FailOn::Truncated,
                                               vorn::FailOn::Error};
  request.failOn = kPolicies[options % 3];
  if (options & 0x80) request.cover = {1 + (options & 0x3F) * 16, 0};
  const vorn::OwnedFrame decoded = vorn::ImageReader::decodeFrame(file, request);
  // Success and a frame come together, and nothing else holds the frame.
  if ((decoded.errorCode == vorn::kImageReaderOk) != static_cast<bool>(decoded.frame))
    __builtin_trap();
  if (!(options & 0x80)) {
    vorn::ExportParameters p;
    p.path = gOutput;
    const auto darken = [](vorn::ImageFrame& band, int, int rows) {
      for (std::size_t i = 0; i < static_cast<std::size_t>(band.width) * rows; ++i)
        band.data[i].r *= 0.5f;
      return true;
    };
    const auto streamed = vorn::exportStreamed(file, request.failOn, p, darken);
    const bool written = streamed.status == vorn::StreamedExportStatus::Written;
    if (written != std::filesystem::exists(gOutput)) __builtin_trap();
    if (streamed.status != vorn::StreamedExportStatus::NotStreamable &&
        written != static_cast<bool>(decoded.frame))
      __builtin_trap();
    std::filesystem::remove(gOutput);
  }
  if (!decoded.frame) return 0;
  if (decoded.frame->empty() || decoded.frame.use_count() != 1 || !decoded.metadata)
    __builtin_trap();
  const float* values = &decoded.frame->data->r;
  for (std::uint64_t i = 0; i < decoded.frame->area() * 3; ++i)
    if (!std::isfinite(values[i])) __builtin_trap();
  return 0;
}
