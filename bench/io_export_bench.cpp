// Writing a 24 MP float frame to JPEG and TIFF files. The JPEG floor is the encoder alone
// (TurboJPEG compressing the same pixels already in 8 bits, into memory): the ratio is what the
// conversion, metadata and file cost on top. The TIFF floor is a parallel read of the frame.
#include <benchmark/benchmark.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "bench_data.h"
#include "bench_floor.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn::bench {
namespace {

namespace fs = std::filesystem;

std::string outputPath(const std::string& name) {
  return (fs::temp_directory_path() / ("vorn_bench_" + std::to_string(::getpid()) + "_" + name))
      .string();
}

// The frame's pixels as 8-bit RGB, made once.
const std::vector<unsigned char>& frame8() {
  static const std::vector<unsigned char> bytes = [] {
    const auto& frame = benchFrame();
    std::vector<unsigned char> out(frame->area() * 3);
    const float* values = &frame->data->r;
    for (std::size_t i = 0; i < out.size(); ++i) {
      const float v = values[i] > 0.0f ? (values[i] < 1.0f ? values[i] : 1.0f) : 0.0f;
      out[i] = static_cast<unsigned char>(v * 255.0f + 0.5f);
    }
    return out;
  }();
  return bytes;
}

bool turboJpegFloor() {
  tjhandle handle = tjInitCompress();
  if (!handle) return false;
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  const int status = tjCompress2(handle, frame8().data(), kFrame.width, 0, kFrame.height, TJPF_RGB,
                                 &jpeg, &size, TJSAMP_444, 90, 0);
  tjFree(jpeg);
  tjDestroy(handle);
  return status == 0 && size > 0;
}

void exportFrame(benchmark::State& state, Pool pool, const std::shared_ptr<RGBf>& frame,
                 ExportParameters parameters, bool jpegFloor) {
  const auto floor = [jpegFloor] { return jpegFloor ? turboJpegFloor() : readFloor(); };
  timeAgainstFloor(state, pool, jpegFloor ? "turbojpeg q90 in memory" : "read", floor,
                   [&] { return ImageMagickReader::writeImageToFile(*frame, parameters); });
  state.counters["file_MB"] = static_cast<double>(fs::file_size(parameters.path)) / 1e6;
  std::error_code ignored;
  fs::remove(parameters.path, ignored);
}

ExportParameters jpegQ90() {
  ExportParameters p;
  p.path = outputPath("q90.jpg");
  p.jpegQuality = 90;
  return p;
}

// The same pixels labelled ProPhoto, so the 8-bit export converts them into sRGB.
const std::shared_ptr<RGBf>& proPhotoFrame() {
  static const std::shared_ptr<RGBf> frame = [] {
    auto copy = benchFrame()->copy();
    copy->setColorProfile(ColorProfileType::proPhotoRGB());
    return copy;
  }();
  return frame;
}

const bool kRegistered = [] {
  registerPoolPair(
      "BM_ExportJpegQ90",
      [](benchmark::State& state, Pool pool) {
        exportFrame(state, pool, benchFrame(), jpegQ90(), true);
      },
      benchmark::kMillisecond, 5);
  registerPoolPair(
      "BM_ExportJpegQ90FromProPhoto",
      [](benchmark::State& state, Pool pool) {
        exportFrame(state, pool, proPhotoFrame(), jpegQ90(), true);
      },
      benchmark::kMillisecond, 5);
  for (int depth : {8, 16, 32}) {
    registerPoolPair(
        "BM_ExportTiff" + std::to_string(depth),
        [depth](benchmark::State& state, Pool pool) {
          ExportParameters p;
          p.path = outputPath(std::to_string(depth) + ".tif");
          p.tiffBitDepth = depth;
          exportFrame(state, pool, benchFrame(), p, false);
        },
        benchmark::kMillisecond, 3);
  }
  return true;
}();

}  // namespace
}  // namespace vorn::bench
