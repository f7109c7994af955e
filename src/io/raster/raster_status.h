#pragma once

#include <string>
#include <utility>

#include "vorn/io/image.h"

namespace vorn::detail {

/// Outcome of one decoding step: the code, the stage that failed and why.
struct RasterStatus {
  ImageReaderErrorCode code = kImageReaderOk;
  std::string stage;
  std::string reason;

  bool ok() const { return code == kImageReaderOk; }
  static RasterStatus success() { return {}; }
  static RasterStatus failure(ImageReaderErrorCode code, std::string stage, std::string reason) {
    return {code, std::move(stage), std::move(reason)};
  }
  /// "<name>: <stage>: <reason>", the text of the one log line a failed open writes.
  std::string describe(const std::string& name) const {
    return name + ": " + stage + ": " + reason;
  }
};

}  // namespace vorn::detail
