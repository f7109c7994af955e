#pragma once

#include <cmath>
#include <filesystem>
#include <memory>
#include <string>

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

/// A file of ../shared/samples/<folder> beside the repository; empty when it is absent.
inline std::string sharedSample(const std::string& folder, const std::string& name) {
  const std::filesystem::path path = std::filesystem::path(__FILE__).parent_path() / ".." / ".." /
                                     "shared" / "samples" / folder / name;
  return std::filesystem::exists(path) ? path.lexically_normal().string() : std::string();
}

}  // namespace vorn::bench
