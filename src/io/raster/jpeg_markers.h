#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorn::detail {

/// What the segments before a JPEG's scan data say.
struct JpegMarkers {
  bool hasFrame = false;  ///< a start-of-frame segment was found
  int precision = 0;      ///< bits per sample (8, or 12 for extended JPEG)
  int components = 0;
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> icc;  ///< the APP2 "ICC_PROFILE" chunks joined in order
  bool iccDamaged = false;        ///< chunks were missing, repeated or inconsistent
};

/// Walks the segments from SOI to the first SOS, bounds-checked; false when the walk runs off
/// the data or meets a malformed segment before a frame header.
bool readJpegMarkers(const std::uint8_t* data, std::size_t size, JpegMarkers& markers);

}  // namespace vorn::detail
