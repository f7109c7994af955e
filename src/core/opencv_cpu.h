#pragma once

#include <opencv2/core/ocl.hpp>

namespace vorn::detail {

/// OpenCV's functions run on the CPU here. Asked first whether to use OpenCL, OpenCV loads the
/// system's OpenCL loader and drivers to probe for a device; the answer is kept per thread, so
/// each call into OpenCV gives it first (a thread-local store).
inline void openCvOnCpu() {
  cv::ocl::setUseOpenCL(false);
}

}  // namespace vorn::detail
