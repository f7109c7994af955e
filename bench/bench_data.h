#pragma once

#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "bench_floor.h"
#include "core/parallel.h"
#include "vorn/core/color_profile.h"
#include "vorn/core/image_data.h"

namespace vorn::bench {

using RGBf = _ImageData<PixelRGB<float>>;
inline constexpr _Size<int> kFrame(6000, 4000);  // 24 MP, 288 MB of PixelRGB<float>

/// The frame every pixel benchmark works on: smooth content with some values outside [0, 1],
/// tagged sRGB, built once.
inline const std::shared_ptr<RGBf>& benchFrame() {
  static const std::shared_ptr<RGBf> image = [] {
    auto img = std::make_shared<RGBf>(kFrame, ColorProfileType::sRGB());
    detail::parallelRows(kFrame.height, [&](int first, int end) {
      for (int y = first; y < end; ++y) {
        PixelRGB<float>* row = img->row(y);
        for (int x = 0; x < kFrame.width; ++x) {
          const float u = static_cast<float>(x) / kFrame.width;
          const float v = static_cast<float>(y) / kFrame.height;
          row[x] = PixelRGB<float>(u * 1.2f - 0.1f, v, 0.5f + 0.4f * std::sin(12.0f * u * v));
        }
      }
    });
    return img;
  }();
  return image;
}

/// The floor of pixel operations: the frame's bytes copied in parallel, into a buffer the pool
/// already holds (warm) or into a fresh one, first touch included (cold).
inline bool copyFloor(Pool pool) {
  const auto& src = benchFrame();
  static const std::shared_ptr<RGBf> warm = [] {
    auto dst = std::make_shared<RGBf>(kFrame);
    dst->fillRect(PixelRGB<float>(0.0f));
    return dst;
  }();
  if (pool == Pool::Warm) {
    detail::parallelCopy(warm->data, src->data, src->sizeInBytes());
  } else {
    RGBf fresh(kFrame);
    detail::parallelCopy(fresh.data, src->data, src->sizeInBytes());
  }
  return true;
}

/// The floor of operations that only read the frame: a parallel sum of all its values.
inline bool readFloor() {
  const auto& src = benchFrame();
  const float* values = &src->data->r;
  const std::size_t count = src->area() * 3;
  float total = 0.0f;
  std::mutex mutex;
  detail::parallelChunks(count / 16, 4096, [&](std::size_t first, std::size_t end) {
    float lanes[16] = {};
    for (std::size_t i = first; i < end; ++i)
      for (int k = 0; k < 16; ++k) lanes[k] += values[i * 16 + k];
    float sum = 0.0f;
    for (float lane : lanes) sum += lane;
    std::lock_guard lock(mutex);
    total += sum;
  });
  benchmark::DoNotOptimize(total);
  return true;
}

/// A file of ../shared/samples/<folder> beside the repository; empty when it is absent.
inline std::string sharedSample(const std::string& folder, const std::string& name) {
  const std::filesystem::path path = std::filesystem::path(__FILE__).parent_path() / ".." / ".." /
                                     "shared" / "samples" / folder / name;
  return std::filesystem::exists(path) ? path.lexically_normal().string() : std::string();
}

}  // namespace vorn::bench
