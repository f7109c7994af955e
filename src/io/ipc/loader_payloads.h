#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "vorn/io/image.h"
#include "vorn/io/image_source_raw.h"

namespace vorn::ipc {

/// What the host asks the child to load, with the settings the decode reads.
struct LoadRequest {
  std::int32_t flag = 0;
  std::string path;
  std::int32_t cpuSeconds = 0;
  std::string fault;  ///< test hook stage; empty in normal use
  std::vector<std::pair<std::string, std::string>> settings;
  /// A single-frame decode's upright size to cover (half size when that still covers it).
  std::int32_t coverWidth = 0;
  std::int32_t coverHeight = 0;
  std::int32_t failOn = 0;  ///< a single-frame decode's FailOn
};

/// The opened file: its code and, when 0, what the source needs before any frame arrives.
struct LoadIdentity {
  std::int32_t code = kImageReaderFailed;
  RawFrameGeometry geometry;
  ImageMetadata metadata;
};

/// A frame the child put in its frame buffer.
struct FrameNotice {
  std::uint32_t full = 0;  ///< 0 for the quarter loader's frame, 1 for the full loader's
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t loadState = 0;
  std::int32_t sensorWidth = 0;
  std::int32_t sensorHeight = 0;

  std::uint64_t bytes() const;
};

std::vector<unsigned char> encodeLoadRequest(const LoadRequest& request);
bool decodeLoadRequest(const std::vector<unsigned char>& payload, LoadRequest& request);
std::vector<unsigned char> encodeIdentity(const LoadIdentity& identity);
bool decodeIdentity(const std::vector<unsigned char>& payload, LoadIdentity& identity);
std::vector<unsigned char> encodeFrameNotice(const FrameNotice& notice);
/// Also refuses empty or negative sizes and unknown load states.
bool decodeFrameNotice(const std::vector<unsigned char>& payload, FrameNotice& notice);
std::vector<unsigned char> encodeCode(std::int32_t code);
bool decodeCode(const std::vector<unsigned char>& payload, std::int32_t& code);

}  // namespace vorn::ipc
